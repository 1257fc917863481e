#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStore.h"
#include "kernel/FileStoreCompressionHint.h"
#include "kernel/FileStoreOut.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/PropertyStream.h"
#include "kernel/SharedSerialisable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace Kernel;
using testing::ElementsAre;

namespace {
// Gives every holder and shared object a number and keeps nothing.
class CountingStore final : public FileStoreOut {
public:
    ItemID StoreItem(DelayLoadHolder & holder, FileStoreOutPathGenerator const & path,
                     FileStoreCompressionHint const *) override {
        paths.push_back(path.GetPath(holders.size()));
        holders.push_back(&holder);
        return {7, holders.size()};
    }
    ItemID StoreSharedObject(SharedSerialisable const & object) override {
        shared.push_back(&object);
        return {8, shared.size()};
    }

    std::vector<DelayLoadHolder *> holders;
    std::vector<SharedSerialisable const *> shared;
    std::vector<std::string> paths;
};

class NoPaths final : public FileStoreOutPathGenerator {
public:
    std::string GetPath(std::uint64_t) const override { return {}; }
};

// A tree of numbers.
class Node final : public Serialisable {
public:
    int value = 0;
    std::vector<Counted<Serialisable>> children;

    static ClassProperties const & GetClassProperties() {
        static ClassProperties const properties("Node", 3, [] { return Counted<Serialisable>(new Node); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser & serialiser) const override {
        serialiser.SaveType("Valu", value);
        if (children.empty())
            return;
        if (serialiser.StartObjectArrayTestI("Chil")) {
            serialiser.StartObjectArrayBeginI(children.size());
            for (auto const & child : children)
                serialiser.SaveObjectI(*child);
        }
    }
    bool Load(InSerialiser const & serialiser, FileStore & store, unsigned short version) override {
        loadedVersion = version;
        serialiser.LoadType("Valu", value);
        serialiser.LoadObjectsI("Chil", store, children);
        return value >= 0;
    }
    unsigned short loadedVersion = 0;
};

class Stranger final : public Serialisable {
public:
    static ClassProperties const & GetClassProperties() {
        static ClassProperties const properties("Strg", 1);
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser & serialiser) const override { serialiser.SaveType("Valu", 5); }
    bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
};

enum class Colour { Red = 10, Green = 20, Blue = 30 };
class OldColours final : public EnumSerialiser {
public:
    OldColours() {
        EnumEntry const entries[] = {{20, "Green"}, {10, "Red"}};
        RegisterEnumSet(entries, 2);
    }
};
class NewColours final : public EnumSerialiser {
public:
    NewColours() {
        EnumEntry const old[] = {{20, "Green"}, {10, "Red"}};
        RegisterEnumSet(old, 2);
        EnumEntry const entries[] = {{10, "Red"}, {20, "Green"}, {30, "Blue"}};
        RegisterEnumSet(entries, 3);
    }
};

std::vector<std::uint8_t> Write(std::function<void(OutSerialiser &)> const & save, unsigned short version = 1) {
    auto const stream = MakeCounted<MemoryOutStream>();
    auto const store = MakeCounted<CountingStore>();
    OutSerialiserFile serialiser(*stream, *store, "Root", version);
    save(serialiser);
    serialiser.Close();
    return stream->TakeData();
}

Counted<InSerialiserFile const> Parse(std::vector<std::uint8_t> const & bytes, bool acceptFuture = false,
                                      unsigned short newest = 0xffff) {
    auto const stream = MakeCounted<MemoryInStream>(bytes.data(), bytes.size());
    auto const store = MakeCounted<EmptyFileStore>();
    return InSerialiserFile::ParseWithChecks(*stream, *store, acceptFuture, newest);
}

// Loads everything that the tests write, whatever the bytes are.
void LoadAll(InSerialiserFile const & in) {
    int number = 0;
    in.LoadType("Valu", number);
    StringUtf8 text;
    in.LoadType("Text", text);
    std::vector<std::uint8_t> bytes;
    in.LoadTypeArrayI("Arra", PropType::UInt16, 2, bytes);
    Counted<Serialisable> object;
    in.LoadObjectI("Tree", in.GetStore(), object);
    RawDataT<Countable, AllocatorNew> raw;
    in.LoadRawData("Bloc", raw);
    in.LoadClassI("Clas", "Clss",
                  [&](InSerialiser const & nested, unsigned short) { nested.LoadType("Valu", number); });
}

Counted<Node> MakeTree(int depth, int width) {
    auto node = MakeCounted<Node>();
    node->value = depth;
    if (depth > 0)
        for (int i = 0; i < width; ++i)
            node->children.push_back(MakeTree(depth - 1, width));
    return node;
}

bool AreEqual(Node const & a, Node const & b) {
    if (a.value != b.value || a.children.size() != b.children.size())
        return false;
    for (std::size_t i = 0; i < a.children.size(); ++i)
        if (!AreEqual(dynamic_cast<Node const &>(*a.children[i]), dynamic_cast<Node const &>(*b.children[i])))
            return false;
    return true;
}

template<class T>
void ExpectRoundTrip(T const & value) {
    auto const bytes = Write([&](OutSerialiser & out) { out.SaveType("Valu", value); });
    T loaded{};
    ASSERT_TRUE(Parse(bytes)->LoadType("Valu", loaded));
    EXPECT_TRUE(loaded == value);
}
}

TEST(Serialiser, KeepsValuesOfEveryType) {
    ExpectRoundTrip(std::uint8_t(200));
    ExpectRoundTrip(std::uint16_t(60000));
    ExpectRoundTrip(std::uint32_t(4000000000u));
    ExpectRoundTrip(std::uint64_t(1) << 63);
    ExpectRoundTrip(std::int8_t(-100));
    ExpectRoundTrip(std::int16_t(-30000));
    ExpectRoundTrip(-2000000000);
    ExpectRoundTrip(std::int64_t(-1) << 62);
    ExpectRoundTrip(0.1f);
    ExpectRoundTrip(0.1);
    ExpectRoundTrip(true);
    ExpectRoundTrip(StringUtf8("gr\xc3\xbc\xc3\x9f"));
    ExpectRoundTrip(StringUtf8());
    ExpectRoundTrip(StringUtf16(u"\u00e4\U0001f600"));
    ExpectRoundTrip(PointT<int>{-1, 2});
    ExpectRoundTrip(PointT<double>{-0.5, 1e300});
    ExpectRoundTrip(SizeT<int>{640, 480});
    ExpectRoundTrip(RectT<int>{-4, 3, 2, 1});
}

TEST(Serialiser, LaysRecordsOutAsDescribed) {
    auto const bytes = Write([](OutSerialiser & out) { out.SaveType("BmpW", 0x01020304); }, 9);
    EXPECT_THAT(bytes, ElementsAre('1', 'S', 'R', 'P', 1, 0, 9, 0, 't', 'o', 'o', 'R', 0, 0, 0, 0, //
                                   'W', 'p', 'm', 'B', 7, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 4, 3, 2, 1));
    auto const in = Parse(bytes);
    EXPECT_EQ(in->GetRootTag(), IDTag("Root"));
    EXPECT_EQ(in->GetRootVersion(), 9);
}

TEST(Serialiser, TakesAnotherTypeOrLengthForAbsent) {
    auto const in = Parse(Write([](OutSerialiser & out) {
        out.SaveType("Valu", 5);
        out.SaveTypeI("Shrt", PropType::Int32, "ab", 2);
    }));
    unsigned other = 77;
    EXPECT_FALSE(in->LoadType("Valu", other));
    EXPECT_EQ(other, 77u);
    int number = 77;
    EXPECT_FALSE(in->LoadType("Shrt", number));
    EXPECT_FALSE(in->LoadType("None", number));
    EXPECT_EQ(number, 77);
    EXPECT_TRUE(in->HasProperty("Shrt"));
    EXPECT_FALSE(in->HasProperty("None"));
}

TEST(Serialiser, FirstOfEqualTagsCounts) {
    auto const in = Parse(Write([](OutSerialiser & out) {
        out.SaveType("Valu", 1);
        out.SaveType("Valu", 2);
    }));
    int number = 0;
    EXPECT_TRUE(in->LoadType("Valu", number));
    EXPECT_EQ(number, 1);
}

TEST(Serialiser, KeepsArraysAndRawData) {
    std::uint8_t const values[] = {1, 0, 2, 0, 3, 0};
    auto const bytes = Write([&](OutSerialiser & out) {
        out.SaveTypeArrayI("Arra", PropType::UInt16, values, 2, 3);
        out.SaveRawData("Bloc", values, 5);
        out.SaveRawData("Empt", nullptr, 0);
    });
    auto const in = Parse(bytes);
    std::vector<std::uint8_t> loaded;
    EXPECT_TRUE(in->LoadTypeArrayI("Arra", PropType::UInt16, 2, loaded));
    EXPECT_THAT(loaded, ElementsAre(1, 0, 2, 0, 3, 0));
    EXPECT_FALSE(in->LoadTypeArrayI("Arra", PropType::UInt16, 4, loaded));
    RawDataT<Countable, AllocatorNew> raw;
    EXPECT_TRUE(in->LoadRawData("Bloc", raw));
    ASSERT_EQ(raw.GetSize(), 5u);
    EXPECT_EQ(raw.GetData()[4], 3);
    EXPECT_TRUE(in->LoadRawData("Empt", raw));
    EXPECT_EQ(raw.GetSize(), 0u);
}

TEST(Serialiser, MapsEnumsOfOlderVersions) {
    OldColours const old;
    NewColours const current;
    auto const bytes = Write([&](OutSerialiser & out) {
        out.SaveEnumI("OldC", old, static_cast<int>(Colour::Red));
        out.SaveEnumI("NewC", current, static_cast<int>(Colour::Blue));
        out.SaveEnumI("Unkn", current, 99);
    });
    auto const in = Parse(bytes);
    int value = 0;
    EXPECT_TRUE(in->LoadEnumI("OldC", current, value));
    EXPECT_EQ(value, 10);
    EXPECT_TRUE(in->LoadEnumI("NewC", current, value));
    EXPECT_EQ(value, 30);
    value = 5;
    EXPECT_FALSE(in->LoadEnumI("NewC", old, value)); // a table that this version does not know
    EXPECT_FALSE(in->HasProperty("Unkn"));
    EXPECT_EQ(value, 5);
}

TEST(Serialiser, KeepsTreesOfObjects) {
    Node::GetClassProperties().Init();
    auto const tree = MakeTree(4, 3);
    auto const in = Parse(Write([&](OutSerialiser & out) { out.SaveObject("Tree", *tree); }));
    Counted<Serialisable> loaded;
    ASSERT_TRUE(in->LoadObjectI("Tree", in->GetStore(), loaded));
    auto const & node = dynamic_cast<Node const &>(*loaded);
    EXPECT_TRUE(AreEqual(node, *tree));
    EXPECT_EQ(node.loadedVersion, 3);
}

TEST(Serialiser, SkipsObjectsOfUnknownClassesInTheirPlace) {
    Node::GetClassProperties().Init();
    auto const parent = MakeTree(1, 2);
    parent->children.insert(parent->children.begin() + 1, MakeCounted<Stranger>());
    auto const in = Parse(Write([&](OutSerialiser & out) {
        out.SaveObject("Strg", Stranger());
        out.SaveObject("Tree", *parent);
    }));
    Counted<Serialisable> loaded;
    EXPECT_FALSE(in->LoadObjectI("Strg", in->GetStore(), loaded));
    ASSERT_TRUE(in->LoadObjectI("Tree", in->GetStore(), loaded));
    auto const & children = dynamic_cast<Node const &>(*loaded).children;
    ASSERT_EQ(children.size(), 3u);
    EXPECT_TRUE(children[0]);
    EXPECT_FALSE(children[1]);
    EXPECT_TRUE(children[2]);
}

TEST(Serialiser, MakesOnlyObjectsOfTheClassThatIsExpected) {
    Node::GetClassProperties().Init();
    auto const tree = MakeTree(1, 2);
    auto const in = Parse(Write([&](OutSerialiser & out) { tree->Save(out); }));
    std::vector<Counted<Serialisable>> loaded;
    ASSERT_TRUE(in->LoadObjectsI("Chil", in->GetStore(), loaded, &Node::GetClassProperties()));
    EXPECT_THAT(loaded, testing::Each(testing::Truly([](auto const & node) { return static_cast<bool>(node); })));
    ASSERT_TRUE(in->LoadObjectsI("Chil", in->GetStore(), loaded, &Stranger::GetClassProperties()));
    EXPECT_THAT(loaded, ElementsAre(nullptr, nullptr));
}

TEST(Serialiser, ObjectThatGivesUpIsAbsent) {
    Node::GetClassProperties().Init();
    Node broken;
    broken.value = -1;
    auto const in = Parse(Write([&](OutSerialiser & out) { out.SaveObject("Tree", broken); }));
    Counted<Serialisable> loaded;
    EXPECT_FALSE(in->LoadObjectI("Tree", in->GetStore(), loaded));
    EXPECT_FALSE(loaded);
}

TEST(Serialiser, KeepsValuesOfClassType) {
    auto const in = Parse(Write([](OutSerialiser & out) {
        ASSERT_TRUE(out.StartClassTestI("Clas"));
        out.StartClassBeginI("Clss", 2);
        out.SaveType("Valu", 42);
        out.EndPropClassI();
        out.SaveType("Valu", 1);
    }));
    int inner = 0, outer = 0;
    EXPECT_TRUE(in->LoadClassI("Clas", "Clss", [&](InSerialiser const & nested, unsigned short version) {
        EXPECT_EQ(version, 2);
        EXPECT_TRUE(nested.LoadType("Valu", inner));
    }));
    EXPECT_TRUE(in->LoadType("Valu", outer));
    EXPECT_EQ(inner, 42);
    EXPECT_EQ(outer, 1);
    EXPECT_FALSE(in->LoadClassI("Clas", "Othr", [](InSerialiser const &, unsigned short) { ADD_FAILURE(); }));
}

TEST(Serialiser, EmptyArrayIsThere) {
    auto const in = Parse(Write([](OutSerialiser & out) {
        ASSERT_TRUE(out.StartObjectArrayTestI("Arra"));
        out.StartObjectArrayBeginI(0);
        out.SaveType("Valu", 3);
    }));
    std::vector<Counted<Serialisable>> objects(2);
    EXPECT_TRUE(in->LoadObjectsI("Arra", in->GetStore(), objects));
    EXPECT_TRUE(objects.empty());
    int value = 0;
    EXPECT_TRUE(in->LoadType("Valu", value));
}

TEST(Serialiser, EnumeratingSaveWritesNothingAndNamesEveryItem) {
    class Owner final : public Serialisable {
    public:
        Counted<DelayLoadHolder> holder;
        ClassPropertiesBase const & GetObjectClassProperties() const override { return Node::GetClassProperties(); }
        void Save(OutSerialiser & out) const override {
            out.SaveType("Valu", 1);
            out.SaveDelayLoadObject("Item", holder.Get(), FileStoreOutIndexedPathGenerator("", "d/"), nullptr);
            EXPECT_FALSE(out.IsFullSave());
            EXPECT_FALSE(out.StartObjectArrayTestI("Chil"));
            EXPECT_FALSE(out.StartClassTestI("Clas"));
        }
        bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
    };
    static FileStoreItemType const type("Test", ItemNesting::NotNestable, ItemRecovery::Recoverable, nullptr);
    auto const store = MakeCounted<CountingStore>();
    Owner owner;
    owner.holder = DelayLoadHolder::Create(type, nullptr);
    OutSerialiserPaths paths(*store);
    paths.SaveObjectEnumeratePathsOnlyI(owner);
    paths.Close();
    EXPECT_THAT(store->holders, ElementsAre(owner.holder.Get()));
    EXPECT_THAT(store->paths, ElementsAre("d/0"));
}

TEST(Serialiser, FullSaveCanNameItemsOfAnObjectThatItDoesNotWrite) {
    class Owner final : public Serialisable {
    public:
        Counted<DelayLoadHolder> holder;
        ClassPropertiesBase const & GetObjectClassProperties() const override { return Node::GetClassProperties(); }
        void Save(OutSerialiser & out) const override {
            EXPECT_FALSE(out.IsFullSave());
            EXPECT_TRUE(out.GetStrategies().Find<CompressionPredictorStrategy>());
            out.SaveType("Valu", 1);
            out.SaveDelayLoadObject("Item", holder.Get(), NoPaths(), nullptr);
        }
        bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
    };
    static FileStoreItemType const type("Test", ItemNesting::NotNestable, ItemRecovery::Recoverable, nullptr);
    auto const store = MakeCounted<CountingStore>();
    auto const stream = MakeCounted<MemoryOutStream>();
    OutSerialiserFile serialiser(*stream, *store, "Root", 1);
    auto const size = stream->GetSize();
    Owner owner;
    owner.holder = DelayLoadHolder::Create(type, nullptr);
    serialiser.PushStrategy(CompressionPredictorStrategy::CreateForByteSize64kStriped(2));
    serialiser.SaveObjectEnumeratePathsOnlyI(owner);
    EXPECT_EQ(stream->GetSize(), size);
    EXPECT_THAT(store->holders, ElementsAre(owner.holder.Get()));
}

TEST(Serialiser, FindsEveryReferenceOfAStream) {
    Node::GetClassProperties().Init();
    static FileStoreItemType const type("Test", ItemNesting::NotNestable, ItemRecovery::Recoverable, nullptr);
    auto const holder = DelayLoadHolder::Create(type, nullptr);
    class Leaf final : public Serialisable {
    public:
        explicit Leaf(DelayLoadHolder & leafHolder) : holder(leafHolder) {}
        ClassPropertiesBase const & GetObjectClassProperties() const override { return Node::GetClassProperties(); }
        void Save(OutSerialiser & out) const override { out.SaveDelayLoadObject("Item", &holder, NoPaths(), nullptr); }
        bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
        DelayLoadHolder & holder;
    };
    auto const bytes = Write([&](OutSerialiser & out) {
        out.SaveDelayLoadObject("Item", holder.Get(), NoPaths(), nullptr);
        out.SaveObject("Tree", Leaf(*holder));
        ASSERT_TRUE(out.StartObjectArrayTestI("Arra"));
        out.StartObjectArrayBeginI(2);
        out.SaveObjectI(Leaf(*holder));
        out.SaveObjectI(Leaf(*holder));
        out.SaveTypeI("Shrt", PropType::SharedObject, "too short", 9); // names nothing
        ASSERT_TRUE(out.StartClassTestI("Clas"));
        out.StartClassBeginI("Clss", 2);
        out.SaveDelayLoadObject("Item", holder.Get(), NoPaths(), nullptr);
        out.EndPropClassI();
    });
    EXPECT_THAT(InSerialiserFile::FindReferences(bytes),
                ElementsAre(ItemID{7, 1}, ItemID{7, 2}, ItemID{7, 3}, ItemID{7, 4}, ItemID{7, 5}));
    EXPECT_THROW(InSerialiserFile::FindReferences(std::span(bytes).first(bytes.size() - 1)), PropertyStreamError);
    EXPECT_THROW(InSerialiserFile::FindReferences({}), PropertyStreamError);
}

TEST(Serialiser, NullHoldersAndSharedObjectsWriteNoProperty) {
    auto const in = Parse(Write([](OutSerialiser & out) {
        out.SaveDelayLoadObject("Item", nullptr, NoPaths(), nullptr);
        out.SaveSharedObject("Shar", nullptr);
    }));
    EXPECT_FALSE(in->HasProperty("Item"));
    EXPECT_FALSE(in->HasProperty("Shar"));
}

TEST(Serialiser, ReferencesToItemsThatAreNotThereAreAbsent) {
    static FileStoreItemType const type("Test", ItemNesting::NotNestable, ItemRecovery::Recoverable, nullptr);
    auto const holder = DelayLoadHolder::Create(type, nullptr);
    auto const in =
        Parse(Write([&](OutSerialiser & out) { out.SaveDelayLoadObject("Item", holder.Get(), NoPaths(), nullptr); }));
    EXPECT_TRUE(in->HasProperty("Item"));
    Counted<DelayLoadHolder> loaded;
    EXPECT_FALSE(in->LoadDelayLoadObject("Item", in->GetStore(), type, loaded));
    EXPECT_FALSE(loaded);
}

TEST(Serialiser, IsSilentWhileAnExceptionIsHandled) {
    auto const stream = MakeCounted<MemoryOutStream>();
    auto const store = MakeCounted<CountingStore>();
    OutSerialiserFile serialiser(*stream, *store, "Root", 1);
    serialiser.SaveType("Valu", 1);
    auto const size = stream->GetSize();
    serialiser.MarkAsHandlingException();
    serialiser.SaveType("Valu", 2);
    serialiser.SaveObject("Tree", *MakeTree(1, 1));
    serialiser.Close();
    EXPECT_EQ(stream->GetSize(), size);
}

// What comes after a value that was begun and not ended would be missing from the file.
TEST(Serialiser, TellsOfWhatWasBegunAndNotEnded) {
    EXPECT_THROW(Write([](OutSerialiser & out) {
                     ASSERT_TRUE(out.StartClassTestI("Clas"));
                     out.StartClassBeginI("Clss", 1);
                     out.SaveType("Valu", 5);
                 }),
                 std::logic_error);
    EXPECT_THROW(Write([](OutSerialiser & out) {
                     ASSERT_TRUE(out.StartObjectArrayTestI("Arra"));
                     out.StartObjectArrayBeginI(2);
                     out.SaveObjectI(*MakeTree(0, 0));
                 }),
                 std::logic_error);
    EXPECT_THROW(Write([](OutSerialiser & out) { out.SaveObjectI(*MakeTree(0, 0)); }), std::logic_error);
    EXPECT_THROW(Write([](OutSerialiser & out) {
                     ASSERT_TRUE(out.StartObjectArrayTestI("Arra"));
                     out.StartObjectArrayBeginI(1);
                     out.SaveObjectI(*MakeTree(0, 0));
                     out.SaveObjectI(*MakeTree(0, 0));
                 }),
                 std::logic_error);
    EXPECT_THROW(Write([](OutSerialiser & out) { out.EndPropClassI(); }), std::logic_error);
}

TEST(Serialiser, BeginsWithTheStrategiesOfTheStore) {
    auto const store = MakeCounted<CountingStore>();
    store->AddStrategy(CompressionPredictorStrategy::CreateForByteSize64kStriped(2));
    auto const stream = MakeCounted<MemoryOutStream>();
    OutSerialiserFile serialiser(*stream, *store, "Root", 1);
    EXPECT_EQ(serialiser.GetStrategies().Find<CompressionPredictorStrategy>()->GetPredictor(),
              CompressionPredictor::Bytes2);
    serialiser.PushStrategy(CompressionPredictorStrategy::CreateForByteSize64kStriped(4));
    EXPECT_EQ(serialiser.GetStrategies().Find<CompressionPredictorStrategy>()->GetPredictor(),
              CompressionPredictor::Bytes4);
    serialiser.PopStrategy();
    EXPECT_EQ(serialiser.GetStrategies().Find<CompressionPredictorStrategy>()->GetPredictor(),
              CompressionPredictor::Bytes2);
    EXPECT_EQ(CompressionPredictorStrategy::CreateForByteSize64kStriped(3)->GetPredictor(), CompressionPredictor::None);
}

TEST(Serialiser, RefusesFutureVersionsUnlessTheyAreAccepted) {
    auto bytes = Write([](OutSerialiser & out) { out.SaveType("Valu", 4); }, 5);
    EXPECT_THROW(Parse(bytes, false, 4), FutureVersionException);
    EXPECT_TRUE(Parse(bytes, false, 5));
    bytes[4] = 2;
    EXPECT_THROW(Parse(bytes), FutureVersionException);
    int value = 0;
    EXPECT_TRUE(Parse(bytes, true)->LoadType("Valu", value));
    EXPECT_EQ(value, 4);
}

TEST(Serialiser, RefusesObjectsThatAreNestedTooDeeply) {
    Node::GetClassProperties().Init();
    EXPECT_TRUE(Parse(Write([](OutSerialiser & out) { out.SaveObject("Tree", *MakeTree(20, 1)); })));
    EXPECT_THROW(Write([](OutSerialiser & out) { out.SaveObject("Tree", *MakeTree(80, 1)); }), std::length_error);
    // A chain of class values, one in another, a hundred deep.
    std::vector<std::uint8_t> content;
    for (int i = 0; i < 100; ++i) {
        std::vector<std::uint8_t> outer(24);
        PropertyStream::WriteAt(outer.data(), IDTag("Clas").GetValue());
        PropertyStream::WriteAt(outer.data() + 4, static_cast<std::uint32_t>(PropType::Class));
        PropertyStream::WriteAt(outer.data() + 8, std::uint64_t(content.size() + 8));
        outer.insert(outer.end(), content.begin(), content.end());
        content = outer;
    }
    auto bytes = Write([](OutSerialiser &) {});
    bytes.insert(bytes.end(), content.begin(), content.end());
    EXPECT_THROW(Parse(bytes), PropertyStreamError);
}

TEST(Serialiser, RefusesEveryTruncation) {
    Node::GetClassProperties().Init();
    auto const bytes = Write([](OutSerialiser & out) { out.SaveObject("Tree", *MakeTree(2, 2)); });
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        if (length == PropertyStream::streamHeaderBytes)
            continue; // a root without properties is whole
        std::vector<std::uint8_t> const cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_THROW(Parse(cut), PropertyStreamError) << "cut to " << length;
    }
}

TEST(Serialiser, ReadsNothingBeyondDamagedBytes) {
    Node::GetClassProperties().Init();
    auto const whole = Write([](OutSerialiser & out) {
        out.SaveType("Valu", 7);
        out.SaveType("Text", StringUtf8("text"));
        std::uint16_t const values[] = {1, 2, 3};
        out.SaveTypeArrayI("Arra", PropType::UInt16, values, 2, 3);
        out.SaveObject("Tree", *MakeTree(3, 2));
        out.SaveRawData("Bloc", values, 5);
    });
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        // Exactly as much memory as there are bytes, so that a sanitizer sees a step beyond.
        auto damaged = std::make_unique<std::vector<std::uint8_t>>(whole);
        damaged->shrink_to_fit();
        for (unsigned n = 1 + random() % 3; n > 0; --n)
            (*damaged)[random() % damaged->size()] = static_cast<std::uint8_t>(random());
        try {
            LoadAll(*Parse(*damaged, /*acceptFuture=*/true));
        } catch (PropertyStreamError const &) {
        }
    }
}

TEST(Serialiser, FindsItemIdsInTheirOrder) {
    EXPECT_FALSE(ItemID());
    EXPECT_TRUE((ItemID{1, 0}));
    EXPECT_LT((ItemID{1, 9}), (ItemID{2, 0}));
    EXPECT_NE(std::hash<ItemID>()({1, 2}), std::hash<ItemID>()({2, 1}));
}
