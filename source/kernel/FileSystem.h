#pragma once

#include "kernel/Export.h"
#include "kernel/String.h"

#include <cstdint>
#include <optional>

/// Questions to the file system and changes of it. Paths are UTF-8, '/' separated, used as they are. Nothing throws but
/// the allocator: what can't be done or told is false or nothing.
namespace Kernel::FileSystem {
/// Deletes a file or an empty directory; a link itself, not what it leads to. @return whether it is gone by this call.
RASTER_API bool Delete(StringUtf8 const & path);

/// Makes an empty file with a name that no other has, readable by this user only, in the directory for temporary files
/// ($TMPDIR, or /tmp). The file is what keeps the name free of others; the caller overwrites it and deletes it.
/// @param pattern  the name, with %1 where the unique part goes, such as "%1.tmp".
/// @return the whole path; empty if no file could be made.
RASTER_API StringUtf8 GetUniqueTemporaryFilename(StringUtf8 const & pattern);
RASTER_API StringUtf8 GetTemporaryDirectory(); ///< $TMPDIR, or /tmp.

RASTER_API bool Exists(StringUtf8 const & path);
RASTER_API bool IsFile(StringUtf8 const & path); ///< A regular file, or a link to one.
RASTER_API bool IsDirectory(StringUtf8 const & path);
/// In bytes; nothing for what isn't a regular file.
RASTER_API std::optional<std::uint64_t> GetSize(StringUtf8 const & path);

/// Makes a directory and those that it lies in. @return whether it is there now.
RASTER_API bool CreateDirectory(StringUtf8 const & path);
/// Renames, in one step and over a file that is there. @return false also across file systems.
RASTER_API bool Rename(StringUtf8 const & from, StringUtf8 const & to);
}
