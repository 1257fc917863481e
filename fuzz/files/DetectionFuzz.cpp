// Opens bytes as a file of whatever type they look like, and draws what is in it: kept, and while it decodes.
#include "DecodingLimit.h"
#include "FuzzTarget.h"

#include "colour/ICCProfile.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>

using namespace Raster;
using Fuzz::Expect;

namespace {
constexpr int mostDrawn = 300; // pixels of a side, for speed

struct Drawn {
    DynamicBitmap bitmap;
    bool hasFailed = false;
    std::string failure;
};

template<class Function>
Drawn DrawBy(Kernel::Counted<CompressedRasterData const> const & bytes, Function draw) {
    DynamicFile file;
    file.Create(bytes);
    Drawn drawn;
    try {
        drawn.bitmap.Create(std::min(file.GetWidth(), mostDrawn), std::min(file.GetHeight(), mostDrawn),
                            file.GetFormat(), MipmapModeNone, HardwareCachePolicy());
        draw(drawn.bitmap, file);
    } catch (std::exception const &) {
        Expect(file.HasFailed());
    }
    drawn.hasFailed = file.HasFailed();
    drawn.failure = file.GetFailure();
    return drawn;
}

std::array<unsigned char, 16> GetDigest(DynamicBitmap const & bitmap) {
    std::array<unsigned char, 16> digest{};
    GetBitmapMD5Digest(digest.data(), Kernel::MakeCounted<DynamicBitmap const>(bitmap));
    return digest;
}

// Of what was drawn before a failure nothing is said.
void ExpectEqual(Drawn const & a, Drawn const & b) {
    Expect(a.hasFailed == b.hasFailed && a.failure == b.failure);
    if (!a.hasFailed)
        Expect(GetDigest(a.bitmap) == GetDigest(b.bitmap));
}
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
    auto const kept = DrawBy(
        bytes, [](DynamicBitmap & bitmap, DynamicFile & source) { Draw(bitmap, source, nullptr, nullptr, 0, 0); });
    auto const once = DrawBy(
        bytes, [](DynamicBitmap & bitmap, DynamicFile & source) { DrawOnce(bitmap, source, nullptr, nullptr, 0, 0); });
    ExpectEqual(kept, once);
    return 0;
}
