// Opens bytes as a file of whatever type they look like, and draws what is in it.
#include "DecodingLimit.h"
#include "FuzzTarget.h"

#include "colour/ICCProfile.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"

#include <algorithm>
#include <exception>

using namespace Raster;
using Fuzz::Expect;

namespace {
constexpr int mostDrawn = 300; // pixels of a side, for speed
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Fuzz::LimitDecoding();
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
