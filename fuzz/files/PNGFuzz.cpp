// Reads a PNG; what can be read is written, and read again. Chunks carry checksums, which hide what is behind them from
// random changes: so the same bytes are also read with their checksums put right.
#include "FuzzTarget.h"

#include "files/ImageLimits.h"
#include "files/png/DynamicPNG.h"
#include "kernel/CRC32.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"

#include <algorithm>
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
std::vector<typename Typed::PixelType> ReadPixels(Typed const & png) {
    std::vector<typename Typed::PixelType> pixels;
    typename Typed::template ConstPixelAccessor<Safe, IdentityTransform> accessor(&png);
    auto const rect = accessor.GetSafeRect();
    for (int y = rect.top; y < rect.bottom; ++y) {
        accessor.SetToXY(0, y);
        for (int x = rect.left; x < rect.right; ++x, accessor.Increment())
            accessor.Read(pixels.emplace_back());
    }
    return pixels;
}

template<class Typed>
void WriteAndReadAgain(Typed const & png, std::vector<typename Typed::PixelType> pixels) {
    ExportOptions options;
    options.SetICCProfile(png.GetProfile());
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    Typed written(Kernel::Counted<Kernel::OutStream>(stream), png.GetWidth(), png.GetHeight(), options);
    {
        typename Typed::template PixelAccessor<AllChannels> accessor(&written);
        auto pixel = pixels.begin();
        for (int y = 0; y < png.GetHeight(); ++y) {
            accessor.SetToXY(0, y);
            for (int x = 0; x < png.GetWidth(); ++x, accessor.Increment())
                accessor.Write(*pixel++);
        }
    }
    Typed const again(Kernel::Counted<Kernel::InStreamSeekable>(
        Kernel::MakeCounted<Kernel::MemoryInStream>(stream->GetData(), stream->GetSize())));
    Expect(ReadPixels(again) == pixels && !again.HasFailed());
}

template<class Typed>
void Try(Typed const & png) {
    auto const pixelCount = std::uint64_t(png.GetWidth()) * std::uint64_t(png.GetHeight());
    if (pixelCount > mostPixels) {
        png.Decode(nullptr);
        return;
    }
    auto const pixels = ReadPixels(png);
    Expect(pixels.size() == (png.HasFailed() ? 0 : pixelCount));
    if (!pixels.empty())
        WriteAndReadAgain(png, pixels);
}

void RepairChecksums(std::vector<std::uint8_t> & file) {
    auto const get = [&](std::size_t at) {
        return std::uint32_t(file[at]) << 24 | std::uint32_t(file[at + 1]) << 16 | std::uint32_t(file[at + 2]) << 8 |
               file[at + 3];
    };
    for (std::size_t at = 8; at + 12 <= file.size();) { // length, name, data, checksum
        std::size_t const length = get(at);
        if (length > file.size() - at - 12)
            return;
        std::uint32_t const checksum = Kernel::CRC32::Instance().DataCRC32(&file[at + 4], length + 4);
        for (std::size_t i = 0; i < 4; ++i)
            file[at + 8 + length + i] = static_cast<std::uint8_t>(checksum >> (24 - 8 * i));
        at += length + 12;
    }
}

void ReadFile(std::uint8_t const * data, std::size_t size) {
    DynamicPNG png;
    png.CreateFromStream(
        Kernel::Counted<Kernel::InStreamSeekable>(Kernel::MakeCounted<Kernel::MemoryInStream>(data, size)));
    Expect((png.GetFormat() == NoFormat) == png.HasFailed());
    if (png.GetProfile())
        Expect(png.GetProfile()->GetHandle() != nullptr);
    png.Dispatch([](auto const & typed) {
        using Typed = std::remove_cvref_t<decltype(typed)>;
        if constexpr (Typed::Tuple::channelCount > 1)
            Try(typed);
        return true;
    });
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
    ReadFile(data, size);
    std::vector<std::uint8_t> repaired(data, data + size);
    RepairChecksums(repaired);
    if (!std::equal(repaired.begin(), repaired.end(), data))
        ReadFile(repaired.data(), size);
    return 0;
}
