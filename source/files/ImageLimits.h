#pragma once

#include "kernel/Export.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Raster {
/// What a picture in a file may ask for at most. Applied before memory is taken; the defaults refuse nothing that
/// people work with. One record for the process.
struct ImageLimits {
    std::uint64_t largestSide = 1 << 20;                          ///< pixels, width and height each
    std::uint64_t largestPixelCount = std::uint64_t(1) << 34;     ///< width times height
    std::uint64_t largestDecodedBytes = 0;                        ///< of one file, its codec's work memory included
    std::uint64_t largestProfileBytes = std::uint64_t(64) << 20;  ///< of one embedded profile
    std::uint64_t largestMetadataBytes = std::uint64_t(64) << 20; ///< of one block of metadata
};

/// The limits in force. At first `largestDecodedBytes` is 4 GiB or half of the machine's memory, whichever is less.
/// Threads: both may be called from any thread; files that are being decoded keep the limits that they began with.
RASTER_API ImageLimits GetImageLimits();
/// @param limits  a `largestDecodedBytes` of 0 stands for the default.
RASTER_API void SetImageLimits(ImageLimits const & limits);

/// A file asks for more than a limit allows. The text names the limit, what was needed and what is allowed.
class RASTER_API ImageLimitError : public std::runtime_error {
public:
    ImageLimitError(char const * limitName, std::uint64_t needed, std::uint64_t allowed);
    ~ImageLimitError() override;
};

/// Throws `ImageLimitError` if a picture of this size may not be opened.
/// @param bytesPerPixel  of the decoded form.
/// @param codecBytes  what the codec takes beside the decoded pixels.
RASTER_API void CheckImageSize(std::uint64_t width, std::uint64_t height, std::uint64_t bytesPerPixel,
                               std::uint64_t codecBytes = 0);
}
