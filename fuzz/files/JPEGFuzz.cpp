// Reads a JPEG; what can be read is written, and must open again.
#include "DecodingLimit.h"
#include "files/PixelRoundTrip.h"

#include "files/jpeg/DynamicJPEG.h"

using namespace Raster;
using Fuzz::Expect;

namespace {
template<class Typed>
void WriteAgain(Typed const & jpeg, Fuzz::PixelsOf<Typed> const & pixels) {
    ExportOptions options;
    options.SetICCProfile(jpeg.GetProfile());
    options.SetProgressive(pixels.size() % 2 == 0);
    Fuzz::WriteAndOpenAgain(
        jpeg, pixels, options,
        [&](Typed & written) { written.SetImageResourceBlocksData(jpeg.GetImageResourceBlocksData()); },
        [&](Typed const & again) {
            Expect(Fuzz::ReadPixels(again).size() == pixels.size() && again.GetWarningCount() == 0);
            Expect(!jpeg.GetProfile() || again.GetProfile() == jpeg.GetProfile());
        });
}

template<class Typed>
void Try(Typed const & jpeg) {
    bool isRead = false;
    try {
        jpeg.Decode(nullptr);
        isRead = true;
    } catch (JPEGError const &) {
    }
    Expect(isRead || jpeg.HasFailed());
    if (Fuzz::GetPixelCount(jpeg) > Fuzz::mostPixels)
        return;
    auto const pixels = Fuzz::ReadAllOrNone(jpeg);
    if (!pixels.empty())
        WriteAgain(jpeg, pixels);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Fuzz::LimitDecoding();
    DynamicJPEG jpeg;
    Fuzz::OpenFile(jpeg, data, size, [](auto const & typed) {
        using Typed = std::remove_cvref_t<decltype(typed)>;
        if constexpr (std::is_same_v<typename Typed::Tuple, RGBA8Tuple> ||
                      std::is_same_v<typename Typed::Tuple, IA8Tuple> ||
                      std::is_same_v<typename Typed::Tuple, CMYKA8Tuple>)
            Try(typed);
    });
    Expect(jpeg.GetOrientation() >= 1 && jpeg.GetOrientation() <= 8);
    return 0;
}
