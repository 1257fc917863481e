#pragma once

#include "kernel/Export.h"

#include <stdexcept>

namespace Raster {
/// A PNG file could not be written. The text is the codec's own.
class RASTER_API PNGError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~PNGError() override;
};
}
