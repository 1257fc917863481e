#include "kernel/MetadataInterface.h"

#include "kernel/FileStore.h"
#include "kernel/FileStoreOut.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

using namespace Kernel;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {
class NoItems final : public FileStoreOut {
public:
    ItemID StoreItem(DelayLoadHolder &, FileStoreOutPathGenerator const &, FileStoreCompressionHint const *) override {
        return {};
    }
    ItemID StoreSharedObject(SharedSerialisable const &) override { return {}; }
};

Counted<InSerialiserFile const> WriteAndParse(std::function<void(OutSerialiser &)> const & save) {
    auto const out = MakeCounted<MemoryOutStream>();
    auto const items = MakeCounted<NoItems>();
    OutSerialiserFile serialiser(*out, *items, "Root", 1);
    save(serialiser);
    serialiser.Close();
    auto const bytes = out->TakeData();
    auto const in = MakeCounted<MemoryInStream>(bytes.data(), bytes.size());
    auto const store = MakeCounted<EmptyFileStore>();
    return InSerialiserFile::ParseWithChecks(*in, *store, false);
}

bool LoadBytes(MetadataInterface & metadata, std::string const & bytes) {
    auto const in =
        WriteAndParse([&](OutSerialiser & out) { out.SaveTypeI("Meta", PropType::Texts, bytes.data(), bytes.size()); });
    return metadata.Load(*in, in->GetStore());
}
}

TEST(MetadataInterface, ComesBackFromAFile) {
    MetadataInterface metadata, loaded;
    metadata.SetMetadataText("Name", "gr\xc3\xbc\xc3\x9f Gott");
    metadata.SetMetadataText("", "under no key");
    metadata.SetMetadataText("Long", StringUtf8(std::string(70000, 'x')));
    loaded.SetMetadataText("Old", "goes");
    auto const in = WriteAndParse([&](OutSerialiser & out) { metadata.Save(out); });
    EXPECT_TRUE(loaded.Load(*in, in->GetStore()));
    EXPECT_EQ(loaded.GetMetadata(), metadata.GetMetadata());
    EXPECT_EQ(loaded.GetMetadataText("Name"), "gr\xc3\xbc\xc3\x9f Gott");
    EXPECT_EQ(loaded.GetMetadataText("Old"), "");
}

TEST(MetadataInterface, WithoutTextsWritesNothingAndLoadsNothing) {
    MetadataInterface metadata;
    metadata.SetMetadataText("Name", "a brush");
    metadata.SetMetadataText("Name", "");
    EXPECT_THAT(metadata.GetMetadata(), IsEmpty());
    auto const in = WriteAndParse([&](OutSerialiser & out) { metadata.Save(out); });
    EXPECT_FALSE(in->HasProperty("Meta"));
    MetadataInterface loaded;
    loaded.SetMetadataText("Name", "stays");
    EXPECT_FALSE(loaded.Load(*in, in->GetStore()));
    EXPECT_EQ(loaded.GetMetadataText("Name"), "stays");
}

TEST(MetadataInterface, CopiesAreOnTheirOwn) {
    MetadataInterface metadata;
    metadata.SetMetadataText("Name", "first");
    MetadataInterface copy(metadata), assigned;
    assigned = metadata;
    copy.SetMetadataText("Name", "second");
    EXPECT_EQ(metadata.GetMetadataText("Name"), "first");
    EXPECT_EQ(assigned.GetMetadataText("Name"), "first");
}

TEST(MetadataInterface, LiesInTheFileAsDescribed) {
    auto const in = WriteAndParse([](OutSerialiser & out) { out.SaveType("Meta", TextMap{{"b", "two"}, {"a", ""}}); });
    std::vector<std::uint8_t> const expected{1, 0, 0, 0, 'a', 0, 0, 0, 0, 1, 0, 0, 0, 'b', 3, 0, 0, 0, 't', 'w', 'o'};
    std::vector<std::uint8_t> whole(expected.size());
    EXPECT_TRUE(in->LoadTypeI("Meta", PropType::Texts, whole.data(), whole.size()));
    EXPECT_THAT(whole, ElementsAreArray(expected));
}

TEST(MetadataInterface, TakesBytesThatAreNoWholeEntriesForAbsent) {
    using namespace std::string_literals;
    MetadataInterface metadata;
    metadata.SetMetadataText("Name", "stays");
    for (auto const & bytes :
         {"\1\0\0"s, "\1\0\0\0a"s, "\1\0\0\0a\2\0\0\0b"s, "\xff\xff\xff\xff"s + "a"s, "\0\0\0\0\0\0\0\0x"s})
        EXPECT_FALSE(LoadBytes(metadata, bytes)) << bytes.size();
    EXPECT_EQ(metadata.GetMetadataText("Name"), "stays");
    EXPECT_TRUE(LoadBytes(metadata, "\1\0\0\0a\1\0\0\0x\1\0\0\0a\1\0\0\0y"s));
    EXPECT_EQ(metadata.GetMetadataText("a"), "x") << "the first of one key counts";
}
