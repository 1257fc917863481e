#include "files/RowBands.h"

#include "kernel/Dispatch.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

namespace Raster {
BandCut::BandCut(int givenHeight, int givenBandHeight, int givenFirstHeight)
    : height(givenHeight), bandHeight(givenBandHeight), firstHeight(givenFirstHeight),
      count(height > firstHeight ? 1 + (height - firstHeight) / bandHeight : 1) {}

int BandCut::GetTop(int index) const {
    if (index <= 0)
        return 0;
    return index < count ? firstHeight + (index - 1) * bandHeight : height;
}

std::exception_ptr DecodeBandByBand(BandCut const & cut, int width, std::size_t pixelBytes,
                                    std::function<bool(DecodedPixels & band, int rowCount)> const & read,
                                    BandTaker const & take) {
    std::array<DecodedPixels, 2> room;
    std::exception_ptr takerFailure; // the first; written before the flag, read when all is done
    std::atomic<bool> hasTakerFailed{false};
    auto const getTop = [&](std::uint64_t index) { return cut.GetTop(static_cast<int>(index)); };
    auto const getHeight = [&](std::uint64_t index) { return getTop(index + 1) - getTop(index); };
    auto const count = static_cast<std::uint64_t>(cut.GetCount());
    auto const decode = [&](std::uint64_t index) {
        if (hasTakerFailed || index >= count)
            return false;
        int const rowCount = getHeight(index);
        auto & band = room[index % room.size()];
        if (band.IsEmpty()) {
            int most = 0; // of all that will stand in this room
            for (auto later = index; later < count; later += room.size())
                most = std::max(most, getHeight(later));
            band = DecodedPixels(width, most, pixelBytes);
        }
        band.SetHeight(rowCount);
        return read(band, rowCount);
    };
    auto const use = [&](std::uint64_t index) {
        if (hasTakerFailed)
            return;
        try {
            take(room[index % room.size()], getTop(index));
        } catch (...) {
            takerFailure = std::current_exception();
            hasTakerFailed = true;
        }
    };
    Kernel::Dispatch::Pipeline(room.size(), decode, use);
    return takerFailure;
}
}
