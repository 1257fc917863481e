// Shared objects that are damaged or missing, and objects that go on naming them: from save to save, until there is
// another one or the bytes are whole again.
#include "kernel/SharedObjectReference.h"

#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/MemoryDisk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using namespace Kernel;
using namespace AlbumForTests;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
/// An object that refers to a label and keeps the reference.
class Cover final : public Serialisable {
public:
    StringUtf8 title;
    Consolidated<Label> label;
    SharedObjectReference unreadLabel;

    static ClassProperties const & GetClassProperties() {
        static ClassProperties const properties("Covr", 1, [] { return Counted<Serialisable>(new Cover); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser & serialiser) const override {
        serialiser.SaveType("Titl", title);
        serialiser.SaveSharedObject("Labl", label.Get(), unreadLabel);
    }
    bool Load(InSerialiser const & serialiser, FileStore & store, unsigned short) override {
        serialiser.LoadType("Titl", title);
        serialiser.LoadSharedObject("Labl", store, label, unreadLabel);
        return true;
    }
};

/// A shared object of a class that no program which opens the document knows.
class Stranger final : public SharedSerialisable {
public:
    static SharedClassProperties const & GetClassProperties() {
        static SharedClassProperties const properties("Strg", 1, [] { return Counted<Serialisable>(new Stranger); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser & serialiser) const override { serialiser.SaveType("Numb", 7); }
    bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
    void AccumulateHash(HashAccumulator &) const override {}
    bool CompareMembers(Serialisable const &) const override { return true; }
};

enum class Loss { Damaged, Missing };
using Mode = ArchiveSaveMode;

class UnreadObject : public testing::TestWithParam<Loss> {
protected:
    static constexpr char const * path = "cover.doc";

    // A document of a cover whose label is lost.
    UnreadObject() {
        Label::GetClassProperties().Init();
        Cover cover;
        cover.title = "A title";
        cover.label = MakeLabel("A label");
        Save(Archive::Create(path, "Test", disk), cover);
        item = FindLabel();
        Damage();
        if (GetParam() == Loss::Missing) {
            SalvageArchive(path, path, nullptr, nullptr, nullptr, disk);
            EXPECT_FALSE(Find(item, path));
        }
    }

    static Consolidated<Label> MakeLabel(char const * text) {
        auto label = MakeCounted<Label>();
        label->text = text;
        return Consolidated<Label>::ConsolidateObjectSacrifice(label);
    }

    Counted<Archive> Open(char const * name = path) const { return Archive::Open(name, "Test", disk); }
    static Cover Load(Counted<Archive> const & archive, char const * name = "Cover.dat") {
        Cover cover;
        cover.Load(*InSerialiserFile::ParseWithChecks(*archive->OpenStream(name), *archive, false), *archive, 1);
        return cover;
    }
    static std::uint64_t Save(Counted<Archive> const & archive, Cover const & cover, bool keepsDamaged = false,
                              Mode mode = Mode::Update) {
        auto session = archive->CreateSession(mode);
        session->SetKeepDamaged(keepsDamaged);
        session->StoreObject("Cover.dat", cover);
        return archive->CloseSession(std::move(session)).itemsAdded;
    }
    void ExpectRefused(Counted<Archive> const & archive, Cover const & cover, Mode mode = Mode::Update) const {
        auto const before = disk->GetFiles();
        try {
            Save(archive, cover, false, mode);
            ADD_FAILURE() << "saved";
        } catch (ArchiveError const & error) {
            EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Damaged);
            EXPECT_THAT(error.what(), HasSubstr("such as a profile, can't be read; nothing was saved"));
        }
        EXPECT_TRUE(disk->GetFiles() == before) << "it was touched";
    }

    std::optional<ArchiveItemInfo> Find(ItemID id, char const * name) const {
        for (auto const & info : Open(name)->GetInfo().items)
            if (info.id == id)
                return info;
        return {};
    }
    ItemID FindLabel() const {
        for (auto const & info : Open()->GetInfo().items)
            if (info.type == IDTag("ShOb"))
                return info.id;
        return {};
    }
    // Changes a byte of the label, or changes it back.
    void Damage(char const * name = path) {
        auto const info = Find(item, name);
        ASSERT_TRUE(info);
        auto bytes = disk->GetFiles().at(name);
        bytes[info->offset + 110] ^= 4;
        disk->OpenToUpdate(name)->Write(info->offset + 110, &bytes[info->offset + 110], 1);
    }
    std::vector<ArchiveProblem> Verify(char const * name = path) const {
        return VerifyArchive(name, nullptr, nullptr, nullptr, disk).problems;
    }
    /// What the stream says that its label is, whether it can be loaded or not.
    static ItemID GetNamed(Counted<Archive> const & archive) {
        auto const stream = archive->OpenStream("Cover.dat");
        std::vector<std::uint8_t> bytes(stream->GetSize());
        EXPECT_TRUE(stream->ReadAll(bytes.data(), bytes.size()));
        auto const references = InSerialiserFile::FindReferences(bytes);
        return references.size() == 1 ? references[0] : ItemID();
    }
    void ExpectLost(char const * name = path) const {
        auto const archive = Open(name);
        EXPECT_EQ(GetNamed(archive), item) << "the property is no longer there";
        auto const cover = Load(archive);
        EXPECT_FALSE(cover.label);
        EXPECT_EQ(cover.unreadLabel.GetID(), item);
        auto const problems = Verify(name);
        EXPECT_EQ(problems.size(), 1u);
        if (GetParam() == Loss::Damaged) {
            EXPECT_THAT(problems, Contains(Field(&ArchiveProblem::item, item)));
            EXPECT_TRUE(Find(item, name));
        } else {
            EXPECT_THAT(problems,
                        Contains(Field(&ArchiveProblem::what, HasSubstr("refers to an item that is missing"))));
            EXPECT_FALSE(Find(item, name));
        }
        for (auto const & problem : problems)
            EXPECT_TRUE(problem.isInUse);
    }

    Counted<MemoryDisk> const disk = MakeCounted<MemoryDisk>();
    ItemID item; // of the label
};
}

TEST_P(UnreadObject, FailsASaveUnlessDamageIsKept) {
    auto const archive = Open();
    auto cover = Load(archive);
    EXPECT_FALSE(cover.label);
    cover.title = "Another title";
    for (auto const mode : {Mode::Update, Mode::Compact})
        ExpectRefused(archive, cover, mode);
    Save(archive, cover, /*keepsDamaged=*/true);
    ExpectLost();
    ExpectRefused(archive, cover);
    ExpectRefused(Open(), Load(Open()));
}

TEST_P(UnreadObject, IsNamedByEverySaveThatKeepsDamage) {
    for (int i = 0; i < 6; ++i) {
        auto const archive = Open();
        auto cover = Load(archive);
        for (int k = 0; k < 3; ++k) { // those of one program, and after that those of the next one
            cover.title = std::to_string(10 * i + k).c_str();
            EXPECT_EQ(Save(archive, cover, true, (i + k) % 2 == 0 ? Mode::Update : Mode::Compact),
                      GetParam() == Loss::Damaged && (i + k) % 2 != 0 ? 2u : 1u);
            ExpectLost();
            EXPECT_EQ(Load(archive).title, cover.title);
        }
    }
    if (GetParam() == Loss::Missing)
        return;
    Damage();
    EXPECT_THAT(Verify(), IsEmpty());
    auto const cover = Load(Open());
    EXPECT_EQ(cover.label, MakeLabel("A label")) << "its bytes are back, and so is it";
    EXPECT_FALSE(cover.unreadLabel);
    Save(Open(), cover);
}

TEST_P(UnreadObject, IsNamedByCopiesInOtherDocuments) {
    auto const archive = Open();
    auto const cover = Load(archive);
    ExpectRefused(Archive::Create("copy.doc", "Test", disk), cover);
    EXPECT_EQ(disk->GetFiles().count("copy.doc"), 0u);
    auto const copy = Archive::Create("copy.doc", "Test", disk);
    Save(copy, cover, true);
    ExpectLost("copy.doc");
    Save(copy, cover, true, Mode::Compact);
    ExpectLost("copy.doc");
    // And back again, into a document that has nothing of it.
    Save(Archive::Create("third.doc", "Test", disk), Load(Open("copy.doc")), true);
    ExpectLost("third.doc");
    if (GetParam() == Loss::Missing)
        return;
    Damage("third.doc");
    EXPECT_EQ(Load(Open("third.doc")).label, MakeLabel("A label"));
    EXPECT_THAT(Verify("third.doc"), IsEmpty());
}

TEST_P(UnreadObject, StaysWhereAStreamIsKept) {
    for (auto const mode : {Mode::Update, Mode::Compact}) {
        auto const archive = Open();
        auto session = archive->CreateSession(mode);
        session->SetKeepDamaged(true);
        EXPECT_TRUE(session->KeepStream("Cover.dat"));
        archive->CloseSession(std::move(session));
        ExpectLost();
    }
}

TEST_P(UnreadObject, GoesWhenThereIsAnotherOneOrIsToBeNone) {
    auto const bytes = disk->GetFiles().at(path);
    for (auto const * const text : {"Another label", static_cast<char const *>(nullptr)}) {
        auto const place = MakeCounted<MemoryDisk>(MemoryDisk::Files{{path, bytes}});
        auto const archive = Archive::Open(path, "Test", place);
        auto cover = Load(archive);
        if (text)
            cover.label = MakeLabel(text);
        else
            cover.unreadLabel.Reset();
        Save(archive, cover);
        EXPECT_EQ(archive->GetInfo().items.size(), text ? 2u : 1u);
        auto const again = Load(Archive::Open(path, "Test", place));
        EXPECT_EQ(again.label, cover.label);
        EXPECT_FALSE(again.unreadLabel);
        for (auto const & problem : VerifyArchive(path, nullptr, nullptr, nullptr, place).problems)
            EXPECT_FALSE(problem.isInUse) << problem.what;
    }
}

TEST_P(UnreadObject, GoesWithTheStreamThatRefersToItAndComesBackWithTheObject) {
    auto const archive = Open();
    auto const cover = Load(archive);
    for (int i = 0; i < 3; ++i) {
        auto session = archive->CreateSession();
        session->StoreStream("Other.dat", &i, sizeof i);
        archive->CloseSession(std::move(session));
        EXPECT_FALSE(archive->HasStream("Cover.dat"));
    }
    ExpectRefused(archive, cover);
    Save(archive, cover, true); // somebody took it back
    EXPECT_EQ(GetNamed(Open()), item);
    EXPECT_EQ(Find(item, path).has_value(), GetParam() == Loss::Damaged) << "its bytes were still there";
}

TEST_P(UnreadObject, IsKeptForObjectsThatAreOnlyEnumerated) {
    auto const archive = Open();
    auto const cover = Load(archive);
    auto const copy = Archive::Create("copy.doc", "Test", disk);
    auto session = copy->CreateSession();
    session->SetKeepDamaged(true);
    session->StoreProperties("Names.dat", "Nams", 1,
                             [&](OutSerialiser & out) { out.SaveObjectEnumeratePathsOnlyI(cover); });
    copy->CloseSession(std::move(session));
    EXPECT_EQ(Find(item, "copy.doc").has_value(), GetParam() == Loss::Damaged);
    EXPECT_EQ(Verify("copy.doc").size(), 1u);
}

TEST_P(UnreadObject, IsLookedForAgainByTheSave) {
    if (GetParam() == Loss::Missing)
        return;
    auto const archive = Open();
    auto const cover = Load(archive);
    EXPECT_FALSE(cover.label);
    Damage(); // undone: the disk had only been away
    auto const copy = Archive::Create("copy.doc", "Test", disk);
    for (auto const & target : {archive, copy}) {
        Save(target, cover);
        EXPECT_EQ(GetNamed(target), item);
        EXPECT_EQ(Load(target).label, MakeLabel("A label"));
    }
}

INSTANTIATE_TEST_SUITE_P(, UnreadObject, testing::Values(Loss::Damaged, Loss::Missing),
                         [](auto const & loss) { return loss.param == Loss::Damaged ? "Damaged" : "Missing"; });

TEST(SharedObjectReference, KeepsAnObjectOfAClassThatNobodyKnows) {
    auto const disk = MakeCounted<MemoryDisk>();
    auto const name = [](Archive & archive, SharedSerialisable const & object) {
        auto session = archive.CreateSession();
        session->StoreProperties("Cover.dat", "Covr", 1,
                                 [&](OutSerialiser & out) { out.SaveSharedObject("Labl", &object); });
        archive.CloseSession(std::move(session));
    };
    auto label = MakeCounted<Label>();
    label->text = "A label";
    auto const isOfNoClass = Counted<SharedSerialisable>(MakeCounted<Stranger>());
    for (auto const & object : {isOfNoClass, Counted<SharedSerialisable>(label)}) {
        name(*Archive::Create("a.doc", "Test", disk), *object);
        auto const archive = Archive::Open("a.doc", "Test", disk), copy = Archive::Create("b.doc", "Test", disk);
        auto const parsed = InSerialiserFile::ParseWithChecks(*archive->OpenStream("Cover.dat"), *archive, false);
        Counted<SharedSerialisable> loaded;
        SharedObjectReference unread;
        EXPECT_FALSE(parsed->LoadSharedObjectI("Labl", *archive, Cover::GetClassProperties(), loaded, unread))
            << "not known, or of another class than is expected";
        EXPECT_FALSE(loaded);
        ASSERT_TRUE(unread);
        for (auto const & target : {archive, copy}) {
            auto session = target->CreateSession();
            session->StoreProperties("Cover.dat", "Covr", 1, [&](OutSerialiser & out) {
                out.SaveType("Titl", StringUtf8("New"));
                out.SaveSharedObject("Labl", nullptr, unread);
            });
            target->CloseSession(std::move(session)); // nothing is damaged
            EXPECT_EQ(target->GetInfo().items.size(), 2u);
        }
        for (auto const * const path : {"a.doc", "b.doc"})
            EXPECT_THAT(VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems, IsEmpty());
    }
}

// Nothing that the library writes refers to a stream. Kept for its reference, an old one would come back.
TEST(SharedObjectReference, DoesNotStandForAStream) {
    for (bool const isKept : {false, true}) {
        auto const disk = MakeCounted<MemoryDisk>();
        auto const archive = Archive::Create("a.doc", "Test", disk);
        auto session = archive->CreateSession();
        session->StoreStream("Other.dat", "old", 3);
        archive->CloseSession(std::move(session));
        auto const id = archive->GetInfo().items.at(0).id;
        session = archive->CreateSession();
        session->KeepStream("Other.dat");
        session->StoreProperties("Cover.dat", "Covr", 1, [&](OutSerialiser & out) {
            EXPECT_THROW(out.SaveSharedObject("Labl", nullptr, SharedObjectReference(id, nullptr)), ArchiveError);
            out.SaveTypeI("Labl", PropType::SharedObject, &id, sizeof id);
        });
        archive->CloseSession(std::move(session));

        auto const opened = Archive::Open("a.doc", "Test", disk);
        Cover cover;
        cover.Load(*InSerialiserFile::ParseWithChecks(*opened->OpenStream("Cover.dat"), *opened, false), *opened, 1);
        EXPECT_FALSE(cover.unreadLabel);
        session = opened->CreateSession();
        session->StoreStream("Other.dat", "new", 3);
        if (isKept)
            session->KeepStream("Cover.dat");
        else
            session->StoreObject("Cover.dat", cover);
        opened->CloseSession(std::move(session));
        std::string content(3, ' ');
        EXPECT_TRUE(Archive::Open("a.doc", "Test", disk)->OpenStream("Other.dat")->ReadAll(content.data(), 3));
        EXPECT_EQ(content, "new");
    }
}

TEST(SharedObjectReference, IsNoneWhereThereIsNothingToRefer) {
    auto const disk = MakeCounted<MemoryDisk>();
    auto const archive = Archive::Create("a.doc", "Test", disk);
    auto session = archive->CreateSession();
    session->StoreProperties("Cover.dat", "Covr", 1, [](OutSerialiser & out) {
        out.SaveType("Numb", 7);
        out.SaveTypeI("Zero", PropType::SharedObject, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
        out.SaveTypeI("Shrt", PropType::SharedObject, "\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 15);
        out.SaveTypeI("Item", PropType::DelayLoadObject, "\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0", 16);
    });
    archive->CloseSession(std::move(session));
    auto const parsed = InSerialiserFile::ParseWithChecks(*archive->OpenStream("Cover.dat"), *archive, false);
    for (IDTag const tag : {IDTag("Numb"), IDTag("Zero"), IDTag("Shrt"), IDTag("Item"), IDTag("None")}) {
        Consolidated<Label> label;
        SharedObjectReference unread({5, 5}, nullptr);
        EXPECT_FALSE(parsed->LoadSharedObject(tag, *archive, label, unread));
        EXPECT_FALSE(unread) << tag.GetText().data();
    }
    // A store that has no items has no names for them either.
    auto const alone = MakeCounted<EmptyFileStore>();
    SharedObjectReference unread;
    EXPECT_FALSE(alone->LoadReferredObject({1, 1}, 0, unread));
    EXPECT_FALSE(unread);
}
