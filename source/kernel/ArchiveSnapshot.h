/// A document file as one save left it.
#pragma once

#include "kernel/ArchiveDisk.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/InStream.h"
#include "kernel/PositionTable.h"

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace Kernel {
/// Reads items of one file by what an index says of them. All members throw `ArchiveError` for what is damaged.
class ArchiveItemReader {
public:
    using Entry = ArchiveLayout::Entry;
    struct Stored {
        ArchiveLayout::ItemHeader header;
        std::vector<std::uint8_t> bytes; ///< header and payload as they stand in the file
        ArchiveLayout::Bytes payload;    ///< within `bytes`
    };

    /// File and path outlive the reader; the path is for messages.
    ArchiveItemReader(ArchiveFile const & openFile, std::string const & filePath) : file(openFile), path(filePath) {}

    ArchiveLayout::ItemHeader ReadHeader(Entry const & entry) const;
    /// Header and payload, which fit their checksums.
    Stored ReadStored(Entry const & entry) const;
    /// The bytes of the item.
    /// @param checkRaw  also compares their own checksum, which is implied by that of the stored bytes unless the
    ///                  program that wrote them was wrong.
    std::vector<std::uint8_t> ReadRaw(Entry const & entry, bool checkRaw = false) const;
    /// Calls `use(InStreamSeekable &)` with the bytes of the item, which are there for so long.
    template<class Use>
    void UseRaw(Entry const & entry, Use && use) const {
        using Callable = std::remove_reference_t<Use>;
        auto * const data = const_cast<void *>(static_cast<void const *>(std::addressof(use)));
        UseRawI(entry, data,
                [](void * callable, InStreamSeekable & stream) { (*static_cast<Callable *>(callable))(stream); });
    }
    /// The items that the content of an item refers to, whatever its header says of that; may repeat. Nothing for
    /// content that can't be understood: only streams of properties can.
    static std::vector<ItemID> FindReferences(Entry const & entry, ArchiveLayout::Bytes raw);
    /// An entry's bytes as they stand in the file, whole or not. Throws nothing.
    std::vector<std::uint8_t> ReadUnchecked(Entry const & entry) const;

private:
    void UseRawI(Entry const & entry, void * data, void (*use)(void * data, InStreamSeekable & stream)) const;
    ArchiveLayout::ItemHeader CheckStored(Entry const & entry, ArchiveLayout::Bytes bytes) const;
    ArchiveLayout::ItemHeader DecodeHeader(Entry const & entry, ArchiveLayout::Bytes bytes) const;
    [[noreturn]] void FailDamaged(Entry const & entry, char const * what) const;

    ArchiveFile const & file;
    std::string const & path;
};

/// What an index names, and how its bytes are read. Immutable; any number of threads may read it, with no lock. The
/// bytes stay where they are whatever is saved later, also when the file is replaced: the descriptor stays open.
class RASTER_API ArchiveSnapshot final : public Countable {
public:
    using Entry = ArchiveLayout::Entry;

    /// @param path  for messages.
    ArchiveSnapshot(std::string path, Counted<ArchiveFile const> file, ArchiveLayout::Header const & header,
                    ArchiveLayout::Footer const & footer, std::vector<Entry> entries, std::uint32_t newestFooter = 0);

    /// The last state of the file that is whole. Throws `ArchiveError`.
    /// @param archiveTag  the document's kind; no tag takes any.
    static Counted<ArchiveSnapshot const> Open(std::string const & path, Counted<ArchiveFile const> file,
                                               IDTag archiveTag);
    /// The last good footer at or before `end`; nothing if there is none.
    static std::optional<ArchiveLayout::Footer> FindFooter(ArchiveFile const & file, ArchiveLayout::FileID const & id,
                                                           std::uint64_t end);
    /// Where a commit behind the last good footer, which ends at `end`, has its own, if it came so far. A save that was
    /// cut off before that left at most its list of contents.
    static std::optional<std::uint64_t> FindFooterPlace(ArchiveFile const & file, std::uint64_t end);

    std::string const & GetPath() const { return path; }
    Counted<ArchiveFile const> const & GetFile() const { return file; }
    ArchiveLayout::Header const & GetHeader() const { return header; }
    ArchiveLayout::Footer const & GetFooter() const { return footer; }
    std::vector<Entry> const & GetEntries() const { return entries; }
    /// The number of the latest commit that has a footer, which is a later one than this if its index is damaged.
    std::uint32_t GetNewestFooter() const { return newestFooter; }
    /// Where the next save begins.
    std::uint64_t GetEnd() const { return footer.offset + ArchiveLayout::footerBytes; }

    /// Whether the document was saved after this state, and what says so was damaged since. Reads what is behind the
    /// end.
    bool IsFollowedByDamage() const;

    /// Of what belongs to no item any more, and of older lists of contents.
    std::uint64_t GetDeadBytes() const;

    // Null if there is none.
    Entry const * Find(ItemID id) const;
    Entry const * FindStream(std::string const & name) const;

    /// Valid while the snapshot lives.
    ArchiveItemReader GetReader() const { return {*file, path}; }

private:
    std::string const path;
    Counted<ArchiveFile const> const file;
    ArchiveLayout::Header const header;
    ArchiveLayout::Footer const footer;
    std::uint32_t const newestFooter;
    std::vector<Entry> const entries;
    PositionTable byID, streamsByName; // positions in `entries`
};
}
