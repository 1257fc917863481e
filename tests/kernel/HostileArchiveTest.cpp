// Files whose checksums are all right and whose content is meant to hurt.
#include "kernel/ArchiveError.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using namespace Kernel;
using namespace Kernel::ArchiveLayout;

namespace {
constexpr FileID fileID{1234, 5678};

/// Bytes that count how often they are read.
class CountingFile final : public ArchiveFile {
public:
    explicit CountingFile(std::vector<std::uint8_t> content) : bytes(std::move(content)) {}

    std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
        offset = std::min<std::uint64_t>(offset, bytes.size());
        size = std::min<std::uint64_t>(size, bytes.size() - offset);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), size, static_cast<std::uint8_t *>(dest));
        bytesRead += size;
        return size;
    }
    std::optional<std::uint64_t> GetSize() const override { return bytes.size(); }
    bool Write(std::uint64_t, void const *, std::uint64_t) override { return false; }
    bool Truncate(std::uint64_t) override { return false; }
    bool Sync() override { return false; }
    bool Lock() override { return false; }
    void Unlock() override {}
    bool IsAt(std::string const &) const override { return false; }

    mutable std::uint64_t bytesRead = 0;

private:
    std::vector<std::uint8_t> bytes;
};

template<class Part>
void Append(std::vector<std::uint8_t> & file, Part const & part) {
    file.insert(file.end(), part.begin(), part.end());
}

std::vector<std::uint8_t> StartFile() {
    std::vector<std::uint8_t> file;
    Append(file, Header{containerVersion, "Test", fileID}.Encode());
    return file;
}

// A document of one item, the header of which a test has a word in.
Counted<ArchiveSnapshot const> OpenWithItem(std::function<void(ItemHeader & header, Entry & entry)> const & change) {
    std::vector<std::uint8_t> const payload{1, 2, 3};
    ItemHeader header;
    header.id = {77, 1};
    header.type = ArchiveTags::stream;
    header.name = "Main.dat";
    header.rawSize = header.storedSize = payload.size();
    header.rawHash = GetHash128(payload.data(), payload.size());
    header.storedHash = Hash64(payload.data(), payload.size());
    Entry entry{header.id,         headerBytes,    header.GetEncodedSize(),
                header.storedSize, header.rawSize, header.rawHash.low,
                header.type,       header.name};
    change(header, entry);
    auto file = StartFile();
    header.Encode(file);
    Append(file, payload);
    file.resize(AlignUp(file.size(), footerBytes));
    auto const index = EncodeIndex({entry});
    Footer footer;
    footer.fileID = fileID.low;
    footer.indexOffset = file.size();
    footer.indexSize = index.size();
    footer.indexHash = Hash64(index.data(), index.size());
    Append(file, index);
    file.resize(AlignUp(file.size(), footerBytes) + footerDistance);
    footer.offset = file.size();
    Append(file, footer.Encode());
    return ArchiveSnapshot::Open("hostile.doc", MakeCounted<CountingFile>(std::move(file)), "Test");
}
}

TEST(HostileArchive, ItemOfAnUnknownCodecTakesNoMemory) {
    auto const snapshot = OpenWithItem([](ItemHeader & header, Entry & entry) {
        header.codec = static_cast<Codec>(9);
        header.rawSize = entry.rawSize = std::uint64_t(1) << 35;
    });
    EXPECT_THROW(snapshot->GetReader().ReadRaw(snapshot->GetEntries()[0]), ArchiveError);
}

// Whether an item has references is told from its name's length, so a wrong name would hide them.
TEST(HostileArchive, ItemUnderTheNameOfAnotherIsDamaged) {
    auto const whole = OpenWithItem([](ItemHeader &, Entry &) {});
    EXPECT_EQ(whole->GetReader().ReadRaw(whole->GetEntries()[0]).size(), 3u);
    auto const renamed = OpenWithItem([](ItemHeader &, Entry & entry) { entry.name = "Other.dat"; });
    EXPECT_THROW(renamed->GetReader().ReadRaw(renamed->GetEntries()[0]), ArchiveError);
}

// Each footer is good and names the whole file before it as its list of contents, which is none.
TEST(HostileArchive, ManyFootersAreNotReadManyTimes) {
    for (bool const isChained : {false, true}) {
        auto file = StartFile();
        file.resize(file.size() + footerBytes + footerDistance);
        std::uint64_t before = 0;
        for (std::uint32_t i = 1; i <= (isChained ? 2000u : 20000u); ++i) {
            Footer footer;
            footer.commitNumber = i;
            footer.fileID = fileID.low;
            footer.offset = file.size();
            footer.previous = isChained ? before : 0;
            footer.indexOffset = isChained ? file.size() - footerDistance - footerBytes : headerBytes;
            footer.indexSize = footer.offset - footerDistance - footer.indexOffset;
            ASSERT_TRUE(Footer::Decode(footer.Encode(), fileID.low, footer.offset)) << "it is a good one";
            before = footer.offset;
            Append(file, footer.Encode());
            if (isChained)
                file.resize(file.size() + footerDistance + 2 * footerBytes);
        }
        auto const size = file.size();
        auto const disk = MakeCounted<CountingFile>(std::move(file));
        EXPECT_THROW(ArchiveSnapshot::Open("hostile.doc", disk, "Test"), ArchiveError);
        EXPECT_LT(disk->bytesRead, 16 * size) << isChained;
    }
}
