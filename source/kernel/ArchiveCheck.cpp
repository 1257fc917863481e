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
#include <unordered_map>
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
          size(file->GetSize().value_or(0)) {}

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
        if (HasFooterPlace(end))
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

    // Whether a commit behind the last good footer came as far as its own. A save that was cut off before that left
    // at most its list of contents; with a footer in its place, that one has been damaged since.
    bool HasFooterPlace(std::uint64_t end) const {
        for (auto at = end; at + footerBytes <= size; at += footerBytes)
            if (auto const indexSize = FindIndexAt(at)) {
                auto const second = AlignUp(at + std::max<std::uint64_t>(*indexSize, indexDistance), footerBytes);
                return FindIndexAt(second) && second + AlignUp(*indexSize, footerBytes) + footerBytes <= size;
            }
        return false;
    }

    std::optional<std::uint64_t> FindIndexAt(std::uint64_t offset) const {
        auto const indexSize = GetIndexSize(ReadAt(*file, offset, indexHeaderBytes));
        if (!indexSize || offset > size || *indexSize > size - offset ||
            !DecodeIndex(ReadAt(*file, offset, *indexSize), offset))
            return {};
        return indexSize;
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
            if (isNewest)
                inUse.insert(entry.id);
            items.emplace(entry.offset, std::move(entry));
        }
    }

    void CheckItems() {
        ArchiveItemReader const reader(*file, path);
        for (auto const & [offset, entry] : items) {
            if (progress.IsAborted())
                return;
            Claim(offset, entry.headerSize + entry.storedSize);
            bool const isInUse = inUse.contains(entry.id);
            try {
                reader.ReadRaw(entry, /*checkRaw=*/true);
                if (isInUse)
                    for (auto const & reference : reader.ReadHeader(entry).references)
                        if (!inUse.contains(reference))
                            AddProblem("item " + entry.name + " refers to an item that is missing", true, &entry);
            } catch (ArchiveError const & error) {
                AddProblem(error.what(), isInUse, &entry);
            }
            ++report.itemsChecked;
            progress.Report(size ? double(offset) / double(size) : 1.0);
        }
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
};

/// The entry of an item whose header stands at an offset, if its stored bytes check.
std::optional<Entry> FindItemAt(ArchiveFile const & file, std::uint64_t offset, std::uint64_t size) {
    auto const begin = ReadAt(file, offset, itemHeaderBytes);
    auto const headerSize = ItemHeader::GetSize(begin);
    if (!headerSize || *headerSize > size - offset)
        return {};
    auto const header = ItemHeader::Decode(ReadAt(file, offset, *headerSize));
    if (!header || header->storedSize > size - offset - *headerSize)
        return {};
    return Entry{header->id,          offset,       *headerSize, header->storedSize, header->rawSize,
                 header->rawHash.low, header->type, header->name};
}

// Looks for items in all of the file.
std::vector<Entry> ScanForItems(ArchiveFile const & file, Progress const & progress) {
    std::vector<Entry> found;
    std::uint64_t const size = file.GetSize().value_or(0);
    std::uint64_t next = 0; // what lies before is the payload of an item
    for (std::uint64_t window = 0; window < size && !progress.IsAborted(); window += windowBytes) {
        auto const bytes = ReadAt(file, window, std::min(windowBytes, size - window));
        for (std::uint64_t at = 0; at + 4 <= bytes.size(); at += itemAlignment) {
            if (window + at < next || std::memcmp(bytes.data() + at, "Item", 4) != 0)
                continue;
            if (auto entry = FindItemAt(file, window + at, size)) {
                next = entry->GetEnd();
                found.push_back(*std::move(entry));
            }
        }
        progress.Report(double(window) / double(size) / 2);
    }
    return found;
}
}

ArchiveReport VerifyArchive(std::string const & path, bool const * abort, ArchiveProgress progress, void * context,
                            Counted<ArchiveDisk> disk) {
    auto file = OpenFile(path, disk);
    return Verifier(path, std::move(file), {abort, progress, context}).Run();
}

ArchiveSalvage SalvageArchive(std::string const & path, std::string const & target, bool const * abort,
                              ArchiveProgress report, void * context, Counted<ArchiveDisk> disk) {
    auto const file = OpenFile(path, disk);
    Progress const progress{abort, report, context};
    ArchiveSalvage result;
    Counted<ArchiveSnapshot const> source;
    try {
        source = ArchiveSnapshot::Open(path, file, IDTag());
        result.hasScanned = source->GetNewestFooter() != source->GetFooter().commitNumber;
    } catch (ArchiveError const & error) {
        if (error.GetKind() == ArchiveError::Kind::Future)
            throw;
        result.hasScanned = true;
    }
    std::vector<Entry> entries;
    if (result.hasScanned)
        entries = ScanForItems(*file, progress);
    else
        entries = source->GetEntries();
    // The list may name what is gone; items that it doesn't name may be older states of those that it does.
    ArchiveItemReader const reader(*file, path);
    std::vector<Entry> whole;
    std::unordered_map<std::string, std::size_t> streams; // by name, where in `whole`
    for (auto & entry : entries) {
        if (progress.IsAborted())
            throw ArchiveError(ArchiveError::Kind::WriteFailed, target + ": stopped; nothing was written");
        try {
            reader.ReadRaw(entry, /*checkRaw=*/true);
        } catch (ArchiveError const &) {
            ++result.itemsLost;
            continue;
        }
        if (entry.type == ArchiveTags::stream) {
            auto const [place, isNew] = streams.emplace(entry.name, whole.size());
            if (!isNew) {
                whole[place->second] = std::move(entry);
                continue;
            }
        }
        whole.push_back(std::move(entry));
    }
    if (whole.empty())
        throw ArchiveError(ArchiveError::Kind::Damaged, path + ": nothing in it can be saved");
    result.itemsSaved = whole.size();
    for (auto const & entry : whole)
        result.bytesSaved += entry.rawSize;

    auto const header = Header::Decode(ReadAt(*file, 0, headerBytes));
    auto const tag = header ? header->archiveTag : IDTag();
    auto const found = MakeCounted<ArchiveSnapshot>(path, file, header.value_or(Header()), Footer(), std::move(whole));
    auto const archive = Archive::Create(target, tag, disk);
    auto session = archive->CreateSession();
    session->SetKeepDamaged(true);
    session->KeepEverything(*found);
    archive->CloseSession(std::move(session));
    return result;
}
}
