#include "host/Document.h"

#include "host/Failure.h"
#include "kernel/ArchiveSession.h"
#include "kernel/OutSerialiser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace Host {
namespace {
class DocumentTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Document::RegisterClasses(); }

    DocumentTest() {
        std::string name = ::testing::TempDir() + "document-XXXXXX";
        folder = mkdtemp(name.data());
    }
    ~DocumentTest() override { std::filesystem::remove_all(folder); }

    std::string GetPath() const { return folder + "/album.doc"; }

    /// Saves a document of empty layers.
    void Make(int layerCount, int width, int height) const {
        auto document = Document::Create(GetPath());
        for (int i = 0; i < layerCount; ++i) {
            auto layer = Kernel::MakeCounted<Layer>();
            layer->bitmap.Create(width, height, Raster::A8, Raster::MipmapModeNone,
                                 Raster::HardwareCachePolicy::Default);
            document.layers.push_back(std::move(layer));
        }
        document.Save({});
    }

private:
    std::string folder;
};

constexpr int tile = 256;
}

TEST_F(DocumentTest, LayersThatAddUpToMoreTilesThanABitmapMayHaveAreRefused) {
    Make(2, 4096 * tile, 2048 * tile);
    EXPECT_EQ(Document::Open(GetPath()).layers.size(), 2u);
    Make(2, 4096 * tile, 2048 * tile + 1);
    try {
        Document::Open(GetPath());
        ADD_FAILURE() << "opened";
    } catch (Failure const & failure) {
        EXPECT_THAT(failure.what(), ::testing::HasSubstr("2^24 tiles"));
    }
}

// Who said --no-clobber is not to lose what came after that was looked at, whatever it is.
TEST_F(DocumentTest, FileThatCameMeanwhileStays) {
    Make(1, 5, 5);
    auto const document = [&] {
        auto made = Document::Create(GetPath(), Kernel::ArchiveTarget::OnlyFree);
        made.width = 77;
        return made;
    };
    try {
        document().Save({});
        ADD_FAILURE() << "replaced";
    } catch (Failure const & failure) {
        EXPECT_THAT(failure.what(), ::testing::HasSubstr("another program has saved a file there"));
    }
    EXPECT_EQ(Document::Open(GetPath()).layers.size(), 1u);

    std::filesystem::remove(GetPath());
    auto made = document();
    made.Save({});
    made.Save({Kernel::ArchiveSaveMode::Compact}); // replaces its own
    EXPECT_EQ(Document::Open(GetPath()).width, 77);
}

// One that was left out on loading would be gone with the next save.
TEST_F(DocumentTest, MoreLayersThanItLoadsAreNotSaved) {
    Make(10000, 1, 1);
    auto document = Document::Open(GetPath());
    EXPECT_EQ(document.layers.size(), 10000u);
    document.layers.push_back(document.layers.front());
    EXPECT_THROW(document.Save({}), Failure);
    EXPECT_EQ(Document::Open(GetPath()).layers.size(), 10000u);
}

// What it has that this one doesn't know would be gone with the next save.
TEST_F(DocumentTest, LayerOfALaterVersionIsNotOpened) {
    Make(1, 10, 10);
    for (unsigned short version : {1, 2}) {
        auto const archive = Kernel::Archive::Open(GetPath(), Document::archiveTag);
        auto const layer = Document::Open(GetPath()).layers.front();
        auto session = archive->CreateSession();
        session->KeepStream("Document.dat");
        session->StoreProperties("Layer-0001.dat", "Layr", version,
                                 [&](Kernel::OutSerialiser & serialiser) { layer->Save(serialiser); });
        archive->CloseSession(std::move(session));
        if (version == 1)
            EXPECT_NO_THROW(Document::Open(GetPath()));
        else
            EXPECT_THROW(Document::Open(GetPath()), LaterVersion);
    }
    EXPECT_THROW(Document::OpenRemains(GetPath()), LaterVersion);
}

TEST_F(DocumentTest, LayersThatHaveNotChangedKeepTheirStreams) {
    Make(3, 10, 10);
    auto document = Document::Open(GetPath());
    auto const unchanged = document.Save({});
    EXPECT_EQ(unchanged.itemsAdded, 0u);
    document.ChangeLayer(2).name = "painted";
    EXPECT_EQ(document.Save({}).itemsAdded, 1u);
    EXPECT_EQ(document.Save({}).itemsAdded, 0u);
    document.ChangeLayer(3).opacity = 0.25f;
    document.Save({Kernel::ArchiveSaveMode::Compact}); // into a new file, which nothing of it lacks
    auto const again = Document::Open(GetPath());
    EXPECT_EQ(again.GetLayer(2).name, Kernel::StringUtf8("painted"));
    EXPECT_EQ(again.GetLayer(3).opacity, 0.25f);
    EXPECT_EQ(again.GetLayer(1).opacity, 1.0f);
}
}
