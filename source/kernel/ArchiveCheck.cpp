#include "kernel/ArchiveCheck.h"

#include "kernel/Abort.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <new>
#include <set>
#include <unordered_set>
#include <utility>

namespace Kernel {
using namespace ArchiveLayout;

namespace {
using Entry = ArchiveLayout::Entry;
constexpr std::uint64_t windowBytes = 4 << 20;

Counted<ArchiveFile> OpenFile(std::string const & path, Counted<ArchiveDisk> & disk) {
    if (!disk)
        disk = ArchiveDisk::GetSystem();
    auto file = disk->OpenToRead(path);
    if (!file)
        throw ArchiveError(ArchiveError::Kind::NotFound, path + ": can't be opened: " + std::strerror(errno));
    return file;
}

std::vector<std::uint8_t> ReadAt(ArchiveFile const & file, std::uint64_t offset, std::uint64_t size) {
    std::vector<std::uint8_t> bytes(size);
    bytes.resize(file.Read(offset, bytes.data(), size));
    return bytes;
}

struct Progress {
    bool const * abort;
    ArchiveProgress report;
    void * context;

    bool IsAborted() const { return Kernel::IsAborted(abort); }
    void Report(double fraction) const {
        if (report)
            report(context, fraction);
    }
};

// Goes through the commits of one file, the last one first, and notes which bytes belong to something.
class Verifier {
public:
    Verifier(std::string filePath, Counted<ArchiveFile> openFile, Progress itsProgress)
        : path(std::move(filePath)), file(std::move(openFile)), progress(itsProgress),
          size(file->GetSize().value_or(0)), listBudget(64 * size + windowBytes) {}

    ArchiveReport Run() {
        auto const header = Header::Decode(ReadAt(*file, 0, headerBytes));
        std::optional<Footer> footer;
        if (header) {
            footer = ArchiveSnapshot::FindFooter(*file, header->fileID, size);
            Claim(0, headerBytes);
        } else {
            throw ArchiveError(ArchiveError::Kind::NotArchive,
                               path + ": not a document, or its first bytes are damaged");
        }
        if (!footer) {
            AddProblem("no commit in it is whole");
            return std::move(report);
        }
        auto const end = footer->offset + footerBytes;
        report.unfinishedBytes = size - end;
        if (ArchiveSnapshot::FindFooterPlace(*file, end))
            AddProblem("the end of the last commit is damaged: the document shows what was saved before that");
        CheckCommits(*header, *footer);
        CheckItems();
        CheckGaps(end);
        report.bytesChecked = end;
        return std::move(report);
    }

private:
    void AddProblem(std::string what, bool isInUse = true, Entry const * entry = nullptr) {
        ArchiveProblem problem{std::move(what), isInUse, {}, {}};
        if (entry) {
            problem.item = entry->id;
            problem.itemName = entry->name;
        }
        report.problems.push_back(std::move(problem));
    }

    void Claim(std::uint64_t offset, std::uint64_t length) {
        auto & end = claimed[offset];
        end = std::max(end, offset + length);
    }

    void CheckCommits(Header const & header, Footer footer) {
        for (bool isNewest = true;; isNewest = false) {
            Claim(footer.offset, footerBytes);
            CheckIndex(footer, isNewest);
            if (footer.previous == 0)
                return;
            auto const before =
                Footer::Decode(ReadAt(*file, footer.previous, footerBytes), header.fileID.low, footer.previous);
            if (!before) {
                AddProblem("the end of commit " + std::to_string(footer.commitNumber - 1) + " is damaged", false);
                // What that commit and those before it wrote is known no longer; what is in use still is.
                isHistoryLost = true;
                return;
            }
            footer = *before;
        }
    }

    void CheckIndex(Footer const & footer, bool isNewest) {
        std::optional<std::vector<Entry>> entries;
        for (auto const offset : {footer.indexOffset, footer.GetSecondIndexOffset()}) {
            Claim(offset, footer.indexSize);
            auto const bytes = ReadAt(*file, offset, footer.indexSize);
            if (!isNewest && !SpendOnList(bytes))
                return;
            auto decoded = Hash64(bytes.data(), bytes.size()) == footer.indexHash ? DecodeIndex(bytes, footer.offset)
                                                                                  : std::nullopt;
            if (!decoded)
                AddProblem("a copy of the list of contents of commit " + std::to_string(footer.commitNumber) +
                               " is damaged",
                           isNewest);
            else
                entries = std::move(decoded);
        }
        if (!entries) {
            isHistoryLost = true;
            return;
        }
        for (auto & entry : *entries) {
            if (isNewest && !inUse.insert(entry.id).second)
                AddProblem("item " + entry.name + " is listed twice", true, &entry);
            items.emplace(entry.offset, std::move(entry));
        }
    }

    // Many saves of a large document have long lists, but no such lists compress by more than about ten to one: a file
    // whose old lists are larger than this was made to keep us busy.
    bool SpendOnList(Bytes list) {
        auto const cost = std::min(size, GetIndexContentSize(list));
        if (cost <= listBudget) {
            listBudget -= cost;
            return true;
        }
        isHistoryLost = true;
        if (!std::exchange(areListsSkipped, true))
            AddProblem("the lists of contents of earlier commits are too large to be checked", false);
        return false;
    }

    // The items of one list lie one behind another. Those of two lists may overlap only in a file that was made so.
    void CheckItems() {
        ArchiveItemReader const reader(*file, path);
        std::uint64_t end = 0;
        for (auto const & [offset, entry] : items) {
            if (progress.IsAborted())
                return;
            Claim(offset, entry.headerSize + entry.storedSize);
            bool const isInUse = inUse.contains(entry.id);
            if (offset < std::exchange(end, std::max(end, entry.GetEnd()))) {
                AddProblem("item " + entry.name + " overlaps another one", isInUse, &entry);
                continue;
            }
            try {
                auto const raw = reader.ReadRaw(entry, /*checkRaw=*/true);
                if (isInUse)
                    CheckReferences(entry, reader.ReadHeader(entry).references, raw);
            } catch (ArchiveError const & error) {
                AddProblem(error.what(), isInUse, &entry);
            } catch (std::bad_alloc const &) {
                AddProblem("item " + entry.name + " is too large to be checked in this machine's memory", isInUse,
                           &entry);
            }
            ++report.itemsChecked;
            progress.Report(size ? double(offset) / double(size) : 1.0);
        }
    }

    // What an item refers to has to be there. Its header has to name it too, or a copy of the item would lack it.
    void CheckReferences(Entry const & entry, std::vector<ItemID> const & listed, Bytes raw) {
        if (std::any_of(listed.begin(), listed.end(), [&](ItemID const & id) { return !inUse.contains(id); }))
            AddProblem("item " + entry.name + " refers to an item that is missing", true, &entry);
        std::unordered_set<ItemID> const known(listed.begin(), listed.end());
        for (auto const & reference : ArchiveItemReader::FindReferences(entry, raw))
            if (!known.contains(reference))
                return AddProblem("item " + entry.name + " refers to an item that its header doesn't name", true,
                                  &entry);
    }

    // Everything that belongs to nothing is zero.
    void CheckGaps(std::uint64_t end) {
        if (isHistoryLost || progress.IsAborted())
            return;
        std::uint64_t position = 0;
        for (auto const & [offset, claimEnd] : claimed) {
            if (offset > position)
                CheckZeros(position, offset);
            position = std::max(position, claimEnd);
        }
        CheckZeros(position, end);
    }

    void CheckZeros(std::uint64_t begin, std::uint64_t end) {
        while (begin < end) {
            auto const bytes = ReadAt(*file, begin, std::min(end - begin, windowBytes));
            if (bytes.empty() || std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; }))
                return AddProblem("there are bytes at " + std::to_string(begin) + " that belong to nothing", false);
            begin += bytes.size();
        }
    }

    std::string const path;
    Counted<ArchiveFile> const file;
    Progress const progress;
    std::uint64_t const size;
    ArchiveReport report;
    std::map<std::uint64_t, std::uint64_t> claimed; // from, to
    std::map<std::uint64_t, Entry> items;           // of all commits, by offset
    std::unordered_set<ItemID> inUse;
    bool isHistoryLost = false;
    bool areListsSkipped = false;
    std::uint64_t listBudget; // bytes that the lists of earlier commits may still have
};

/// The entry of an item whose header stands at an offset and checks.
/// @param budget  bytes that may still be read for headers; what claims more is none.
std::optional<Entry> FindItemAt(ArchiveFile const & file, std::uint64_t offset, std::uint64_t size,
                                std::uint64_t & budget) {
    auto const begin = ReadAt(file, offset, itemHeaderBytes);
    auto const headerSize = ItemHeader::GetSize(begin);
    if (!headerSize || *headerSize > size - offset || *headerSize > budget)
        return {};
    budget -= *headerSize;
    auto const header = ItemHeader::Decode(ReadAt(file, offset, *headerSize));
    if (!header || header->storedSize > size - offset - *headerSize)
        return {};
    return Entry{header->id,          offset,       *headerSize, header->storedSize, header->rawSize,
                 header->rawHash.low, header->type, header->name};
}

/// Looks for items from one offset to another, one behind the other.
/// @param progress  null for a part of the file.
void ScanForItems(ArchiveFile const & file, std::uint64_t begin, std::uint64_t end, std::uint64_t & budget,
                  Progress const * progress, std::vector<Entry> & found) {
    std::uint64_t const size = file.GetSize().value_or(0);
    std::uint64_t next = begin; // what lies before is the payload of an item
    for (auto window = AlignUp(begin, itemAlignment); window < end; window += windowBytes) {
        if (progress && progress->IsAborted())
            return;
        // Also of an item that only begins before the end.
        auto const bytes = ReadAt(file, window, std::min(windowBytes, AlignUp(end - window, itemAlignment)));
        for (std::uint64_t at = 0; at + 4 <= bytes.size(); at += itemAlignment) {
            if (window + at < next || std::memcmp(bytes.data() + at, "Item", 4) != 0)
                continue;
            if (auto entry = FindItemAt(file, window + at, size, budget)) {
                next = entry->GetEnd();
                found.push_back(*std::move(entry));
            }
        }
        if (progress)
            progress->Report(double(window) / double(size) / 2);
    }
}

std::uint64_t GetScanBudget(ArchiveFile const & file) { return 4 * file.GetSize().value_or(0) + windowBytes; }

std::vector<Entry> ScanForItems(ArchiveFile const & file, Progress const & progress) {
    std::vector<Entry> found;
    auto budget = GetScanBudget(file);
    ScanForItems(file, 0, file.GetSize().value_or(0), budget, &progress, found);
    return found;
}
}

namespace {
/// The last state, if nothing says that there was a later one.
Counted<ArchiveSnapshot const> OpenListed(std::string const & path, Counted<ArchiveFile> const & file) {
    try {
        auto opened = ArchiveSnapshot::Open(path, file, IDTag());
        bool const isLast =
            opened->GetNewestFooter() == opened->GetFooter().commitNumber && opened->GetEnd() == file->GetSize();
        return isLast ? opened : nullptr;
    } catch (ArchiveError const & error) {
        if (error.GetKind() == ArchiveError::Kind::Future)
            throw;
        return nullptr;
    }
}

struct Sorted {
    std::vector<Entry> whole;        // each item once, and of streams of one name the last
    std::vector<Entry> failed;       // do not check
    std::set<std::uint64_t> commits; // of whatever checks, older streams too, and of what it refers to
};

Sorted Sort(ArchiveFile const & file, std::string const & path, std::vector<Entry> const & entries,
            Progress const & progress) {
    ArchiveItemReader const reader(file, path);
    Sorted sorted;
    std::map<std::string, std::size_t> streams; // by name, where in `whole`
    std::unordered_set<ItemID> known;
    for (auto const & entry : entries) {
        if (progress.IsAborted())
            break;
        if (known.contains(entry.id))
            continue; // the same item once more: an id stands for the same bytes for ever
        try {
            reader.ReadRaw(entry, /*checkRaw=*/true);
        } catch (std::exception const &) { // damaged, or too large for this machine
            sorted.failed.push_back(entry);
            continue;
        }
        known.insert(entry.id);
        sorted.commits.insert(entry.id.commit);
        for (auto const & reference : reader.ReadHeader(entry).references)
            sorted.commits.insert(reference.commit);
        auto const place = entry.type == ArchiveTags::stream ? streams.emplace(entry.name, sorted.whole.size())
                                                             : std::pair(streams.end(), true);
        if (place.second)
            sorted.whole.push_back(entry);
        else
            sorted.whole[place.first->second] = entry;
    }
    return sorted;
}

/// Looks for items where those that don't check say that their bytes are: a header may be somewhere that it doesn't
/// belong. What is found has to come from saves that whole items or what they refer to come from too, so that a damaged
/// item which holds a document of its own isn't taken apart.
/// @param searched  the offsets of items that were looked into; grows.
/// @param budget  bytes that headers and what they claim may still come to: many could name the same bytes.
std::vector<Entry> FindWithin(ArchiveFile const & file, Sorted const & sorted, std::set<std::uint64_t> & searched,
                              std::uint64_t & budget) {
    std::vector<Entry> within;
    for (auto const & failed : sorted.failed) {
        if (!searched.insert(failed.offset).second)
            continue;
        std::vector<Entry> found;
        ScanForItems(file, failed.offset + itemAlignment, failed.GetEnd(), budget, nullptr, found);
        for (auto & entry : found)
            if (sorted.commits.contains(entry.id.commit) && entry.storedSize <= budget) {
                budget -= entry.storedSize;
                within.push_back(std::move(entry));
            }
    }
    return within;
}

/// Whatever in all of the file looks like an item, by whether it checks.
Sorted FindItems(ArchiveFile const & file, std::string const & path, Progress const & progress) {
    auto entries = ScanForItems(file, progress);
    auto sorted = Sort(file, path, entries, progress);
    std::set<std::uint64_t> searched;
    for (auto budget = GetScanBudget(file); !sorted.failed.empty() && !progress.IsAborted();) {
        auto const within = FindWithin(file, sorted, searched, budget);
        if (within.empty())
            break;
        entries.insert(entries.end(), within.begin(), within.end());
        std::sort(entries.begin(), entries.end(), [](Entry const & a, Entry const & b) { return a.offset < b.offset; });
        sorted = Sort(file, path, entries, progress);
    }
    return sorted;
}

/// Of two streams of one name the one that the list names is the later one, wherever in the file it is.
void PreferListed(std::vector<Entry> & whole, std::vector<Entry> const & listed) {
    std::map<std::string, Entry const *> streams;
    for (auto const & entry : listed)
        if (entry.type == ArchiveTags::stream)
            streams.emplace(entry.name, &entry);
    for (auto & entry : whole)
        if (auto const found = streams.find(entry.name); entry.type == ArchiveTags::stream && found != streams.end())
            entry = *found->second;
}

std::uint64_t CountLost(Sorted const & sorted, std::vector<Entry> const & listed) {
    std::unordered_set<ItemID> lost;
    for (auto const * const entries : {&sorted.failed, &listed})
        for (auto const & entry : *entries)
            lost.insert(entry.id);
    for (auto const & entry : sorted.whole)
        lost.erase(entry.id);
    return lost.size();
}
}

ArchiveReport VerifyArchive(std::string const & path, bool const * abort, ArchiveProgress progress, void * context,
                            Counted<ArchiveDisk> disk) {
    auto file = OpenFile(path, disk);
    return Verifier(path, std::move(file), {abort, progress, context}).Run();
}

ArchiveSalvage SalvageArchive(std::string const & path, std::string const & target, bool const * abort,
                              ArchiveProgress report, void * context, Counted<ArchiveDisk> disk, IDTag tagOfDamaged) {
    auto const file = OpenFile(path, disk);
    Progress const progress{abort, report, context};
    ArchiveSalvage result;
    Sorted sorted, listed;
    if (auto const last = OpenListed(path, file))
        sorted = listed = Sort(*file, path, last->GetEntries(), progress);
    if (sorted.whole.empty() || !sorted.failed.empty()) {
        // A list that is gone, or a stream that is: an earlier state of it may lie in the file.
        result.hasScanned = true;
        sorted = FindItems(*file, path, progress);
        PreferListed(sorted.whole, listed.whole);
    }
    if (progress.IsAborted())
        throw ArchiveError(ArchiveError::Kind::WriteFailed, target + ": stopped; nothing was written");
    if (sorted.whole.empty())
        throw ArchiveError(ArchiveError::Kind::Damaged, path + ": nothing in it can be saved");
    result.itemsSaved = sorted.whole.size();
    result.itemsLost = CountLost(sorted, listed.failed);
    for (auto const & entry : sorted.whole)
        result.bytesSaved += entry.rawSize;

    auto const headerBlock = ReadAt(*file, 0, headerBytes);
    auto const header = Header::Decode(headerBlock);
    auto tag = header ? header->archiveTag : tagOfDamaged;
    if (tag == IDTag())
        tag = GetArchiveTagAsFound(headerBlock); // most likely something else in the header is damaged
    auto const found =
        MakeCounted<ArchiveSnapshot>(path, file, header.value_or(Header()), Footer(), std::move(sorted.whole));
    auto const archive = Archive::Create(target, tag, disk);
    auto session = archive->CreateSession();
    session->SetKeepDamaged(true);
    session->KeepEverything(*found);
    archive->CloseSession(std::move(session));
    return result;
}
}
