// What formats are like: a program that learns a format at run time asks about it here.
#include "pixel/ChannelParams.h"
#include "pixel/ChannelTuple.h"
#include "pixel/FormatFunctions.h"

#include <cstdio>
#include <cstdlib>

namespace {
#define NAME_OF_FORMAT(format, ...) #format,
constexpr char const * names[] = {RASTER_FOR_EACH_FORMAT(NAME_OF_FORMAT)};
#define NUMBER_OF_FORMAT(format, ...) Raster::format,
constexpr Raster::Format formats[] = {RASTER_FOR_EACH_FORMAT(NUMBER_OF_FORMAT)};

/// One switch from a format to its tuple; all that follows is known when this is compiled.
std::size_t GetPixelSize(Raster::Format format) {
    return Raster::VisitFormat(format, []<class Tuple>(Tuple) { return Tuple::pixelSize; });
}
}

int main() {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < std::size(formats); ++i) {
        auto const format = formats[i];
        bytes += GetPixelSize(format);
        std::printf("%-7s %2zu bytes, mask in format %u:", names[i], GetPixelSize(format),
                    unsigned(Raster::GetCompatibleMaskFormat(format)));
        auto const channels =
            Raster::VisitFormat(format, []<class Tuple>(Tuple) { return Raster::GetChannelInfoOf<Tuple>(); });
        for (auto const & channel : channels)
            if (channel.present)
                std::printf(" %s%s 0..%g", channel.name.GetCharacters(), channel.isAlpha ? " (alpha)" : "",
                            double(channel.maximum));
        std::printf("\n");
    }
    // Formats that don't exist are no error: every answer is empty.
    bool const isRight = bytes == 54 && GetPixelSize(Raster::NoFormat) == 0 &&
                         Raster::GetAlphaChannelIndex(static_cast<Raster::Format>(77)) == 0;
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}
