// Painting, evicting and saving at once: every tile of a document is a state that the tile had, and none is lost.
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/Dispatch.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "pixel/transfer/Fill.h"
#include "pixel/transfer/Layer.h"
#include "storage/BackstoreFile.h"
#include "storage/BackstoreReadError.h"
#include "storage/DocumentEnvironment.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <optional>
#include <thread>

namespace Raster {
namespace {
using testing::IsEmpty;

#ifdef RASTER_SANITIZED
constexpr int saves = 15;
#else
constexpr int saves = 60;
#endif

class DocumentEditingTest : public DocumentTest {
protected:
    static constexpr std::size_t tileCount = 8;

    /// What each tile was last asked to become, and what it has become: one number in all of its bytes.
    struct Progress {
        std::array<std::atomic<unsigned>, tileCount> begun{}, done{};
    };
    static void Stamp(Tile & tile, unsigned value) {
        MutableTileGuard const guard(tile);
        std::fill_n(guard.GetBuffer(), Tile::ByteCount / sizeof(unsigned), value);
    }
    static DynamicBitmap MakeStamped() {
        auto bitmap = MakeBitmap(256 * tileCount, 256, A8, MipmapModeNone);
        for (std::size_t i = 0; i < tileCount; ++i)
            Stamp(GetTile(bitmap, 0, i), 0);
        return bitmap;
    }
    static void KeepStamping(DynamicBitmap & bitmap, Progress & progress, std::atomic<bool> const & isOver) {
        std::mt19937 random(1);
        for (unsigned value = 1; !isOver; ++value) {
            auto const i = random() % tileCount;
            progress.begun[i] = value;
            Stamp(GetTile(bitmap, 0, i), value);
            progress.done[i] = value;
        }
    }
    static std::array<unsigned, tileCount> ReadStamps(DynamicBitmap & bitmap) {
        std::array<unsigned, tileCount> values{};
        for (std::size_t i = 0; i < tileCount; ++i) {
            ConstTileGuard const guard(GetTile(bitmap, 0, i));
            auto const * const words = guard.GetBuffer();
            values[i] = words[0];
            EXPECT_TRUE(std::all_of(words, words + Tile::ByteCount / sizeof(unsigned),
                                    [&](unsigned word) { return word == words[0]; }))
                << "tile " << i << " is half of one stamp and half of another";
        }
        return values;
    }

    void SaveWhileStamping() {
        auto bitmap = MakeStamped();
        auto document = Create();
        Save(document, bitmap);
        Progress progress;
        std::atomic<bool> isOver{false};
        std::thread painter([&] { KeepStamping(bitmap, progress, isOver); });
        for (int save = 0; save < saves; ++save) {
            std::array<unsigned, tileCount> least, most;
            std::copy(progress.done.begin(), progress.done.end(), least.begin());
            Save(document, bitmap, save % 10 == 9 ? Mode::Compact : Mode::Update);
            std::copy(progress.begun.begin(), progress.begun.end(), most.begin());
            auto saved = Load(Open());
            auto const stamps = ReadStamps(saved);
            for (std::size_t i = 0; i < tileCount; ++i) {
                EXPECT_GE(stamps[i], least[i]) << "tile " << i << " of save " << save;
                EXPECT_LE(stamps[i], most[i]) << "tile " << i << " of save " << save;
            }
        }
        isOver = true;
        painter.join();
        Save(document, bitmap);
        EXPECT_EQ(Save(document, bitmap), 0u);
        EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap)) << "nothing that was painted is taken for saved";
        EXPECT_THAT(Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems, IsEmpty());
    }

    /// A store that does something before it takes its first item: what others do while a save is under way.
    class MeddlingStore final : public Kernel::FileStoreOut {
    public:
        MeddlingStore(Kernel::FileStoreOut & inner, std::function<void()> what)
            : store(inner), meddle(std::move(what)) {}
        Kernel::ItemID StoreItem(Kernel::DelayLoadHolder & holder, Kernel::FileStoreOutPathGenerator const & name,
                                 Kernel::FileStoreCompressionHint const * hint) override {
            if (auto const what = std::exchange(meddle, nullptr))
                what();
            return store.StoreItem(holder, name, hint);
        }
        Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const & object) override {
            return store.StoreSharedObject(object);
        }

    private:
        Kernel::FileStoreOut & store;
        std::function<void()> meddle;
    };
    /// Whether the first level is what would be built of the pixels.
    static bool HasFittingLevel(DynamicBitmap loaded) {
        if (!loaded.GetMipmap(1))
            return false;
        auto const stored = BytesOf(*loaded.GetMipmap(1));
        loaded.InvalidateMipmaps();
        loaded.UpdateMipmaps(0, nullptr);
        return stored == BytesOf(*loaded.GetMipmap(1));
    }
    void SaveMeddling(Document const & document, DynamicBitmap const & bitmap, unsigned flags,
                      std::function<void()> meddle) const {
        SaveWith(document, [&](auto & session) {
            auto const store = Kernel::MakeCounted<MeddlingStore>(session, std::move(meddle));
            store->AddStrategy(Kernel::MakeCounted<RasterSerialisationStrategy>(std::vector<int>(), flags));
            auto const out = Kernel::MakeCounted<Kernel::MemoryOutStream>();
            Kernel::OutSerialiserFile serialiser(*out, *store, "DyBm", 1);
            bitmap.Save(serialiser);
            serialiser.Close();
            session.StoreStream("Bitmap.dat", out->GetData(), out->GetSize());
        });
    }
};
}

TEST_F(DocumentEditingTest, EverySavedTileIsAStateThatItHad) { SaveWhileStamping(); }

TEST_F(DocumentEditingTest, SoItIsWhileTilesGoToDiskAndComeBack) {
    MemoryManager::Instance().SetDRAMLimit(0);
    SaveWhileStamping();
}

TEST_F(DocumentEditingTest, BitmapThatIsPaintedOnWhileItIsSavedKeepsWhatWasPainted) {
    auto bitmap = MakeStamped();
    auto const before = BytesOf(bitmap);
    auto const document = Create();
    SaveMeddling(document, bitmap, 0, [&] {
        for (std::size_t i = 0; i < tileCount; ++i)
            Stamp(GetTile(bitmap, 0, i), 7);
    });
    EXPECT_TRUE(BytesOf(Load(Open())) == before) << "the picture at the moment when the save began";
    EXPECT_NE(Save(document, bitmap), 0u);
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap));
}

TEST_F(DocumentEditingTest, BitmapThatIsLoadedWhileItsDocumentIsSavedIsWhole) {
    for (auto const mode : {Mode::Update, Mode::Compact}) {
        auto bitmap = MakeStamped();
        for (unsigned i = 0; i < tileCount; ++i)
            Stamp(GetTile(bitmap, 0, i), 100 + i);
        auto const before = BytesOf(bitmap);
        auto const document = Create();
        Save(document, bitmap);
        auto const parsed = Parse(document);
        for (std::size_t i = 0; i < tileCount; ++i)
            Stamp(GetTile(bitmap, 0, i), 7);
        Save(document, bitmap, mode);
        DynamicBitmap loaded;
        ASSERT_TRUE(loaded.Load(*parsed, *document, 1));
        EXPECT_TRUE(BytesOf(loaded) == before) << "the picture of the stream that was opened";
        EXPECT_TRUE(BytesOf(Load(document)) == BytesOf(bitmap));
        Save(document, loaded);
        EXPECT_TRUE(BytesOf(Load(Open())) == before);
    }
}

TEST_F(DocumentEditingTest, TwoDocumentsAreSavedFromOneBitmapAtOnce) {
    auto bitmap = MakeStamped();
    Progress progress;
    std::atomic<bool> isOver{false};
    std::thread painter([&] { KeepStamping(bitmap, progress, isOver); });
    auto const otherDisk = Kernel::MakeCounted<MemoryDisk>();
    auto const other = Archive::Create(path, "Test", otherDisk), document = Create();
    std::thread saver([&] {
        for (int save = 0; save < saves; ++save)
            Save(other, bitmap);
    });
    for (int save = 0; save < saves; ++save)
        Save(document, bitmap);
    saver.join();
    isOver = true;
    painter.join();
    for (auto const & saved : {document, other}) {
        Save(saved, bitmap);
        EXPECT_TRUE(BytesOf(Load(saved)) == BytesOf(bitmap));
        EXPECT_EQ(Save(saved, bitmap), 0u);
    }
    EXPECT_THAT(Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems, IsEmpty());
    EXPECT_THAT(Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, otherDisk).problems, IsEmpty());
}

TEST_F(DocumentEditingTest, BackstoreThatFailsFailsTheSaveAndLosesNothing) {
    auto bitmap = MakeStamped();
    auto const document = Create();
    Save(document, bitmap);
    Stamp(GetTile(bitmap, 0, 3), 9);
    auto const expected = BytesOf(bitmap);
    auto const before = disk->GetFiles();
    EvictEverything();
    ASSERT_TRUE(GetTile(bitmap, 0, 3).IsDisposed());
    BackstoreFile::Instance().SetFileFunctions(
        [](int, void *, std::size_t, off_t) -> ssize_t {
            errno = EIO;
            return -1;
        },
        nullptr);
    EXPECT_THROW(Save(document, bitmap), BackstoreReadError) << "rather than storing garbage";
    BackstoreFile::Instance().SetFileFunctions(nullptr, nullptr);
    EXPECT_EQ(disk->GetFiles(), before);
    EXPECT_TRUE(BytesOf(bitmap) == expected);
    EXPECT_EQ(Save(document, bitmap), 2u);
    EXPECT_TRUE(BytesOf(Load(Open())) == expected);
}

TEST_F(DocumentEditingTest, LevelsThatAreSavedFitThePlanesThatAreSaved) {
    auto bitmap = MakeBitmap(600, 600, A8);
    FillWith(bitmap, 3);
    auto const document = Create();
    SaveMeddling(document, bitmap, RasterSerialisationStrategy::SaveMipmaps, [&] {
        FillAll(bitmap, 9);
        bitmap.GetCore()->RecordWrite(bitmap.GetCore()->GetBounds(), nullptr);
        bitmap.UpdateMipmaps(0, nullptr);
    });
    EXPECT_TRUE(HasProperty(document, "MT11"));
    EXPECT_TRUE(HasFittingLevel(Load(Open())));
}

// A write is recorded when it is done: until then nobody but the writer knows that the levels are older.
TEST_F(DocumentEditingTest, LevelsThatAreSavedAmidAWriteFitThePlanes) {
    auto bitmap = MakeBitmap(600, 600, A8);
    FillWith(bitmap, 3);
    bitmap.UpdateMipmaps(0, nullptr);
    auto & core = *bitmap.GetCore();
    auto const document = Create();
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    WriteRecorded(core, core.GetBounds(), nullptr, [&] {
        FillAll(bitmap, 9);
        Save(document, bitmap);
    });
    EXPECT_TRUE(HasProperty(document, "MT11"));
    EXPECT_TRUE(HasFittingLevel(Load(Open())));
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap));
}

TEST_F(DocumentEditingTest, SaveBuildsTheLevelsForTheBitmapToo) {
    auto bitmap = MakeBitmap(600, 600, A8);
    FillWith(bitmap, 3);
    auto const document = Create();
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    Save(document, bitmap);
    EXPECT_TRUE(bitmap.GetCore()->GetMipmapTable().GetValid(1));
    EXPECT_TRUE(HasFittingLevel(bitmap));
    EXPECT_EQ(Save(document, bitmap), 0u);
}

// Somebody else builds the levels in the middle of it, which the planes that are saved don't show.
TEST_F(DocumentEditingTest, LevelsThatAreSavedWhileAWriteBeginsFitThePlanes) {
    auto bitmap = MakePending(7);
    auto const document = Create();
    std::optional<BitmapCore::WriteInProgress> write;
    SaveMeddling(document, bitmap,
                 RasterSerialisationStrategy::AllowByReference | RasterSerialisationStrategy::SaveMipmaps, [&] {
                     bitmap.ForceDelayLoad(nullptr);
                     write.emplace(*bitmap.GetCore());
                     FillTile(GetTile(bitmap, 0, 0), 9);
                     bitmap.UpdateMipmaps(0, nullptr);
                 });
    EXPECT_TRUE(HasProperty(document, "Bckg"));
    EXPECT_FALSE(HasProperty(document, "MT11"));
}

TEST_F(DocumentEditingTest, LevelsThatAreSavedWhileManyPaintFitThePlanes) {
    auto bitmap = MakeBitmap(600, 600, RGBA8);
    FillAll(bitmap, 1);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> painters;
    for (int painter = 0; painter < 2; ++painter)
        painters.emplace_back([&, painter] {
            PixelOf<RGBA8Tuple> pixel{};
            for (int i = 0; !isOver; ++i) {
                std::fill(std::begin(pixel.channels), std::end(pixel.channels),
                          static_cast<std::uint8_t>(40 * i + painter));
                int const left = painter == 0 ? 0 : 256; // tiles of its own
                Fill(bitmap, {left, 0, left + 256, 600}, DynamicPixel(pixel), 1.0f);
            }
        });
    for (int i = 0; i < saves; ++i) {
        auto const document = Create();
        Save(document, bitmap);
        EXPECT_TRUE(HasProperty(document, "MT11")) << "save " << i;
        EXPECT_TRUE(HasFittingLevel(Load(Open()))) << "save " << i;
    }
    isOver = true;
    for (auto & painter : painters)
        painter.join();
}

TEST_F(DocumentEditingTest, PictureThatIsDecodedAndPaintedWhileItIsSavedIsStillItsFile) {
    auto bitmap = MakePending(7);
    auto const document = Create();
    SaveMeddling(document, bitmap, RasterSerialisationStrategy::AllowByReference, [&] {
        bitmap.ForceDelayLoad(nullptr);
        FillTile(GetTile(bitmap, 0, 0), 9);
    });
    EXPECT_TRUE(HasProperty(document, "Bckg"));
    EXPECT_FALSE(HasProperty(document, "Sta1"));
    auto const loaded = Load(Open()), decoded = MakePending(7);
    loaded.ForceDelayLoad(nullptr);
    decoded.ForceDelayLoad(nullptr);
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(decoded));
    Save(document, bitmap);
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap));
}

TEST_F(DocumentEditingTest, WorksUnderASmallMemoryLimit) {
    MemoryManager::Instance().SetDRAMLimit(1);
    auto bitmap = MakeBitmap(1500, 1500, RGBA8, MipmapModeNone);
    FillWith(bitmap, 3);
    EXPECT_GT(MemoryManager::Instance().GetBackstoreUsage(), 0u);
    auto const document = Create();
    Save(document, bitmap);
    auto loaded = Load(Open());
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(bitmap));
    ForEachTile(*loaded.GetCore(), [](Tile & tile, int, std::size_t i) {
        if (i % 7 == 0)
            FillTile(tile, static_cast<unsigned>(i));
    });
    Save(Create("second.doc"), loaded);
    EXPECT_TRUE(BytesOf(Load(Open("second.doc"))) == BytesOf(loaded));
}

// Apart from the random ids the items of a document are the same bytes, at the same places.
TEST_F(DocumentEditingTest, TilesAreTheSameBytesForAnyNumberOfThreads) {
    auto bitmap = MakeBitmap(1500, 1500, RGBA16);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    struct Item {
        std::string name;
        std::uint64_t number, offset, rawSize;
        Bytes stored;
        bool operator==(Item const &) const = default;
    };
    std::vector<std::vector<Item>> documents;
    for (unsigned const threads : {1u, 2u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        auto const name = std::to_string(threads);
        auto const document = Create(name.c_str());
        Save(document, bitmap);
        auto const file = disk->GetFiles().at(name);
        documents.emplace_back();
        for (auto const & item : document->GetInfo().items) {
            if (item.type != Kernel::IDTag("DatI")) // a stream holds random ids, which compress now better, now worse
                continue;
            auto const * const stored =
                file.data() + item.offset + Kernel::ArchiveLayout::itemHeaderBytes + item.name.size();
            documents.back().push_back(
                {item.name, item.id.number, item.offset, item.rawSize, Bytes(stored, stored + item.storedSize)});
        }
    }
    Kernel::Dispatch::SetThreadCount(0);
    EXPECT_GT(documents[0].size(), 100u);
    EXPECT_TRUE(documents[0] == documents[1]);
    EXPECT_TRUE(documents[0] == documents[2]);
}
}
