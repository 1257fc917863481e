#pragma once

#include "kernel/Export.h"

#include <stdexcept>
#include <string>

namespace Kernel {
/// A document can't be opened, read or saved. The text says what is wrong, for the user.
class RASTER_API ArchiveError : public std::runtime_error {
public:
    enum class Kind {
        NotFound,    ///< there is no such file, or it can't be read or written
        NotArchive,  ///< the file is something else
        Future,      ///< written by a later version
        Damaged,     ///< bytes don't match their checksums, or are missing
        Changed,     ///< another program has saved the document since it was opened, or put one there
        Busy,        ///< another program is saving it at this moment
        WriteFailed, ///< nothing was committed: the document is as it was
        Unknown      ///< the last sync failed: the document is the old or the new one, now or after a power cut
    };

    ArchiveError(Kind errorKind, std::string const & what);
    ~ArchiveError() override;
    Kind GetKind() const noexcept { return kind; }

private:
    Kind kind;
};
}
