#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Kernel {
/// Whether a file that is there may be replaced.
enum class ArchiveTarget { Any, OnlyFree };

/// What became of the wish to put a file in its place.
enum class ArchiveReplaced {
    Done,
    Unconfirmed, ///< it is there, but after a power cut the one before may be
    Occupied,    ///< not done: there is a file already, which was to stay
    Failed       ///< not done, with errno set
};

/// A file of a document, open by position. Threads: any number may read it; one writes.
class RASTER_API ArchiveFile : public virtual Countable {
public:
    ~ArchiveFile() override;

    /// @return how many bytes came: fewer than asked for at the end of the file, or where the disk fails.
    virtual std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const = 0;
    virtual std::optional<std::uint64_t> GetSize() const = 0;

    /// How much room there is where the file is, as far as that can be had.
    virtual std::optional<std::uint64_t> GetFreeBytes() const;

    // For a file that was opened to be written. False is a failure, with errno set.
    virtual bool Write(std::uint64_t offset, void const * bytes, std::uint64_t size) = 0;
    virtual bool Truncate(std::uint64_t size) = 0;
    /// When this returns true, everything written before is on the disk.
    virtual bool Sync() = 0;
    /// Keeps other savers out until `Unlock` or until the file is closed, waiting a while if one is at it.
    virtual bool Lock() = 0;
    virtual void Unlock() = 0;
    /// Whether the path still leads to this file.
    virtual bool IsAt(std::string const & path) const = 0;
};

/// The steps on disk that saving a document is made of. Tests put others in their place, which record and fail.
/// Threads: any.
class RASTER_API ArchiveDisk : public virtual Countable {
public:
    ~ArchiveDisk() override;
    /// The system's.
    static Counted<ArchiveDisk> GetSystem();

    // Null, with errno set, if that fails.
    virtual Counted<ArchiveFile> OpenToRead(std::string const & path) = 0;
    virtual Counted<ArchiveFile> OpenToUpdate(std::string const & path) = 0;
    /// Makes an empty, locked file beside the one that the path leads to, and removes those that savers which died have
    /// left there.
    /// @param temporaryPath  receives where it is.
    virtual Counted<ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) = 0;
    /// Puts a file from `CreateBeside`, all of it synced, in the place of the one that the path leads to, in one step,
    /// with its mode and owner where there was one.
    virtual ArchiveReplaced Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path,
                                    ArchiveTarget target) = 0;
    virtual void Remove(std::string const & temporaryPath) = 0;
};
}
