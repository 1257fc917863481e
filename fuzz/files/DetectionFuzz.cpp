// Opens bytes as a file of whatever type they look like, and draws what is in it.
#include "FuzzTarget.h"

#include "colour/ICCProfile.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "files/ImageLimits.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

using namespace Raster;

namespace {
constexpr int mostDrawn = 300; // pixels of a side, for speed

void Expect(bool isTrue) {
    if (!isTrue)
        std::abort();
}

void LimitOnce() {
    static bool const isLimited = [] {
        auto limits = GetImageLimits();
        limits.largestDecodedBytes = std::uint64_t(512) << 20;
        SetImageLimits(limits);
        return true;
    }();
    static_cast<void>(isLimited);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    LimitOnce();
    auto const bytes = Kernel::MakeCounted<CompressedRasterData>();
    bytes->CopyFrom(data, size);
    DynamicFile file;
    bool const isKnown = file.Create(Kernel::Counted<CompressedRasterData const>(bytes));
    Expect(isKnown || file.HasFailed());
    Expect(file.GetFormat() != NoFormat || (file.HasFailed() && file.GetWidth() == 0 && file.GetHeight() == 0));
    Expect(file.GetOrientation() >= 1 && file.GetOrientation() <= 8);
    Expect(!file.GetProfile() || file.GetProfile()->GetHandle());
    if (file.GetFormat() == NoFormat)
        return 0;
    try {
        DynamicBitmap bitmap(std::min(file.GetWidth(), mostDrawn), std::min(file.GetHeight(), mostDrawn),
                             file.GetFormat(), MipmapModeNone, HardwareCachePolicy());
        Draw(bitmap, file, nullptr, nullptr, 0, 0);
    } catch (std::exception const &) {
        Expect(file.HasFailed());
    }
    return 0;
}
