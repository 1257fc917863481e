// One colour in every format: DynamicPixel converts what it is given into all of its views.
#include "pixel/DynamicPixel.h"

#include <cstdio>
#include <cstdlib>

namespace {
template<class Tuple>
void Print(char const * name, Raster::DynamicPixel const & colour) {
    Raster::PixelOf<Tuple> const & pixel = colour;
    std::printf("  %-7s", name);
    for (auto const sample : pixel.channels)
        std::printf(" %g", double(sample));
    std::printf("\n");
}

void PrintAll(char const * title, Raster::DynamicPixel const & colour) {
    std::printf("%s\n", title);
#define PRINT_VIEW(view) Print<Raster::view##Tuple>(#view, colour);
    RASTER_FOR_EACH_VIEW(PRINT_VIEW)
#undef PRINT_VIEW
}
}

int main() {
    Raster::DynamicPixel colour = Raster::PixelOf<Raster::RGBA8Tuple>{255, 128, 0, 255};
    PrintAll("orange, given as RGBA8", colour);
    Raster::PixelOf<Raster::RGBA16Tuple> const deep = colour;

    colour = Raster::PixelOf<Raster::CMYKA8Tuple>{255, 0, 0, 0, 255};
    PrintAll("cyan ink, given as CMYKA8", colour);
    Raster::PixelOf<Raster::RGBA8Tuple> const printed = colour;

    bool const isRight = deep == Raster::PixelOf<Raster::RGBA16Tuple>{65535, 32896, 0, 65535} &&
                         printed == Raster::PixelOf<Raster::RGBA8Tuple>{0, 255, 255, 255};
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}
