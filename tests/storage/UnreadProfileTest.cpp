// Bitmaps whose profile is damaged, or missing from their document: they go on naming it as long as they would store
// it.
#include "colour/ICCManager.h"
#include "colour/ICCProfileSet.h"
#include "kernel/ArchiveCheck.h"
#include "storage/DocumentEnvironment.h"

namespace Raster {
namespace {
enum class Loss { Damaged, Missing };

class UnreadProfileTest : public DocumentTest, public testing::WithParamInterface<Loss> {
protected:
    UnreadProfileTest() {
        Allow(RasterSerialisationStrategy::AllowByReference);
        auto bitmap = MakePending(7);
        bitmap.SetBackingData(Holder(bitmap.GetBackingData().Get()), GetDefault());
        Save(Create(), bitmap);
        for (auto const & item : Open()->GetInfo().items)
            if (item.type == Kernel::IDTag("ShOb"))
                profile = item.id;
        Flip();
        if (GetParam() == Loss::Missing)
            Kernel::SalvageArchive(path, path, nullptr, nullptr, nullptr, disk);
    }

    static Kernel::Consolidated<ICCProfile> GetDefault() {
        return ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8);
    }
    void Flip(char const * name = path) {
        for (auto const & item : Open(name)->GetInfo().items)
            if (item.id == profile) {
                auto const file = disk->OpenToUpdate(name);
                std::uint8_t byte = 0;
                file->Read(item.offset + 150, &byte, 1);
                byte ^= 1;
                file->Write(item.offset + 150, &byte, 1);
            }
    }
    void SaveKeeping(Document const & document, Kernel::Serialisable const & object, Mode mode = Mode::Update) const {
        SaveWith(
            document,
            [&](auto & session) {
                session.SetKeepDamaged(true);
                session.StoreObject("Bitmap.dat", object);
            },
            mode);
    }
    static BitmapCore const & GetCore(DynamicBitmap const & bitmap) { return *bitmap.GetCore(); }
    void ExpectLost(DynamicBitmap const & bitmap) const {
        EXPECT_FALSE(GetCore(bitmap).GetProfile());
        EXPECT_EQ(GetCore(bitmap).GetUnreadProfile().GetID(), profile);
    }
    std::size_t CountProblems(char const * name = path) const {
        return Kernel::VerifyArchive(name, nullptr, nullptr, nullptr, disk).problems.size();
    }

    Kernel::ItemID profile;
};
}

TEST_P(UnreadProfileTest, IsNamedByThePictureAndItsClonesFromSaveToSave) {
    for (int i = 0; i < 6; ++i) {
        auto const document = Open();
        auto const loaded = Load(document);
        ASSERT_TRUE(loaded.IsPendingDelayLoad());
        ExpectLost(loaded);
        auto const untouched = disk->GetFiles();
        EXPECT_THROW(Save(document, loaded), Kernel::ArchiveError);
        EXPECT_TRUE(disk->GetFiles() == untouched);
        Kernel::Counted<DynamicBitmap> const clone(loaded.Clone());
        ExpectLost(*clone);
        SaveKeeping(document, i % 2 == 0 ? loaded : *clone, i % 3 == 0 ? Mode::Compact : Mode::Update);
        EXPECT_TRUE(HasProperty(document, "RPro"));
        ExpectLost(Load(document));
        EXPECT_EQ(CountProblems(), 1u);
    }
    auto const pictureAlone = Load(Open());
    SaveKeeping(Create("other.doc"), pictureAlone);
    ExpectLost(Load(Open("other.doc")));
    EXPECT_EQ(decodes, 0);
    if (GetParam() == Loss::Missing)
        return;
    for (auto const * const name : {path, "other.doc"}) {
        Flip(name);
        EXPECT_EQ(GetCore(Load(Open(name))).GetProfile(), GetDefault());
        EXPECT_FALSE(GetCore(Load(Open(name))).GetUnreadProfile());
        EXPECT_EQ(CountProblems(name), 0u);
    }
}

TEST_P(UnreadProfileTest, IsNamedAlsoByAPictureThatWasDecoded) {
    auto const document = Open();
    auto const loaded = Load(document);
    loaded.ForceDelayLoad(nullptr);
    EXPECT_FALSE(loaded.IsPendingDelayLoad());
    ExpectLost(loaded);
    SaveKeeping(document, loaded);
    EXPECT_TRUE(HasProperty(document, "RPro"));
    ExpectLost(Load(Open()));
}

// A profile that is whole goes in these cases too.
TEST_P(UnreadProfileTest, GoesWithTheFileThatItCameWith) {
    auto const document = Open();
    auto painted = Load(document), withAnother = Load(document), withNone = Load(document);
    painted.ForceDelayLoad(nullptr);
    FillTile(GetTile(painted, 0, 0), 1);
    withAnother.SetBackingData(Holder(withAnother.GetBackingData().Get()), GetDefault());
    withNone.SetBackingData(Holder(withNone.GetBackingData().Get()), nullptr);
    for (auto const * const bitmap : {&painted, &withAnother, &withNone}) {
        Save(document, *bitmap); // nothing that is damaged is in it
        EXPECT_EQ(HasProperty(document, "RPro"), bitmap == &withAnother);
        EXPECT_FALSE(GetCore(Load(Open())).GetUnreadProfile());
        for (auto const & problem : Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems)
            EXPECT_FALSE(problem.isInUse) << problem.what;
    }
}

TEST_P(UnreadProfileTest, BitmapWithoutItShowsItsPictureAndGrows) {
    auto loaded = Load(Open());
    EXPECT_FALSE(BytesOf(loaded).empty());
    EXPECT_EQ(loaded.InflateByPixels({1, 1, 1, 1}, true).left, 256);
    ExpectLost(loaded); // as a profile does that is there
}

TEST_P(UnreadProfileTest, IsNamedByASetOfProfilesUntilThatGetsAnother) {
    // A set that names the same profile, as one that is whole would be.
    auto const store = [&](ICCManager::ICCProfileSet const & set, bool keepsDamaged, Mode mode = Mode::Update) {
        SaveWith(
            Open(),
            [&](auto & session) {
                session.SetKeepDamaged(keepsDamaged);
                session.StoreObject("Set.dat", set);
            },
            mode);
    };
    auto const load = [&] {
        auto const document = Open();
        ICCManager::ICCProfileSet set;
        EXPECT_TRUE(set.Load(*Parse(document, "Set.dat"), *document, 1));
        return set;
    };
    auto const named = GetCore(Load(Open())).GetUnreadProfile();
    SaveWith(Open(), [&](auto & session) {
        session.SetKeepDamaged(true);
        session.StoreProperties("Set.dat", "ICCP", 1,
                                [&](Kernel::OutSerialiser & out) { out.SaveSharedObject("RGBP", nullptr, named); });
    });
    for (int i = 0; i < 4; ++i) {
        auto set = load();
        EXPECT_FALSE(set.GetProfileFor(ColourSpaceRGB));
        EXPECT_THROW(store(set, false), Kernel::ArchiveError);
        set.SetProfile(ColourSpaceGrey, ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey));
        store(set, true, i % 2 == 0 ? Mode::Update : Mode::Compact);
        EXPECT_EQ(CountProblems(), 1u);
        EXPECT_TRUE(load().CompareMembers(set));
    }
    ICCManager::ICCProfileSet other;
    other.SetProfile(ColourSpaceGrey, ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey));
    EXPECT_FALSE(load().CompareMembers(other));
    auto const copy = load(); // of a set whose profile comes back
    if (GetParam() == Loss::Damaged) {
        Flip();
        EXPECT_EQ(load().GetProfileFor(ColourSpaceRGB), GetDefault());
        Flip();
    }
    for (auto const & profileOfUser : {GetDefault(), Kernel::Consolidated<ICCProfile>()}) {
        auto set = copy;
        set.SetProfile(ColourSpaceRGB, profileOfUser);
        store(set, false);
        EXPECT_EQ(load().GetProfileFor(ColourSpaceRGB), profileOfUser);
        EXPECT_TRUE(load().CompareMembers(set));
    }
}

INSTANTIATE_TEST_SUITE_P(, UnreadProfileTest, testing::Values(Loss::Damaged, Loss::Missing),
                         [](auto const & loss) { return loss.param == Loss::Damaged ? "Damaged" : "Missing"; });
}
