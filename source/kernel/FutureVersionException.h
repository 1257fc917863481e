#pragma once

#include "kernel/Export.h"

#include <stdexcept>

namespace Kernel {
/// The file was written by a later version of the software, and can't be read by this one.
class RASTER_API FutureVersionException : public std::runtime_error {
public:
    FutureVersionException();
    ~FutureVersionException() override;
};
}
