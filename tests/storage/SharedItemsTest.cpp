// Several blocks whose bytes are one item of a document: each keeps its own, whatever is saved when.
#include "storage/DocumentEnvironment.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
class SharedItemsTest : public DocumentTest {
protected:
    /// Two tiles with the same bytes, which a document stores once.
    static DynamicBitmap MakeTwins() {
        auto bitmap = MakeBitmap(512, 256, A8, MipmapModeNone);
        FillTile(GetTile(bitmap, 0, 0), 1);
        FillTile(GetTile(bitmap, 0, 1), 1);
        return bitmap;
    }
    Document MakeDocument() const {
        auto const document = Create();
        EXPECT_EQ(Save(document, MakeTwins()), 2u); // one tile, and the stream
        return document;
    }
    Bytes const original = BytesOf(MakeTwins())[0];
};
}

TEST_F(SharedItemsTest, EqualTilesStayApartWhenOneIsChangedWhileTheOtherIsPending) {
    auto const document = MakeDocument();
    auto loaded = Load(document);
    FillTile(GetTile(loaded, 0, 0), 2);
    EXPECT_EQ(Save(document, loaded), 2u);
    EXPECT_EQ(BytesOf(GetTile(loaded, 0, 1)), original);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(loaded));
}

TEST_F(SharedItemsTest, EqualTilesStayApartWhenOneIsChangedAfterBothWereRead) {
    auto const document = MakeDocument();
    auto loaded = Load(document);
    BytesOf(loaded);
    FillTile(GetTile(loaded, 0, 0), 2);
    for (int i = 0; i < 2; ++i) {
        Save(document, loaded);
        EXPECT_EQ(BytesOf(GetTile(loaded, 0, 1)), original);
        EXPECT_EQ(BytesOf(Load(Open())), BytesOf(loaded)) << i;
    }
}

TEST_F(SharedItemsTest, EqualTilesOfANewBitmapStayApart) {
    auto const document = Create();
    auto bitmap = MakeTwins();
    Save(document, bitmap);
    FillTile(GetTile(bitmap, 0, 1), 2);
    Save(document, bitmap);
    EXPECT_EQ(BytesOf(GetTile(bitmap, 0, 0)), original);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(bitmap));
}

TEST_F(SharedItemsTest, TheUnchangedOneOfTwoBitmapsIsSavedAsItWas) {
    auto const document = MakeDocument();
    auto first = Load(document), second = Load(document);
    BytesOf(first);
    BytesOf(second);
    FillTile(GetTile(first, 0, 0), 2);
    Save(document, second);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(MakeTwins()));
}

TEST_F(SharedItemsTest, WhatAChangedTileTookAlongIsNotWhatTheOtherReads) {
    auto const document = MakeDocument();
    auto loaded = Load(document);
    FillTile(GetTile(loaded, 0, 0), 2);
    GetTile(loaded, 0, 0).Unallocate();
    EXPECT_EQ(BytesOf(GetTile(loaded, 0, 1)), original);
}

TEST_F(SharedItemsTest, ManyEqualBitmapsAreFoundAgain) {
    auto const document = Create();
    auto const save = [&] {
        return SaveWith(document, [](auto & session) {
            for (int i = 0; i < 50; ++i)
                session.StoreObject("Bitmap" + std::to_string(i) + ".dat", MakeTwins());
        });
    };
    EXPECT_EQ(save(), 51u); // one tile, and the streams
    EXPECT_EQ(save(), 0u);
}

TEST_F(SharedItemsTest, ASaveThatFailsChangesNoTile) {
    auto const document = MakeDocument();
    auto loaded = Load(document);
    FillTile(GetTile(loaded, 0, 0), 2);
    auto const expected = BytesOf(GetTile(loaded, 0, 0));
    for (std::uint64_t step = 1; step < 5; ++step) {
        disk->FailAt(step);
        EXPECT_THROW(Save(document, loaded), Kernel::ArchiveError) << step;
        disk->FailAt(0);
        EXPECT_EQ(BytesOf(GetTile(loaded, 0, 0)), expected);
        EXPECT_EQ(BytesOf(Load(Open())), BytesOf(MakeTwins()));
    }
    Save(document, loaded);
    EXPECT_EQ(BytesOf(GetTile(loaded, 0, 1)), original);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(loaded));
}

namespace {
/// Bitmaps and documents beside plain lists of what their tiles hold.
class RandomSharing : public SharedItemsTest {
protected:
    static constexpr int bitmapCount = 4, tileCount = 6, contentCount = 5, documentCount = 2;
    using Model = std::vector<int>; // the content of each tile

    RandomSharing() {
        for (unsigned i = 0; i < contentCount; ++i) {
            auto bitmap = MakeBitmap(1, 1, A8, MipmapModeNone);
            if (i != 0)
                FillTile(GetTile(bitmap, 0, 0), i);
            contents.push_back(BytesOf(GetTile(bitmap, 0, 0)));
        }
        for (int i = 0; i < bitmapCount; ++i)
            bitmaps.push_back({MakeBitmap(256 * tileCount, 256, A8, MipmapModeNone), Model(tileCount, 0)});
        for (int i = 0; i < documentCount; ++i)
            documents.push_back({Create(GetName(i).c_str()), {}});
    }
    static std::string GetName(int document) { return std::to_string(document) + ".doc"; }

    struct Picture {
        DynamicBitmap bitmap;
        Model model;
    };
    struct File {
        Document document;
        Model model; // empty until the first save
    };

    int Choose(int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); }

    // On a disk that fails now and then.
    bool TryToSave(File const & file, Picture const & picture) {
        auto const mode = Choose(4) ? Mode::Update : Mode::Compact;
        disk->FailAt(Choose(3) ? 0 : static_cast<unsigned>(1 + Choose(7)));
        bool isDone = true;
        try {
            Save(file.document, picture.bitmap, mode);
        } catch (Kernel::ArchiveError const & error) {
            ++failures;
            isDone = error.GetKind() == Kernel::ArchiveError::Kind::Unknown;
        }
        disk->FailAt(0);
        if (!isDone)
            return false;
        Save(file.document, picture.bitmap, mode); // to be sure where nobody knows, else for nothing
        return true;
    }

    void Step() {
        auto & picture = bitmaps[static_cast<std::size_t>(Choose(bitmapCount))];
        int const documentIndex = Choose(documentCount);
        auto & file = documents[static_cast<std::size_t>(documentIndex)];
        auto const tile = static_cast<std::size_t>(Choose(tileCount));
        switch (Choose(10)) {
        case 0:
        case 1:
        case 2: {
            int const content = Choose(contentCount);
            MutableTileGuard const guard(GetTile(picture.bitmap, 0, tile));
            std::memcpy(guard.GetBuffer(), contents[static_cast<std::size_t>(content)].data(), Tile::ByteCount);
            picture.model[tile] = content;
            break;
        }
        case 3:
            picture = bitmaps[static_cast<std::size_t>(Choose(bitmapCount))];
            picture.bitmap = *Kernel::Counted<DynamicBitmap>(picture.bitmap.Clone());
            break;
        case 4:
        case 5:
            if (TryToSave(file, picture))
                file.model = picture.model;
            break;
        case 6:
        case 7:
            if (file.model.empty())
                break;
            picture = {Load(file.document), file.model};
            break;
        case 8:
            EvictEverything();
            break;
        case 9:
            if (!file.model.empty())
                file.document = Open(GetName(documentIndex).c_str());
            break;
        }
    }
    void Check(Picture const & picture, std::size_t tile, int step) {
        auto & bitmap = const_cast<DynamicBitmap &>(picture.bitmap);
        EXPECT_TRUE(BytesOf(GetTile(bitmap, 0, tile)) == contents[static_cast<std::size_t>(picture.model[tile])])
            << "tile " << tile << " after step " << step;
    }

    std::mt19937 random;
    std::vector<Bytes> contents;
    std::vector<Picture> bitmaps;
    std::vector<File> documents;
    int failures = 0;
};
}

TEST_F(RandomSharing, EveryTileHoldsWhatWasWrittenToItLast) {
    for (int step = 0; step < 2000 && !HasFailure(); ++step) {
        Step();
        Check(bitmaps[static_cast<std::size_t>(Choose(bitmapCount))], static_cast<std::size_t>(Choose(tileCount)),
              step);
    }
    EXPECT_GT(failures, 50);
    for (auto const & picture : bitmaps)
        for (std::size_t tile = 0; tile < tileCount; ++tile)
            Check(picture, tile, 2000);
    for (int i = 0; i < documentCount; ++i) {
        auto const & file = documents[static_cast<std::size_t>(i)];
        Picture const stored{Load(Open(GetName(i).c_str())), file.model};
        for (std::size_t tile = 0; tile < tileCount; ++tile)
            Check(stored, tile, 2000);
    }
}
}
