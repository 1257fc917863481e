#pragma once

#include "kernel/Export.h"

#include <stdexcept>

namespace Raster {
/// The JPEG codec gave up. The text is the codec's own.
class RASTER_API JPEGError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~JPEGError() override;
};
}
