// Documents one of whose profiles is damaged, or missing: their layers go on naming it whatever else is done to them.
#include "host/Document.h"
#include "host/Failure.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/InSerialiserFile.h"
#include "storage/CompressedRasterData.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace Host {
namespace {
using Mode = Kernel::ArchiveSaveMode;
using testing::HasSubstr;

enum class Loss { Damaged, Missing };

/// A document with a painted layer, one that is still its file, and one without a profile. The first two have the same
/// one, and so has the document.
class LayerProfileTest : public testing::TestWithParam<Loss> {
protected:
    static void SetUpTestSuite() {
        Document::RegisterClasses();
        Raster::Tile::InitStaticTiles();
    }

    LayerProfileTest() {
        std::string name = testing::TempDir() + "layers-XXXXXX";
        folder = mkdtemp(name.data());
        auto document = Document::Create(GetPath());
        document.layers.push_back(Kernel::MakeCounted<Layer>());
        document.layers.front()->bitmap.Create(600, 300, Raster::RGBA8, Raster::MipmapModeNone,
                                               Raster::HardwareCachePolicy::Default);
        document.layers.front()->profile = GetDefault();
        Paint(*document.layers.front(), 1);
        document.layers.push_back(Document::MakeLayer(MakeFile(), 60, 40, Raster::RGBA8, GetDefault()));
        document.layers.push_back(Document::MakeLayer(MakeFile(), 60, 40, Raster::RGBA8, {}));
        document.profiles.SetProfileForFormat(Raster::RGBA8, GetDefault());
        document.Save({});
        for (auto const & item : Document::Open(GetPath()).GetArchive().GetInfo().items)
            if (item.type == Kernel::IDTag("ShOb"))
                profile = item.id;
        Flip(GetPath());
        if (GetParam() == Loss::Missing) {
            Kernel::SalvageArchive(GetPath(), GetPath("saved.doc"));
            std::filesystem::rename(GetPath("saved.doc"), GetPath());
        }
    }
    ~LayerProfileTest() override { std::filesystem::remove_all(folder); }

    std::string GetPath(char const * name = "album.doc") const { return folder + "/" + name; }
    static Raster::ICCManager::Profile GetDefault() {
        return Raster::ICCManager::GetInstance().GetDefaultProfileForFormat(Raster::RGBA8);
    }
    static Kernel::Counted<Kernel::DelayLoadHolder> MakeFile() {
        auto const file = Kernel::MakeCounted<Raster::CompressedRasterData>();
        file->CopyFrom(reinterpret_cast<unsigned char const *>("no picture"), 10);
        return Kernel::DelayLoadHolder::Create(Raster::CompressedRasterData::GetTypeFileStoreItemType(), file);
    }
    static void Paint(Layer & layer, unsigned seed) {
        Raster::MutableTileGuard const guard(layer.bitmap.GetCore()->GetPlane(0).GetTile(0));
        for (unsigned i = 0; i < 1000; ++i)
            guard.GetBuffer()[i] = seed * i;
    }
    static unsigned GetPaint(Layer const & layer) {
        Raster::ConstTileGuard const guard(layer.bitmap.GetCore()->GetPlane(0).GetTile(0));
        return guard.GetBuffer()[1];
    }
    std::string Read() const {
        std::ifstream file(GetPath(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void Flip(std::string const & path) const {
        for (auto const & item : Kernel::Archive::Open(path, Document::archiveTag)->GetInfo().items)
            if (item.id == profile) {
                std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
                file.seekg(static_cast<std::streamoff>(item.offset) + 150);
                auto const byte = static_cast<char>(file.get());
                file.seekp(static_cast<std::streamoff>(item.offset) + 150);
                file.put(static_cast<char>(byte ^ 1));
            }
    }
    void ExpectRefused(Document & document, Mode mode) const {
        auto const before = Read();
        try {
            document.Save({.mode = mode});
            ADD_FAILURE() << "saved";
        } catch (Failure const & failure) {
            EXPECT_THAT(failure.what(), HasSubstr("--keep-damaged"));
        }
        EXPECT_TRUE(Read() == before);
    }
    void ExpectLost(Layer const & layer) const {
        EXPECT_FALSE(layer.profile);
        EXPECT_EQ(layer.unreadProfile.GetID(), profile);
    }
    void ExpectLost(Document const & document) const {
        ExpectLost(document.GetLayer(1));
        ExpectLost(document.GetLayer(2));
        EXPECT_EQ(document.GetLayer(2).bitmap.GetCore()->GetUnreadProfile().GetID(), profile);
        EXPECT_FALSE(document.GetLayer(3).unreadProfile);
        EXPECT_FALSE(document.profiles.GetProfileForFormat(Raster::RGBA8));
    }
    void ExpectThere(Document const & document) const {
        for (int i = 1; i <= 2; ++i) {
            EXPECT_EQ(document.GetLayer(i).profile, GetDefault());
            EXPECT_FALSE(document.GetLayer(i).unreadProfile);
        }
        EXPECT_EQ(document.GetLayer(2).bitmap.GetCore()->GetProfile(), GetDefault());
        EXPECT_EQ(document.profiles.GetProfileForFormat(Raster::RGBA8), GetDefault());
    }
    std::size_t CountInUse() const {
        std::size_t count = 0;
        for (auto const & problem : Kernel::VerifyArchive(GetPath()).problems)
            count += problem.isInUse;
        return count;
    }
    /// The damaged item; or, if it is missing, the two layers and the list of layers that name it.
    static std::size_t GetExpectedProblems() { return GetParam() == Loss::Damaged ? 1 : 3; }

    Kernel::ItemID profile;

private:
    std::string folder;
};
}

TEST_P(LayerProfileTest, StaysWithLayersThatAreEditedFromSaveToSave) {
    EXPECT_EQ(CountInUse(), GetExpectedProblems());
    for (unsigned i = 0; i < 6; ++i) {
        auto document = Document::Open(GetPath());
        ExpectLost(document);
        Paint(document.ChangeLayer(1), 2 + i);
        document.ChangeLayer(2).opacity = 1.0f / static_cast<float>(2 + i);
        auto const mode = i % 3 == 2 ? Mode::Compact : Mode::Update;
        ExpectRefused(document, mode);
        document.Save({.mode = mode, .keepDamaged = true});
        document.ChangeLayer(1).name = "once more";
        ExpectRefused(document, mode);
        document.Save({.mode = mode, .keepDamaged = true});
        ExpectLost(document);
        EXPECT_EQ(CountInUse(), GetExpectedProblems());
        auto const again = Document::Open(GetPath());
        ExpectLost(again);
        EXPECT_EQ(GetPaint(again.GetLayer(1)), 2 + i);
        EXPECT_EQ(again.GetLayer(2).opacity, 1.0f / static_cast<float>(2 + i));
    }
    if (GetParam() == Loss::Missing)
        return;
    Flip(GetPath()); // what was changed is as it was
    auto document = Document::Open(GetPath());
    ExpectThere(document);
    EXPECT_EQ(CountInUse(), 0u);
    Paint(document.ChangeLayer(1), 50);
    document.Save({});
    ExpectThere(Document::Open(GetPath()));
}

TEST_P(LayerProfileTest, DoesNotStandInTheWayOfOtherLayers) {
    auto document = Document::Open(GetPath());
    document.profiles = {}; // those of the document are stored each time
    document.ChangeLayer(3).name = "changed";
    document.Save({.keepDamaged = GetParam() == Loss::Missing}); // what is damaged stays where it is
    ExpectLost(Document::Open(GetPath()).GetLayer(1));
    document.layers.erase(document.layers.begin(), document.layers.begin() + 2);
    document.layers.front()->isStored = false; // it stands elsewhere now
    document.Save({});
    EXPECT_EQ(CountInUse(), 0u) << "the layers went, and what they referred to";
    EXPECT_EQ(Document::Open(GetPath()).GetLayer(1).name, Kernel::StringUtf8("changed"));
}

TEST_P(LayerProfileTest, GoesWhenTheLayerGetsAnother) {
    auto document = Document::Open(GetPath());
    document.profiles.SetProfileForFormat(Raster::RGBA8, nullptr);
    auto & painted = document.ChangeLayer(1);
    painted.profile = GetDefault();
    auto & placed = document.ChangeLayer(2);
    placed.unreadProfile.Reset();
    placed.bitmap.SetBackingData(placed.placedFile, nullptr);
    document.Save({});
    auto const again = Document::Open(GetPath());
    EXPECT_EQ(again.GetLayer(1).profile, GetDefault());
    EXPECT_FALSE(again.GetLayer(2).profile);
    for (int i = 1; i <= 2; ++i) {
        EXPECT_FALSE(again.GetLayer(i).unreadProfile);
        EXPECT_FALSE(again.GetLayer(i).bitmap.GetCore()->GetUnreadProfile());
    }
    EXPECT_EQ(CountInUse(), 0u);
}

TEST_P(LayerProfileTest, IsTakenAlongByLayersThatAreCopied) {
    auto source = Document::Open(GetPath());
    auto copy = Document::Create(GetPath("copy.doc"));
    copy.layers = {source.layers[0], source.layers[1]};
    for (auto const & layer : copy.layers)
        layer->isStored = false;
    EXPECT_THROW(copy.Save({}), Failure);
    EXPECT_FALSE(std::filesystem::exists(GetPath("copy.doc")));
    copy.Save({.keepDamaged = true});
    auto const opened = Document::Open(GetPath("copy.doc"));
    for (int i = 1; i <= 2; ++i)
        ExpectLost(opened.GetLayer(i));
    if (GetParam() == Loss::Missing)
        return;
    Flip(GetPath("copy.doc"));
    EXPECT_EQ(Document::Open(GetPath("copy.doc")).GetLayer(1).profile, GetDefault());
}

// It is made of what can be read, and says what can't.
TEST_P(LayerProfileTest, StaysWithLayersThatAreSalvaged) {
    Kernel::SalvageArchive(GetPath(), GetPath("saved.doc"));
    auto remains = Document::OpenRemains(GetPath("saved.doc"));
    ASSERT_EQ(remains.layers.size(), 3u);
    ExpectLost(remains);
    remains.Save({.keepDamaged = true});
    ExpectLost(Document::Open(GetPath("saved.doc")));
    EXPECT_EQ(GetPaint(Document::Open(GetPath("saved.doc")).GetLayer(1)), 1u);
}

INSTANTIATE_TEST_SUITE_P(, LayerProfileTest, testing::Values(Loss::Damaged, Loss::Missing),
                         [](auto const & loss) { return loss.param == Loss::Damaged ? "Damaged" : "Missing"; });
}
