#pragma once

#include "kernel/Counted.h"
#include "kernel/InStream.h"

#include <string>

namespace Raster {
class CompressedRasterData;

/// Where a file model reads: exactly one of a path, bytes in memory, or a stream. The path is copied.
class RASTER_API FileSource {
public:
    FileSource();
    explicit FileSource(char const * path); ///< UTF-8; null is none
    explicit FileSource(Kernel::Counted<CompressedRasterData const> data);
    explicit FileSource(Kernel::Counted<Kernel::InStreamSeekable> stream);
    FileSource(FileSource const &);
    FileSource & operator=(FileSource const &);
    ~FileSource();

    /// A stream over the source: a new one at the start of a path's file or of bytes in memory, the one that was given
    /// otherwise. Null, with a reason in `why`, if the file can't be opened (it isn't there, isn't readable, is a
    /// directory or a pipe) or the source is none.
    Kernel::Counted<Kernel::InStreamSeekable> Open(std::string & why) const;

    /// Null unless the source is a path, or bytes in memory.
    char const * GetPath() const;
    Kernel::Counted<CompressedRasterData const> GetData() const;

private:
    std::string path;
    bool hasPath = false;
    Kernel::Counted<CompressedRasterData const> data;
    Kernel::Counted<Kernel::InStreamSeekable> stream;
};
}
