/// How to make a document file. Nearly every byte of such a file lies under a checksum or in a compressed list, where
/// random changes come to nothing; here they change what the file says, and its checksums are made to fit.
///
/// A recipe is a row of steps, each a byte that names it and its fields:
///
///     Raw      size 2, bytes                  as they are
///     Item     see `AppendItem`               an item with a right header
///     Commit   see `AppendCommit`             the list of the items so far, twice, and a footer
#pragma once

#include "Input.h"

#include "kernel/ArchiveLayout.h"
#include "kernel/ArchiveTags.h"
#include "kernel/ItemCodec.h"
#include "kernel/kernels/PredictSamples.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace Fuzz {
class ArchiveRecipe {
public:
    enum Step : std::uint8_t { Raw = 0, Item = 1, Commit = 2, stepCount };
    enum ItemFlags : std::uint8_t {
        Compressed = 1,  ///< the payload is compressed, else stored as it is
        Repeated = 2,    ///< it is repeated to a size of 4 bytes before that
        Predicted = 4,   ///< and predicted; then it is made 65536 bytes
        WrongRaw = 8,    ///< the raw size is one of 8 bytes, whatever the payload has
        WrongStored = 16 ///< the checksum of the stored bytes doesn't fit
    };
    enum CommitFlags : std::uint8_t {
        Far = 1,          ///< the two lists and the footer are as far apart as writers put them
        FirstDamaged = 2, ///< the first copy of the list
        SecondDamaged = 4,
        FooterDamaged = 8,
        Rootless = 16 ///< it knows of no footer before
    };
    /// The types of items, by number.
    static constexpr std::array<Kernel::IDTag, 4> types{Kernel::ArchiveTags::stream, Kernel::ArchiveTags::sharedObject,
                                                        Kernel::IDTag("Blob"), Kernel::IDTag("Odd ")};
    static constexpr Kernel::IDTag archiveTag{"Fuzz"};

    /// Whether bytes are those of a document rather than a recipe for one.
    static bool IsFile(std::uint8_t const * data, std::size_t size) { return size != 0 && data[0] == 0x89; }

    static Bytes MakeFile(std::uint8_t const * data, std::size_t size) {
        ArchiveRecipe recipe;
        Input input(data, size);
        for (int steps = 0; !input.IsEmpty() && steps < mostSteps && recipe.file.size() < mostBytes; ++steps)
            recipe.Append(input);
        return std::move(recipe.file);
    }

private:
    using Entry = Kernel::ArchiveLayout::Entry;
    static constexpr int mostSteps = 64;
    static constexpr std::size_t mostBytes = 1 << 20;
    static constexpr Kernel::ArchiveLayout::FileID fileID{11, 22};

    ArchiveRecipe() {
        AppendAll(Kernel::ArchiveLayout::Header{Kernel::ArchiveLayout::containerVersion, archiveTag, fileID}.Encode());
    }

    template<class Range>
    void AppendAll(Range const & range) {
        file.insert(file.end(), range.begin(), range.end());
    }
    void Align(std::size_t alignment) { file.resize(Kernel::ArchiveLayout::AlignUp(file.size(), alignment)); }

    void Append(Input & input) {
        switch (input.Take<std::uint8_t>() % stepCount) {
        case Raw:
            return AppendAll(input.TakeBytes(input.Take<std::uint16_t>()));
        case Item:
            return AppendItem(input);
        case Commit:
            return AppendCommit(input);
        }
    }

    /// The two halves of an id, one byte each.
    static Kernel::ItemID TakeID(Input & input) {
        auto const commit = input.Take<std::uint8_t>();
        return {commit, input.Take<std::uint8_t>()};
    }

    // flags 1, type 1, id 2, codec 1, sample bytes 1, name: length 1 and characters, references: count 1 and ids,
    // payload: size 2 and bytes, then what the flags ask for
    void AppendItem(Input & input) {
        using namespace Kernel;
        auto const flags = input.Take<std::uint8_t>();
        ArchiveLayout::ItemHeader header;
        header.type = types[input.Take<std::uint8_t>() % types.size()];
        header.id = TakeID(input);
        header.codec = static_cast<ArchiveLayout::Codec>(input.Take<std::uint8_t>());
        header.sampleBytes = input.Take<std::uint8_t>();
        header.name = input.TakeText(input.Take<std::uint8_t>());
        for (int count = input.Take<std::uint8_t>(); count > 0; --count)
            header.references.push_back(TakeID(input));
        auto raw = TakePayload(input, flags);
        auto const rawHash = ArchiveLayout::GetHash128(raw.data(), raw.size());
        header.rawSize = flags & WrongRaw ? input.Take<std::uint64_t>() : raw.size();
        auto const stored = Store(std::move(raw), flags, header.sampleBytes);
        header.rawHash = rawHash;
        header.storedSize = stored.size();
        header.storedHash = ArchiveLayout::Hash64(stored.data(), stored.size()) + (flags & WrongStored ? 1 : 0);

        Align(ArchiveLayout::itemAlignment);
        entries.push_back({header.id, file.size(), header.GetEncodedSize(), header.storedSize, header.rawSize,
                           header.rawHash.low, header.type, header.name});
        header.Encode(file);
        AppendAll(stored);
    }

    static Bytes TakePayload(Input & input, std::uint8_t flags) {
        auto raw = input.TakeBytes(input.Take<std::uint16_t>());
        std::size_t size = raw.size();
        if (flags & Repeated)
            size = input.Take<std::uint32_t>() % (32 << 20);
        if (flags & Predicted)
            size = 65536;
        std::size_t const period = raw.size();
        raw.resize(size);
        for (std::size_t i = std::max<std::size_t>(period, 1); period != 0 && i < size; ++i)
            raw[i] = raw[i - period];
        return raw;
    }

    static Bytes Store(Bytes raw, std::uint8_t flags, std::uint8_t sampleBytes) {
        using namespace Kernel;
        if (flags & Predicted) {
            Bytes predicted(raw.size());
            PredictSamples(raw.data(), predicted.data(), sampleBytes);
            raw = std::move(predicted);
        }
        if (!(flags & Compressed))
            return raw;
        FileStoreCompressionHintGeneral const hint(1);
        auto encoded = ItemCodec::Encode(raw, &hint);
        return encoded.codec == ArchiveLayout::Codec::Raw ? std::move(raw) : std::move(encoded.bytes);
    }

    // flags 1, changes: count 1 and for each the entry 1, its field 1, the value 8; changes of the footer: count 1 and
    // for each its field 1, the value 8
    void AppendCommit(Input & input) {
        using namespace Kernel::ArchiveLayout;
        auto const flags = input.Take<std::uint8_t>();
        auto listed = entries;
        for (int count = input.Take<std::uint8_t>(); count > 0 && !listed.empty(); --count)
            ChangeEntry(listed, input);
        auto const index = EncodeIndex(listed);
        Align(footerBytes);
        Footer footer;
        footer.commitNumber = ++commits;
        footer.fileID = fileID.low;
        footer.previous = flags & Rootless ? 0 : lastFooter;
        footer.indexOffset = file.size();
        footer.indexSize = index.size();
        footer.indexHash = Hash64(index.data(), index.size());
        AppendCopy(index, flags & FirstDamaged);
        if (flags & Far)
            file.resize(std::max<std::size_t>(file.size(), footer.indexOffset + indexDistance));
        Align(footerBytes);
        AppendCopy(index, flags & SecondDamaged);
        Align(footerBytes);
        file.resize(file.size() + footerDistance);
        footer.offset = lastFooter = file.size();
        for (int count = input.Take<std::uint8_t>(); count > 0 && !input.IsEmpty(); --count)
            ChangeFooter(footer, input);
        auto bytes = footer.Encode();
        if (flags & FooterDamaged)
            ++bytes[20];
        AppendAll(bytes);
    }

    void AppendCopy(Bytes const & index, bool isDamaged) {
        AppendAll(index);
        if (isDamaged)
            ++file.back();
    }

    static void ChangeEntry(std::vector<Entry> & listed, Input & input) {
        auto const at = input.Take<std::uint8_t>() % listed.size();
        auto & entry = listed[at];
        auto const field = input.Take<std::uint8_t>() % 10;
        auto const value = input.Take<std::uint64_t>();
        switch (field) {
        case 0:
            entry.id.commit = value;
            break;
        case 1:
            entry.id.number = value;
            break;
        case 2:
            entry.offset = value;
            break;
        case 3:
            entry.headerSize = value;
            break;
        case 4:
            entry.storedSize = value;
            break;
        case 5:
            entry.rawSize = value;
            break;
        case 6:
            entry.type = Kernel::IDTag::FromValue(static_cast<std::uint32_t>(value));
            break;
        case 7:
            entry.name.assign(value % 5000, 'n');
            break;
        case 8:
            listed.push_back(Entry(entry));
            break;
        case 9:
            listed.erase(listed.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        }
    }

    static void ChangeFooter(Kernel::ArchiveLayout::Footer & footer, Input & input) {
        auto const field = input.Take<std::uint8_t>() % 6;
        auto const value = input.Take<std::uint64_t>();
        switch (field) {
        case 0:
            footer.commitNumber = static_cast<std::uint32_t>(value);
            break;
        case 1:
            footer.fileID = value;
            break;
        case 2:
            footer.offset = value;
            break;
        case 3:
            footer.indexOffset = value;
            break;
        case 4:
            footer.indexSize = value;
            break;
        case 5:
            footer.previous = value;
            break;
        }
    }

    Bytes file;
    std::vector<Entry> entries;
    std::uint32_t commits = 0;
    std::uint64_t lastFooter = 0;
};
}
