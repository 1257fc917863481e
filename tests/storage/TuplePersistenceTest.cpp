// Bitmaps of each of the 73 tuples in one document: by value, as the file that they are, edited, and still pending.
#include "storage/Bitmap.h"
#include "storage/DocumentEnvironment.h"

#include <memory>

namespace Raster {
namespace {
using Core = Kernel::Counted<BitmapCore>;

struct TupleCase {
    char const * name;
    Core (*create)(int width, int height);
};

template<class Kind>
Core CreateOf(int width, int height) {
    return Core(new Kind(width, height, MipmapModeManual, HardwareCachePolicy::Default));
}

#define RASTER_TUPLE_CASE(...) {#__VA_ARGS__, &CreateOf<Bitmap<__VA_ARGS__>>},
constexpr TupleCase tuples[] = {RASTER_FOR_EACH_TUPLE(RASTER_TUPLE_CASE)};
#undef RASTER_TUPLE_CASE
static_assert(std::size(tuples) == 73);

class TuplePersistenceTest : public DocumentTest {
protected:
    TuplePersistenceTest() : loaderBefore(SetBitmapLoader(&FillFromFile)) {
        Allow(RasterSerialisationStrategy::AllowByReference | RasterSerialisationStrategy::SaveMipmaps);
    }
    ~TuplePersistenceTest() override { SetBitmapLoader(loaderBefore); }

    // A decoder for every tuple: the file is the seed of the picture.
    static bool FillFromFile(BitmapCore & bitmap, Kernel::DelayLoadHolder & backing, bool *) {
        Kernel::DelayLoadHolder::TempLoadItem const item(&backing);
        auto const * const file = item.GetItemAs<CompressedRasterData>();
        if (!file || file->GetSize() != 1)
            return false;
        FillWith(bitmap, file->GetData()[0]);
        return true;
    }

    struct Pictures {
        Core plain, backed, edited, pending;
    };
    static Pictures Make(TupleCase const & tuple) {
        Pictures pictures{tuple.create(300, 260), tuple.create(300, 260), tuple.create(300, 260),
                          tuple.create(300, 260)};
        FillWith(*pictures.plain, 1);
        pictures.backed->SetPendingBacking(MakeFileHolder({2}));
        pictures.edited->SetPendingBacking(MakeFileHolder({3}));
        pictures.pending->SetPendingBacking(MakeFileHolder({4}));
        pictures.backed->ForceDelayLoad(nullptr);
        pictures.edited->ForceDelayLoad(nullptr);
        FillTile(pictures.edited->GetPlane(0).GetTile(1), 77);
        return pictures;
    }
    static void Store(Kernel::ArchiveSession & session, std::string const & name, Pictures const & pictures) {
        StoreInline(session, name + " plain", *pictures.plain);
        StoreInline(session, name + " backed", *pictures.backed);
        StoreInline(session, name + " edited", *pictures.edited);
        StoreInline(session, name + " pending", *pictures.pending);
    }
    static Core Load(TupleCase const & tuple, Document const & document, char const * kind) {
        auto const loaded = tuple.create(300, 260);
        auto const parsed = Parse(document, (std::string(tuple.name) + kind).c_str());
        EXPECT_TRUE(loaded->LoadInline(*parsed, *document, 1));
        return loaded;
    }
    // The loaded ones, with their pixels.
    static void ExpectSame(TupleCase const & tuple, Document const & document, Pictures const & pictures) {
        auto const plain = Load(tuple, document, " plain");
        EXPECT_FALSE(plain->IsPendingDelayLoad());
        EXPECT_EQ(plain->GetMipmapMode(), MipmapModeManual);
        EXPECT_EQ(AllocationOf(*plain), AllocationOf(*pictures.plain));
        EXPECT_TRUE(BytesOf(*plain) == BytesOf(*pictures.plain));
        for (auto const & [level, entry] : pictures.plain->GetMipmapTable().GetLevels()) {
            auto const stored = plain->GetMipmapTable().GetValid(level);
            ASSERT_TRUE(stored) << "level " << level;
            EXPECT_TRUE(BytesOf(*stored) == BytesOf(*entry.bitmap)) << "level " << level;
        }
        auto const edited = Load(tuple, document, " edited");
        EXPECT_FALSE(edited->IsPendingDelayLoad());
        EXPECT_TRUE(BytesOf(*edited) == BytesOf(*pictures.edited));

        auto const backed = Load(tuple, document, " backed");
        EXPECT_TRUE(backed->IsPendingDelayLoad());
        backed->ForceDelayLoad(nullptr);
        EXPECT_TRUE(BytesOf(*backed) == BytesOf(*pictures.backed));

        auto const pending = Load(tuple, document, " pending");
        EXPECT_TRUE(pending->IsPendingDelayLoad());
        EXPECT_TRUE(pictures.pending->IsPendingDelayLoad()) << "stored without being loaded";
        pending->ForceDelayLoad(nullptr);
        auto const expected = tuple.create(300, 260);
        FillWith(*expected, 4);
        EXPECT_TRUE(BytesOf(*pending) == BytesOf(*expected));
    }

    void SaveAndCompareAll(bool isOnDisk) {
        auto const document = Create();
        std::vector<Pictures> all;
        for (auto const & tuple : tuples)
            all.push_back(Make(tuple));
        auto const save = [&](Document const & target) {
            return SaveWith(target, [&](auto & session) {
                for (std::size_t i = 0; i < all.size(); ++i)
                    Store(session, tuples[i].name, all[i]);
            });
        };
        save(document);
        EXPECT_EQ(save(document), 0u) << "nothing has changed";
        EXPECT_EQ(MemoryManager::Instance().GetBackstoreUsage() != 0, isOnDisk);
        auto const opened = Open();
        for (std::size_t i = 0; i < all.size(); ++i) {
            SCOPED_TRACE(tuples[i].name);
            ExpectSame(tuples[i], opened, all[i]);
        }
    }

private:
    BitmapLoader const loaderBefore;
};
}

TEST_F(TuplePersistenceTest, EachComesBackAsItWasInOneDocument) { SaveAndCompareAll(/*isOnDisk=*/false); }

TEST_F(TuplePersistenceTest, EachComesBackWhenMemoryHoldsSixteenTiles) {
    MemoryManager::Instance().SetDRAMLimit(1);
    SaveAndCompareAll(/*isOnDisk=*/true);
}
}
