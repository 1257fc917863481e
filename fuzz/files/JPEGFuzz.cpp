// Reads a JPEG; what can be read is written, and must open again.
#include "FuzzTarget.h"

#include "files/ImageLimits.h"
#include "files/jpeg/DynamicJPEG.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"

#include <cstdlib>
#include <type_traits>
#include <vector>

using namespace Raster;

namespace {
constexpr std::uint64_t mostPixels = 1 << 16; // per run, for speed

void Expect(bool isTrue) {
    if (!isTrue)
        std::abort();
}

template<class Typed>
std::vector<typename Typed::PixelType> ReadPixels(Typed const & jpeg) {
    std::vector<typename Typed::PixelType> pixels;
    typename Typed::template ConstPixelAccessor<Safe, IdentityTransform> accessor(&jpeg);
    auto const rect = accessor.GetSafeRect();
    for (int y = rect.top; y < rect.bottom; ++y) {
        accessor.SetToXY(0, y);
        for (int x = rect.left; x < rect.right; ++x, accessor.Increment())
            accessor.Read(pixels.emplace_back());
    }
    return pixels;
}

template<class Typed>
void WriteAndOpenAgain(Typed const & jpeg, std::vector<typename Typed::PixelType> pixels) {
    ExportOptions options;
    options.SetICCProfile(jpeg.GetProfile());
    options.SetProgressive(pixels.size() % 2 == 0);
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    Typed written(Kernel::Counted<Kernel::OutStream>(stream), jpeg.GetWidth(), jpeg.GetHeight(), options);
    written.SetImageResourceBlocksData(jpeg.GetImageResourceBlocksData());
    {
        typename Typed::template PixelAccessor<AllChannels> accessor(&written);
        auto pixel = pixels.begin();
        for (int y = 0; y < jpeg.GetHeight(); ++y) {
            accessor.SetToXY(0, y);
            for (int x = 0; x < jpeg.GetWidth(); ++x, accessor.Increment())
                accessor.Write(*pixel++);
        }
    }
    Typed const again(Kernel::Counted<Kernel::InStreamSeekable>(
        Kernel::MakeCounted<Kernel::MemoryInStream>(stream->GetData(), stream->GetSize())));
    Expect(ReadPixels(again).size() == pixels.size() && again.GetWarningCount() == 0);
    Expect(!jpeg.GetProfile() || again.GetProfile() == jpeg.GetProfile());
}

template<class Typed>
void Try(Typed const & jpeg) {
    auto const pixelCount = std::uint64_t(jpeg.GetWidth()) * std::uint64_t(jpeg.GetHeight());
    bool isRead = false;
    try {
        jpeg.Decode(nullptr);
        isRead = true;
    } catch (JPEGError const &) {
    }
    Expect(isRead || jpeg.HasFailed());
    if (pixelCount > mostPixels)
        return;
    auto const pixels = ReadPixels(jpeg);
    Expect(pixels.size() == (jpeg.HasFailed() ? 0 : pixelCount));
    if (!pixels.empty())
        WriteAndOpenAgain(jpeg, pixels);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    static bool const isLimited = [] {
        auto limits = GetImageLimits();
        limits.largestDecodedBytes = std::uint64_t(512) << 20;
        SetImageLimits(limits);
        return true;
    }();
    static_cast<void>(isLimited);
    DynamicJPEG jpeg;
    jpeg.CreateFromStream(
        Kernel::Counted<Kernel::InStreamSeekable>(Kernel::MakeCounted<Kernel::MemoryInStream>(data, size)));
    Expect((jpeg.GetFormat() == NoFormat) == jpeg.HasFailed());
    Expect(jpeg.GetOrientation() >= 1 && jpeg.GetOrientation() <= 8);
    jpeg.Dispatch([](auto const & typed) {
        using Typed = std::remove_cvref_t<decltype(typed)>;
        if constexpr (std::is_same_v<typename Typed::Tuple, RGBA8Tuple> ||
                      std::is_same_v<typename Typed::Tuple, IA8Tuple> ||
                      std::is_same_v<typename Typed::Tuple, CMYKA8Tuple>)
            Try(typed);
        return true;
    });
    return 0;
}
