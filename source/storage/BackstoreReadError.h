#pragma once

#include "kernel/Export.h"

#include <stdexcept>

namespace Raster {
/// Bytes that were moved to disk could not be read back. They are not lost: the next session tries again.
class RASTER_API BackstoreReadError : public std::runtime_error {
public:
    explicit BackstoreReadError(int error);
    BackstoreReadError(BackstoreReadError const &) noexcept;
    ~BackstoreReadError() override;

    int GetError() const noexcept { return error; } ///< The `errno` of the read; 0 if the file ended early.

private:
    int error;
};
}
