#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/Dispatch.h"
#include "kernel/MemoryDisk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>

using namespace Kernel;
using namespace AlbumForTests;
using testing::IsEmpty;
using testing::SizeIs;

namespace {
constexpr char const * path = "album.doc";

// Every case where that takes seconds; a share of them where code is checked while it runs.
#if defined(RASTER_SANITIZED)
constexpr std::size_t bitStep = 997, caseCount = 200;
#elif !defined(NDEBUG)
constexpr std::size_t bitStep = 41, caseCount = 1000;
#else
constexpr std::size_t bitStep = 1, caseCount = 10000;
#endif

Album MakeSmallAlbum(std::size_t count, unsigned seed) {
    Album album;
    for (std::size_t i = 0; i < count; ++i)
        album.blobs.push_back(
            DelayLoadHolder::Create(Blob::GetType(), MakeBlob(MakeBytes(seed + static_cast<unsigned>(i), 300))));
    return album;
}

std::vector<std::vector<std::uint8_t>> ContentOf(Counted<Archive> const & archive) {
    std::vector<std::vector<std::uint8_t>> content;
    for (auto const & holder : Load(archive).blobs)
        content.push_back(BytesOf(holder));
    return content;
}
std::vector<std::vector<std::uint8_t>> ContentOf(MemoryDisk::Files const & files) {
    return ContentOf(Archive::Open(path, "Test", MakeCounted<MemoryDisk>(files)));
}

/// A document with a history.
/// @param isLabelled  with a shared object.
MemoryDisk::Files MakeDocument(std::size_t count = 4, unsigned saves = 3, bool isLabelled = false) {
    auto const disk = MakeCounted<MemoryDisk>();
    auto const archive = Archive::Create(path, "Test", disk);
    auto album = MakeSmallAlbum(count, 1);
    if (isLabelled)
        album.label = MakeAlbum(0).label;
    Save(archive, album);
    for (unsigned i = 1; i < saves; ++i) {
        Change(album.blobs[i], MakeBytes(20 + i, 300));
        Save(archive, album);
    }
    return disk->GetFiles();
}

bool IsFoundDamaged(MemoryDisk::Files const & files) {
    try {
        return !VerifyArchive(path, nullptr, nullptr, nullptr, MakeCounted<MemoryDisk>(files)).problems.empty();
    } catch (ArchiveError const &) {
        return true;
    }
}

// Reads whatever can be read; must neither crash nor hang.
void ReadAll(MemoryDisk::Files const & files) {
    try {
        ContentOf(files);
    } catch (std::runtime_error const &) {
    }
}

using Content = std::vector<std::vector<std::uint8_t>>;

// None where there is no document.
std::optional<Content> ContentOfAny(MemoryDisk::Files const & files) {
    return files.contains(path) ? std::optional(ContentOf(files)) : std::nullopt;
}

/// Whether an album has what another one had, but for one thing, if one was lost.
bool IsSalvaged(Album const & salvaged, Album const & whole, std::uint64_t lost) {
    if (salvaged.blobs.size() != whole.blobs.size()) // the stream itself is lost
        return salvaged.blobs.empty() && !salvaged.label && lost == 1;
    std::uint64_t missing = salvaged.label == whole.label ? 0 : 1;
    if (missing != 0 && salvaged.label)
        return false;
    for (std::size_t i = 0; i < whole.blobs.size(); ++i) {
        auto const bytes = BytesOf(salvaged.blobs[i]);
        if (bytes.empty())
            ++missing;
        else if (bytes != BytesOf(whole.blobs[i]))
            return false;
    }
    return missing <= lost;
}

struct Scenario {
    char const * name;
    ArchiveSaveMode mode;
    bool isNew; // where there is no document yet
};

/// A save of some changes to a document, or of a new one.
class ArchiveFault : public testing::TestWithParam<Scenario> {
protected:
    /// The document and the changes, on a disk like the one before.
    struct Editing {
        Counted<MemoryDisk> disk;
        Counted<Archive> archive;
        Album album;
    };
    Editing Edit() const {
        Editing editing;
        editing.disk = MakeCounted<MemoryDisk>(before);
        if (GetParam().isNew) {
            editing.archive = Archive::Create(path, "Test", editing.disk);
            editing.album = MakeSmallAlbum(3, 1);
        } else {
            editing.archive = Archive::Open(path, "Test", editing.disk);
            editing.album = Load(editing.archive);
        }
        Change(editing.album.blobs[2], MakeBytes(30, 300));
        editing.album.blobs.push_back(DelayLoadHolder::Create(Blob::GetType(), MakeBlob(MakeBytes(31, 5000))));
        return editing;
    }
    static void SaveEdited(Editing const & editing) { Save(editing.archive, editing.album, GetParam().mode); }
    Content GetNewContent() const {
        auto const editing = Edit();
        SaveEdited(editing);
        return ContentOf(editing.disk->GetFiles());
    }

    MemoryDisk::Files const before = GetParam().isNew ? MemoryDisk::Files() : MakeDocument();
    std::optional<Content> const oldContent = ContentOfAny(before);
};

constexpr CrashedDisk::Rest everyRest[] = {CrashedDisk::Rest::Kept, CrashedDisk::Rest::Lost, CrashedDisk::Rest::Torn,
                                           CrashedDisk::Rest::Reordered};
}

// A crash at any instant of a save leaves the old document or the new one, whatever became of what was not synced; once
// the save is confirmed, it leaves the new one.
TEST_P(ArchiveFault, CrashLeavesTheOldDocumentOrTheNewOne) {
    auto const editing = Edit();
    SaveEdited(editing);
    auto const & steps = editing.disk->steps;
    auto const newContent = ContentOf(editing.disk->GetFiles());
    ASSERT_NE(oldContent, newContent);

    std::mt19937 random(7);
    int oldStates = 0, newStates = 0;
    for (std::size_t count = 0; count <= steps.size(); ++count)
        for (auto const rest : everyRest)
            for (int attempt = 0; attempt < 50; ++attempt) {
                auto const files = CrashedDisk(before, steps, count, rest, random).files;
                auto const content = ContentOfAny(files);
                bool const mayBeOld = count < steps.size();
                ASSERT_TRUE((mayBeOld && content == oldContent) || content == newContent)
                    << "after " << count << " steps of " << steps.size() << ", case " << static_cast<int>(rest);
                ++(content == oldContent ? oldStates : newStates);
                // And the next save works.
                if (attempt == 0) {
                    auto const again = MakeCounted<MemoryDisk>(files);
                    auto const opened =
                        content ? Archive::Open(path, "Test", again) : Archive::Create(path, "Test", again);
                    Save(opened, MakeSmallAlbum(2, 90));
                    ASSERT_THAT(ContentOf(again->GetFiles()), SizeIs(2));
                }
                if (rest == CrashedDisk::Rest::Kept || rest == CrashedDisk::Rest::Lost)
                    break;
            }
    EXPECT_GT(oldStates, 0);
    EXPECT_GT(newStates, 0);
}

// Whichever step the disk refuses, and whether it goes on refusing or not, the document is the old one and the error is
// told. A power cut after that changes nothing.
TEST_P(ArchiveFault, FailingDiskLeavesTheOldDocument) {
    auto const newContent = GetNewContent();
    std::mt19937 random(9);
    for (std::uint64_t const failures : {1, 1000})
        for (std::uint64_t failing = 1;; ++failing) {
            auto const editing = Edit();
            auto const & disk = editing.disk;
            disk->FailAt(failing, failures);
            bool hasFailed = false, isUnknown = false;
            try {
                SaveEdited(editing);
            } catch (ArchiveError const & error) {
                hasFailed = true;
                isUnknown = error.GetKind() == ArchiveError::Kind::Unknown;
                EXPECT_TRUE(isUnknown || error.GetKind() == ArchiveError::Kind::WriteFailed) << error.what();
            }
            if (!hasFailed) {
                EXPECT_GT(failing, 3u);
                EXPECT_LT(disk->GetOperationCount(), failing);
                break;
            }
            auto const isKnown = [&](std::optional<Content> const & content) {
                return content == oldContent || (isUnknown && content == newContent);
            };
            EXPECT_TRUE(isKnown(ContentOfAny(disk->GetFiles()))) << "step " << failing;
            for (auto const rest : everyRest)
                EXPECT_TRUE(
                    isKnown(ContentOfAny(CrashedDisk(before, disk->steps, disk->steps.size(), rest, random).files)))
                    << "step " << failing << ", case " << static_cast<int>(rest);
            bool const isThere = oldContent || isUnknown;
            EXPECT_THAT(disk->GetFiles(), SizeIs(isThere ? 1 : 0)) << "nothing is left behind after step " << failing;
            // Everything is still dirty: saving again, on a disk that works, loses nothing.
            disk->FailAt(0);
            SaveEdited(editing);
            EXPECT_EQ(ContentOf(disk->GetFiles()), newContent);
            EXPECT_FALSE(IsFoundDamaged(disk->GetFiles()));
        }
}

INSTANTIATE_TEST_SUITE_P(, ArchiveFault,
                         testing::Values(Scenario{"Update", ArchiveSaveMode::Update, false},
                                         Scenario{"Compact", ArchiveSaveMode::Compact, false},
                                         Scenario{"New", ArchiveSaveMode::Update, true}),
                         [](auto const & scenario) { return scenario.param.name; });

TEST(ArchiveCheck, FindsNothingInAWholeDocument) {
    auto const files = MakeDocument();
    auto const report = VerifyArchive(path, nullptr, nullptr, nullptr, MakeCounted<MemoryDisk>(files));
    EXPECT_THAT(report.problems, IsEmpty());
    EXPECT_EQ(report.bytesChecked, files.at(path).size());
    EXPECT_EQ(report.unfinishedBytes, 0u);
    EXPECT_GT(report.itemsChecked, 5u);
}

TEST(ArchiveCheck, TellsAnUnfinishedSaveFromDamage) {
    auto files = MakeDocument();
    auto & bytes = files.at(path);
    auto const whole = bytes.size();
    bytes.resize(whole + 3000, 'x');
    auto const report = VerifyArchive(path, nullptr, nullptr, nullptr, MakeCounted<MemoryDisk>(files));
    EXPECT_THAT(report.problems, IsEmpty());
    EXPECT_EQ(report.unfinishedBytes, 3000u);
    bytes.resize(whole - 64); // the footer never came
    EXPECT_FALSE(IsFoundDamaged(files));
}

// Every bit of a document is turned: that is found, reading does no harm, and all items but the one that was hit can be
// saved. A bit of the zeros between the parts is only looked for.
TEST(ArchiveCheck, FindsEveryBitThatFlipsAndSavesTheRest) {
    for (unsigned const saves : {1u, 3u}) {
        auto const files = MakeDocument(4, saves, /*isLabelled=*/true);
        auto const & whole = files.at(path);
        auto const archive = Archive::Open(path, "Test", MakeCounted<MemoryDisk>(files));
        auto const itemCount = archive->GetInfo().items.size();
        ASSERT_EQ(itemCount, 6u);
        auto const album = Load(archive);
        ASSERT_TRUE(album.label);
        auto const isPadding = [&](std::size_t at) {
            auto const begin = whole.begin() + static_cast<std::ptrdiff_t>(at < 8 ? 0 : at - 8);
            return std::all_of(begin, std::min(begin + 17, whole.end()), [](auto byte) { return byte == 0; });
        };
        std::size_t const step = saves == 1 ? bitStep : bitStep * 31, bitCount = whole.size() * 8;
        std::atomic<std::uint64_t> salvages{0}, saved{0};
        constexpr std::size_t parts = 64;
        Dispatch::ParallelFor(parts, [&](std::uint64_t part) {
            auto changed = files;
            auto & bytes = changed.at(path);
            std::size_t const first = bitCount * part / parts, last = bitCount * (part + 1) / parts;
            for (std::size_t bit = (first + step - 1) / step * step; bit < last; bit += step) {
                auto & byte = bytes[bit / 8];
                auto const flip = static_cast<std::uint8_t>(1u << bit % 8);
                byte ^= flip;
                ASSERT_TRUE(IsFoundDamaged(changed)) << "bit " << bit % 8 << " of byte " << bit / 8;
                if (!isPadding(bit / 8)) {
                    ReadAll(changed);
                    auto const disk = MakeCounted<MemoryDisk>(changed);
                    auto const salvage = SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk, "Test");
                    // Where a scan was needed, items that were dead are saved too.
                    ASSERT_GE(salvage.itemsSaved + 1, itemCount) << "bit " << bit % 8 << " of byte " << bit / 8;
                    ASSERT_LE(salvage.itemsLost, 1u);
                    if (saves == 1) { // else an earlier state of the stream may have been brought back
                        auto const salvaged = Load(Archive::Open("saved.doc", "Test", disk));
                        ASSERT_TRUE(IsSalvaged(salvaged, album, salvage.itemsLost))
                            << "bit " << bit % 8 << " of byte " << bit / 8;
                    }
                    ++salvages;
                    saved += std::min<std::uint64_t>(salvage.itemsSaved, itemCount);
                }
                byte ^= flip;
            }
        });
        EXPECT_FALSE(IsFoundDamaged(files));
        ASSERT_GT(salvages, 0u);
        auto const name = saves == 1 ? std::string("OneCommit") : std::string("ThreeCommits");
        RecordProperty(name + "Salvages", std::to_string(salvages));
        RecordProperty(name + "ItemsSavedPerMille", std::to_string(1000 * saved / (salvages * itemCount)));
    }
}

TEST(ArchiveCheck, SalvagesEveryItemThatStillChecks) {
    auto const whole = MakeDocument(20);
    std::mt19937 random(3);
    std::uint64_t saved = 0, lost = 0;
    for (std::size_t i = 0; i < caseCount; ++i) {
        auto files = whole;
        auto & bytes = files.at(path);
        auto const at = random() % bytes.size();
        switch (random() % 3) {
        case 0:
            bytes[at] = static_cast<std::uint8_t>(random());
            break;
        case 1: // a lost sector
            std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(at / 512 * 512),
                      bytes.begin() + static_cast<std::ptrdiff_t>(std::min(at / 512 * 512 + 512, bytes.size())),
                      std::uint8_t(0));
            break;
        case 2:
            bytes.resize(at);
            break;
        }
        ReadAll(files);
        auto const disk = MakeCounted<MemoryDisk>(files);
        try {
            auto const salvage = SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk);
            saved += salvage.itemsSaved;
            lost += salvage.itemsLost;
            // What was saved is whole, but for references to what was lost.
            auto const report = VerifyArchive("saved.doc", nullptr, nullptr, nullptr, disk);
            for (auto const & problem : report.problems)
                EXPECT_THAT(problem.what, testing::HasSubstr("missing"));
            EXPECT_EQ(report.itemsChecked, salvage.itemsSaved);
        } catch (ArchiveError const &) {
            EXPECT_LT(bytes.size(), 1000u) << "there was more to save";
        }
    }
    EXPECT_GT(saved, 0u);
    EXPECT_GT(lost, 0u);
    RecordProperty("ItemsSaved", std::to_string(saved));
    RecordProperty("ItemsLost", std::to_string(lost));
}

// What lies in the file from here on is changed: each list of contents has a byte of it flipped.
void DamageLists(std::vector<std::uint8_t> & bytes, std::size_t from = 0) {
    for (std::size_t i = from; i + 4 <= bytes.size(); i += 16)
        if (std::memcmp(bytes.data() + i, "Indx", 4) == 0)
            bytes[i + 40] ^= 1;
}

TEST(ArchiveCheck, SalvagedDocumentOpensWithItsStreams) {
    auto files = MakeDocument();
    DamageLists(files.at(path));
    auto const disk = MakeCounted<MemoryDisk>(files);
    EXPECT_THROW(Archive::Open(path, "Test", disk), ArchiveError);
    EXPECT_TRUE(SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk).hasScanned);
    auto const saved = Archive::Open("saved.doc", "Test", disk);
    EXPECT_EQ(ContentOf(saved), ContentOf(MakeDocument()));
}

// A state that opens is not all there is if the end of the file, or its newest list, says that there was a later one.
TEST(ArchiveCheck, SalvageTakesTheNewestStateThoughAnOlderOneOpens) {
    auto const oldest = MakeDocument(4, 1), whole = MakeDocument(4, 3);
    auto const newest = ContentOf(whole);
    auto const end = oldest.at(path).size();
    auto lostFooter = whole, lostLists = whole, cut = whole;
    std::fill(lostFooter.at(path).end() - 64, lostFooter.at(path).end(), std::uint8_t(0));
    DamageLists(lostLists.at(path), end);
    cut.at(path).resize(cut.at(path).size() - 64);
    for (auto const & files : {lostFooter, lostLists, cut}) {
        EXPECT_NE(ContentOf(files), newest) << "an older state opens";
        auto const disk = MakeCounted<MemoryDisk>(files);
        auto const salvage = SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk);
        EXPECT_TRUE(salvage.hasScanned);
        EXPECT_EQ(salvage.itemsLost, 0u);
        EXPECT_EQ(ContentOf(Archive::Open("saved.doc", "Test", disk)), newest);
    }
}

// The state of a stream that the last save kept may lie before one of a save that was given up for damaged.
TEST(ArchiveCheck, SalvageTakesTheStateOfAStreamThatIsListedWhereverItLies) {
    auto const kept = ContentOf(MakeDocument(4, 1));
    auto files = MakeDocument(4, 2);
    ASSERT_NE(ContentOf(files), kept);
    DamageLists(files.at(path), MakeDocument(4, 1).at(path).size());
    auto const disk = MakeCounted<MemoryDisk>(files);
    auto const archive = Archive::Open(path, "Test", disk);
    auto session = archive->CreateSession();
    session->SetKeepDamaged(true);
    ASSERT_TRUE(session->KeepStream("Album.dat"));
    session->StoreStream("Further", "bytes", 5);
    archive->CloseSession(std::move(session));
    ASSERT_EQ(ContentOf(disk->GetFiles()), kept);

    auto damaged = disk->GetFiles();
    auto const items = archive->GetInfo().items;
    ASSERT_EQ(items[0].name, "b/0");
    damaged.at(path)[items[0].offset + 20] ^= 1;
    auto const damagedDisk = MakeCounted<MemoryDisk>(damaged);
    SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, damagedDisk);
    auto expected = kept;
    expected[0].clear();
    EXPECT_EQ(ContentOf(Archive::Open("saved.doc", "Test", damagedDisk)), expected);
}

// The newest state of a stream is damaged: that of an earlier save is better than none.
TEST(ArchiveCheck, SalvageFallsBackToAnEarlierStateOfAStream) {
    auto files = MakeDocument(4, 3);
    auto const info = Archive::Open(path, "Test", MakeCounted<MemoryDisk>(files))->GetInfo();
    auto const stream =
        std::find_if(info.items.begin(), info.items.end(), [](auto const & item) { return item.name == "Album.dat"; });
    ASSERT_NE(stream, info.items.end());
    files.at(path)[stream->offset + 150] ^= 1;
    auto const disk = MakeCounted<MemoryDisk>(files);
    EXPECT_EQ(SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk).itemsLost, 1u);
    EXPECT_THAT(ContentOf(Archive::Open("saved.doc", "Test", disk)), SizeIs(4));
}

// The disk has put the beginning of one item into another one. What it claims there hides the item that follows, unless
// it is found to be no item.
TEST(ArchiveCheck, SalvageFindsWhatLiesBehindAHeaderThatWentAstray) {
    auto files = MakeDocument(4, 1);
    auto & bytes = files.at(path);
    auto const items = Archive::Open(path, "Test", MakeCounted<MemoryDisk>(files))->GetInfo().items;
    ASSERT_GE(items.size(), 4u);
    auto const &hit = items[1], &hidden = items[2], &copied = items[3];
    auto const at = hidden.offset - 160; // a header of some 100 bytes, and from there on 300 bytes that it claims
    ASSERT_GT(at, hit.offset + 16);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(copied.offset), 112,
                bytes.begin() + static_cast<std::ptrdiff_t>(at));
    DamageLists(bytes);
    bytes[hit.offset + 50] ^= 1; // so that only the header that is in it is found
    auto const disk = MakeCounted<MemoryDisk>(files);
    EXPECT_EQ(SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk).itemsSaved, items.size() - 1);
    auto const saved = Archive::Open("saved.doc", "Test", disk)->GetInfo().items;
    EXPECT_TRUE(std::any_of(saved.begin(), saved.end(), [&](auto const & item) { return item.id == hidden.id; }));
}

// Also where what it claims ends within the first bytes of the item.
TEST(ArchiveCheck, SalvageFindsWhatAStrayHeaderHidesTheBeginningOf) {
    auto const files = MakeDocument(4, 1);
    auto const items = Archive::Open(path, "Test", MakeCounted<MemoryDisk>(files))->GetInfo().items;
    ASSERT_GE(items.size(), 3u);
    auto const &hit = items[1], &hidden = items[2];
    auto const at = hidden.offset - 160;
    ASSERT_GT(at, hit.offset + 16);
    for (std::uint64_t const reach : {0, 1, 3, 4, 15, 16, 17}) {
        auto damaged = files;
        auto & bytes = damaged.at(path);
        ArchiveLayout::ItemHeader stray;
        stray.id = {hidden.id.commit, 99};
        stray.type = hidden.type;
        stray.storedSize = 160 - stray.GetEncodedSize() + reach;
        stray.rawSize = stray.storedSize;
        std::vector<std::uint8_t> header;
        stray.Encode(header);
        std::copy(header.begin(), header.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        DamageLists(bytes);
        bytes[hit.offset + 50] ^= 1;
        auto const disk = MakeCounted<MemoryDisk>(damaged);
        SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk);
        auto const saved = Archive::Open("saved.doc", "Test", disk)->GetInfo().items;
        EXPECT_TRUE(std::any_of(saved.begin(), saved.end(), [&](auto const & item) { return item.id == hidden.id; }))
            << reach << " bytes of it are hidden";
    }
}

// It is the only one left of its save, whose stream has been replaced: that the new stream refers to it tells that it
// is of this document.
TEST(ArchiveCheck, SalvageFindsTheLastItemOfASaveBehindAHeaderThatWentAstray) {
    auto const disk = MakeCounted<MemoryDisk>(MakeDocument(4, 1));
    auto const archive = Archive::Open(path, "Test", disk);
    auto album = Load(archive);
    Change(album.blobs[0], MakeBytes(30, 300));
    Save(archive, album);
    auto files = disk->GetFiles();
    auto & bytes = files.at(path);
    auto const items = archive->GetInfo().items;
    ASSERT_EQ(items.size(), 5u);
    auto const &hit = items[0], &hidden = items[1], &copied = items[2];
    ASSERT_EQ(hidden.id.commit, copied.id.commit);
    ASSERT_NE(hidden.id.commit, items[3].id.commit);
    auto const at = hidden.offset - 160;
    ASSERT_GT(at, hit.offset + 16);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(copied.offset), 112,
                bytes.begin() + static_cast<std::ptrdiff_t>(at));
    DamageLists(bytes);
    bytes[hit.offset + 50] ^= 1;
    bytes[copied.offset + 200] ^= 1;
    bytes[hit.offset - 200] ^= 1; // the first item, which is dead
    auto const damaged = MakeCounted<MemoryDisk>(files);
    SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, damaged);
    auto const saved = Archive::Open("saved.doc", "Test", damaged)->GetInfo().items;
    EXPECT_TRUE(std::any_of(saved.begin(), saved.end(), [&](auto const & item) { return item.id == hidden.id; }));
}

// A document keeps its kind, whatever it is, and also where the header that says it doesn't check.
TEST(ArchiveCheck, SalvagedDocumentIsOfTheKindThatItWas) {
    for (bool const isHeaderDamaged : {false, true}) {
        auto const disk = MakeCounted<MemoryDisk>(MakeDocument());
        auto files = disk->GetFiles();
        if (isHeaderDamaged)
            files.at(path)[20] ^= 1; // of the file id
        auto const damaged = MakeCounted<MemoryDisk>(files);
        SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, damaged);
        EXPECT_EQ(Archive::Open("saved.doc", IDTag(), damaged)->GetArchiveTag(), IDTag("Test"));
        EXPECT_EQ(ContentOf(Archive::Open("saved.doc", "Test", damaged)), ContentOf(MakeDocument()));
    }
}

// The tag itself is damaged, and whoever salvages knows better.
TEST(ArchiveCheck, SalvageTakesTheKindThatItIsToldWhereTheHeaderIsDamaged) {
    auto files = MakeDocument();
    files.at(path)[12] ^= 1;
    auto const disk = MakeCounted<MemoryDisk>(files);
    SalvageArchive(path, "told.doc", nullptr, nullptr, nullptr, disk, "Test");
    EXPECT_EQ(Archive::Open("told.doc", IDTag(), disk)->GetArchiveTag(), IDTag("Test"));
    SalvageArchive(path, "found.doc", nullptr, nullptr, nullptr, disk);
    EXPECT_EQ(Archive::Open("found.doc", IDTag(), disk)->GetArchiveTag(), IDTag("Tesu"));
    // A header that checks is right.
    auto const whole = MakeCounted<MemoryDisk>(MakeDocument());
    SalvageArchive(path, "whole.doc", nullptr, nullptr, nullptr, whole, "Othr");
    EXPECT_EQ(Archive::Open("whole.doc", IDTag(), whole)->GetArchiveTag(), IDTag("Test"));
}

// An unfinished save may have left a footer, which must not come back over the bytes of the next save: the file is cut,
// and the cut is on the disk, before anything is written there.
TEST(ArchiveUpdate, CutIsSyncedBeforeTheNextSaveWrites) {
    using Kind = MemoryDisk::Step::Kind;
    auto const before = MakeDocument();
    auto const oldContent = ContentOf(before);
    auto const disk = MakeCounted<MemoryDisk>(before);
    auto const archive = Archive::Open(path, "Test", disk);
    auto album = Load(archive);
    Change(album.blobs[2], MakeBytes(30, 300));
    disk->FailAt(5); // after the items, the lists, their sync and the footer: its sync
    try {
        Save(archive, album);
        FAIL();
    } catch (ArchiveError const & error) {
        ASSERT_EQ(error.GetKind(), ArchiveError::Kind::Unknown);
    }
    auto const unconfirmed = disk->GetFiles();
    auto const unconfirmedContent = ContentOf(unconfirmed);
    ASSERT_NE(unconfirmedContent, oldContent) << "its footer is there";

    disk->FailAt(0);
    disk->steps.clear();
    Change(album.blobs[2], MakeBytes(40, 900));
    Save(archive, album);
    auto const newContent = ContentOf(disk->GetFiles());
    ASSERT_GE(disk->steps.size(), 3u);
    EXPECT_EQ(disk->steps[0].kind, Kind::Truncate);
    EXPECT_EQ(disk->steps[1].kind, Kind::Sync);
    EXPECT_EQ(disk->steps[2].kind, Kind::Write);
    std::mt19937 random(5);
    for (std::size_t count = 0; count <= disk->steps.size(); ++count)
        for (auto const rest : {CrashedDisk::Rest::Lost, CrashedDisk::Rest::Torn, CrashedDisk::Rest::Reordered})
            for (int attempt = 0; attempt < 20; ++attempt) {
                auto const files = CrashedDisk(unconfirmed, disk->steps, count, rest, random).files;
                auto const content = ContentOf(files);
                EXPECT_TRUE(content == oldContent || content == unconfirmedContent || content == newContent)
                    << count << " steps, case " << static_cast<int>(rest);
            }
}

// The file is there, and the next one is as safe as any: it doesn't grow under a name that may be gone.
TEST(ArchiveFile, NameThatTheDiskDidNotConfirmIsToldOfAndGivenAnew) {
    for (auto const & before : {MemoryDisk::Files(), MakeDocument()}) {
        auto const save = [&](std::uint64_t failing) {
            auto const disk = MakeCounted<MemoryDisk>(before);
            auto const archive =
                before.empty() ? Archive::Create(path, "Test", disk) : Archive::Open(path, "Test", disk);
            auto album = MakeSmallAlbum(3, 60);
            disk->FailAt(failing);
            try {
                Save(archive, album, ArchiveSaveMode::Compact);
                EXPECT_EQ(failing, 0u) << "the saver wasn't told";
            } catch (ArchiveError const & error) {
                EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Unknown) << error.what();
                EXPECT_NE(failing, 0u);
            }
            EXPECT_THAT(ContentOf(disk->GetFiles()), SizeIs(3));
            EXPECT_THAT(disk->GetFiles(), SizeIs(1));
            EXPECT_EQ(ContentOf(archive), ContentOf(disk->GetFiles())) << "it is what is loaded from";
            auto const steps = disk->GetOperationCount();

            disk->FailAt(0);
            Change(album.blobs[1], MakeBytes(70, 300));
            Save(archive, album);
            bool const isAnew = std::count_if(disk->steps.begin(), disk->steps.end(), [](auto const & step) {
                                    return step.kind == MemoryDisk::Step::Kind::Rename;
                                }) == 2;
            EXPECT_EQ(isAnew, failing != 0);
            std::mt19937 random(3);
            auto const left = CrashedDisk(before, disk->steps, disk->steps.size(), CrashedDisk::Rest::Lost, random);
            EXPECT_EQ(ContentOf(left.files)[1], MakeBytes(70, 300));
            auto const written = disk->steps.size();
            Save(archive, album); // and grows from then on
            for (std::size_t i = written; i < disk->steps.size(); ++i)
                EXPECT_NE(disk->steps[i].kind, MemoryDisk::Step::Kind::Create);
            return steps;
        };
        save(save(0)); // the last step
    }
}

// What is whole of a later state could be salvaged until a save cuts it off.
TEST(ArchiveUpdate, IsRefusedBehindALaterStateThatIsDamaged) {
    auto const end = MakeDocument(4, 2).at(path).size();
    auto spoiltFooter = MakeDocument(4, 3), spoiltLists = spoiltFooter;
    spoiltFooter.at(path).end()[-30] ^= 1;
    DamageLists(spoiltLists.at(path), end);
    for (auto const & files : {spoiltFooter, spoiltLists}) {
        auto const & bytes = files.at(path);
        for (auto const mode : {ArchiveSaveMode::Update, ArchiveSaveMode::Compact}) {
            auto const disk = MakeCounted<MemoryDisk>(files);
            auto const archive = Archive::Open(path, "Test", disk);
            try {
                Save(archive, MakeSmallAlbum(2, 90), mode);
                ADD_FAILURE() << "the later state is lost";
            } catch (ArchiveError const & error) {
                EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Damaged);
            }
            EXPECT_EQ(disk->GetFiles(), files);
        }
        auto const disk = MakeCounted<MemoryDisk>(files);
        auto const archive = Archive::Open(path, "Test", disk);
        auto const save = [&](unsigned seed) {
            auto session = archive->CreateSession();
            session->SetKeepDamaged(true);
            session->StoreObject("Album.dat", MakeSmallAlbum(2, seed));
            return session;
        };
        save(80)->StoreStream("large", std::vector<char>(20 << 20).data(),
                              20 << 20); // given up after a part is written
        EXPECT_EQ(disk->GetFiles(), files);
        archive->CloseSession(save(90));
        auto const saved = disk->GetFiles();
        ASSERT_GT(saved.at(path).size(), bytes.size());
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), saved.at(path).begin())) << "something was cut off";
        EXPECT_THAT(ContentOf(saved), SizeIs(2));
        Save(archive, MakeSmallAlbum(3, 90)); // nothing behind that one is damaged
        EXPECT_THAT(ContentOf(disk->GetFiles()), SizeIs(3));
    }
}

// Who goes on after the first failure, layer by layer, must not get at the bytes of the document.
TEST(ArchiveUpdate, SaveThatWasRefusedStaysRefused) {
    auto files = MakeDocument(4, 3);
    files.at(path).end()[-30] ^= 1;
    auto const disk = MakeCounted<MemoryDisk>(files);
    auto const archive = Archive::Open(path, "Test", disk);
    auto session = archive->CreateSession();
    std::vector<char> const large(20 << 20);
    for (auto const * const name : {"first", "second"})
        try {
            session->StoreStream(name, large.data(), large.size());
            ADD_FAILURE() << "there is no place for it";
        } catch (ArchiveError const & error) {
            EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Damaged) << error.what();
        }
    EXPECT_THROW(archive->CloseSession(std::move(session)), ArchiveError);
    EXPECT_EQ(disk->GetFiles(), files);
}

TEST(ArchiveUpdate, RemovesWhatIsLeftOfASaveWhoseFooterNeverCame) {
    auto files = MakeDocument(4, 3);
    std::fill(files.at(path).end() - 64, files.at(path).end(), std::uint8_t(0));
    auto const disk = MakeCounted<MemoryDisk>(files);
    Save(Archive::Open(path, "Test", disk), MakeSmallAlbum(2, 90));
    EXPECT_THAT(ContentOf(disk->GetFiles()), SizeIs(2));
    EXPECT_FALSE(IsFoundDamaged(disk->GetFiles()));
}
