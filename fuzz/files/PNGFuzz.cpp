// Reads a PNG; what can be read is written, and read again. Chunks carry checksums, which hide what is behind them from
// random changes: so the same bytes are also read with their checksums put right.
#include "DecodingLimit.h"
#include "files/PixelRoundTrip.h"

#include "files/png/DynamicPNG.h"
#include "kernel/CRC32.h"

#include <algorithm>

using namespace Raster;
using Fuzz::Expect;

namespace {
template<class Typed>
void Try(Typed const & png) {
    if (Fuzz::GetPixelCount(png) > Fuzz::mostPixels) {
        png.Decode(nullptr);
        return;
    }
    auto const pixels = Fuzz::ReadAllOrNone(png);
    if (pixels.empty())
        return;
    ExportOptions options;
    options.SetICCProfile(png.GetProfile());
    Fuzz::WriteAndOpenAgain(
        png, pixels, options, [](Typed &) {},
        [&](Typed const & again) { Expect(Fuzz::ReadPixels(again) == pixels && !again.HasFailed()); });
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
    Fuzz::OpenFile(png, data, size, [](auto const & typed) {
        using Typed = std::remove_cvref_t<decltype(typed)>;
        if constexpr (Typed::Tuple::channelCount > 1)
            Try(typed);
    });
    Expect(!png.GetProfile() || png.GetProfile()->GetHandle());
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Fuzz::LimitDecoding();
    ReadFile(data, size);
    std::vector<std::uint8_t> repaired(data, data + size);
    RepairChecksums(repaired);
    if (!std::equal(repaired.begin(), repaired.end(), data))
        ReadFile(repaired.data(), size);
    return 0;
}
