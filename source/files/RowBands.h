/// Pictures that are decoded some rows at a time, so that nobody has to hold all of one.
#pragma once

#include "files/DecodedPixels.h"
#include "kernel/Export.h"

#include <cstddef>
#include <exception>
#include <functional>

namespace Raster {
/// How a picture is cut into bands from its top: the first may have fewer rows than the others, and the last one also
/// has what is left over, which is less than another band.
class RASTER_API BandCut {
public:
    /// @param bandHeight   at least 1
    /// @param firstHeight  1 to `bandHeight`
    BandCut(int givenHeight, int givenBandHeight, int givenFirstHeight);
    BandCut(int givenHeight, int givenBandHeight) : BandCut(givenHeight, givenBandHeight, givenBandHeight) {}

    int GetCount() const { return count; } ///< At least 1.
    /// Of band `index`; of the one behind the last: the height of the picture.
    int GetTop(int index) const;

private:
    int height, bandHeight, firstHeight, count;
};

/// What gets the bands of a picture: `take(band, top)`, `band` being rows of the picture from row `top` on, in the
/// codec's layout. They are gone afterwards.
using BandTaker = std::function<void(DecodedPixels const & band, int top)>;

/// Has a codec decode band by band on the calling thread, each being taken while the next one is decoded: see
/// `Kernel::Dispatch::DispatchPipeline`. Two bands are in memory. Throws what `read` throws.
/// @param read  fills the first `rowCount` rows of the band. False if it was aborted: that was all then.
/// @return what `take` threw, which ends the work; null if nothing
RASTER_API std::exception_ptr DecodeBandByBand(BandCut const & cut, int width, std::size_t pixelBytes,
                                               std::function<bool(DecodedPixels & band, int rowCount)> const & read,
                                               BandTaker const & take);
}
