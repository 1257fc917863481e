/// What can be said of a document as a whole, and what can be saved of a damaged one.
#pragma once

#include "kernel/ArchiveDisk.h"
#include "kernel/IDTag.h"
#include "kernel/ItemID.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Kernel {
/// One thing that is wrong with a document.
struct ArchiveProblem {
    std::string what;    ///< for the user
    bool isInUse = true; ///< whether it concerns the document as it is now, not only what earlier saves left
    ItemID item;         ///< what is damaged or missing; none if it is something else
    std::string itemName;
};

struct ArchiveReport {
    std::vector<ArchiveProblem> problems; ///< none: every byte is as it was written
    std::uint64_t itemsChecked = 0;
    std::uint64_t bytesChecked = 0;
    /// Bytes behind the last commit, from a save that was cut off. No problem: the next save removes them.
    std::uint64_t unfinishedBytes = 0;
};

/// Told how much of the file has been gone through, between items.
using ArchiveProgress = void (*)(void * context, double fraction);

/// Reads a whole document and checks every byte of it: items, also those that are no longer in use, both copies of each
/// list of contents, and what lies between. Doesn't throw for damage; throws `ArchiveError` if the file can't be opened
/// or nothing in it says that it is a document.
/// @param abort  null, or a flag that ends the check at the next item.
RASTER_API ArchiveReport VerifyArchive(std::string const & path, bool const * abort = nullptr,
                                       ArchiveProgress progress = nullptr, void * context = nullptr,
                                       Counted<ArchiveDisk> disk = nullptr);

struct ArchiveSalvage {
    std::uint64_t itemsSaved = 0, bytesSaved = 0;
    std::uint64_t itemsLost = 0; ///< that are known of and don't check
    bool hasScanned = false;     ///< no list of contents was whole: items were looked for in all of the file
};

/// Writes every item of a damaged document that checks into a new document, with its name and its id. Of two streams of
/// one name the later one is taken. Throws `ArchiveError` if nothing can be read or the new document can't be written.
/// @param tagOfDamaged  the kind of document that comes of one whose header is damaged; no tag takes the kind as it is
///                      found there.
RASTER_API ArchiveSalvage SalvageArchive(std::string const & path, std::string const & target,
                                         bool const * abort = nullptr, ArchiveProgress progress = nullptr,
                                         void * context = nullptr, Counted<ArchiveDisk> disk = nullptr,
                                         IDTag tagOfDamaged = IDTag());
}
