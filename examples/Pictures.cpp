// A picture that is drawn, written as JPEG and as PNG, and read back: the road of a file, both ways.
//
//   Pictures                   does it in memory
//   Pictures FOLDER [WIDTH]    leaves landscape.jpg and badge.png in that folder
#include "colour/ICCManager.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "kernel/FastFileOutStream.h"
#include "kernel/MemoryOutStream.h"
#include "storage/Bitmap.h"
#include "storage/Block.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/Tile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {
using Bitmap = Raster::BitmapOf<Raster::RGBA8Tuple>;
using Pixel = Raster::PixelOf<Raster::RGBA8Tuple>;

struct Shade {
    double red, green, blue; // 0 to 1
};

Shade Mix(Shade const & one, Shade const & other, double share) {
    double const rest = 1 - share;
    return {one.red * rest + other.red * share, one.green * rest + other.green * share,
            one.blue * rest + other.blue * share};
}

/// 0 up to `from`, 1 from `to` on, and smooth between.
double Step(double from, double to, double x) {
    double const t = std::clamp((x - from) / (to - from), 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

/// The same noise for the same place, -1 to 1.
double Grain(int x, int y) {
    auto value = static_cast<std::uint32_t>(x) * 73856093u ^ static_cast<std::uint32_t>(y) * 19349663u;
    value = (value ^ value >> 15) * 0x846ca68bu;
    return static_cast<double>((value ^ value >> 16) & 0xFFFF) / 32767.5 - 1;
}

/// How high the ridge with this number stands at x; both from 0 to 1.
double Ridge(int number, double x) {
    double height = 0.42 - 0.09 * number, size = 0.07, frequency = 3.1 + 1.7 * number;
    for (int octave = 0; octave < 6; ++octave, size *= 0.5, frequency *= 2.03)
        height += size * std::sin(frequency * x * 6.28 + number * 2.4 + octave * 1.3);
    return height;
}

/// Evening sky over four ridges, each one in more haze than the one before it. x and y from 0 to 1, y downwards.
Shade Landscape(double x, double y) {
    double const toSun = std::hypot((x - 0.68) * 1.5, y - 0.38);
    Shade const sky = Mix({0.16, 0.27, 0.55}, {0.99, 0.72, 0.42}, Step(-0.05, 0.55, y));
    Shade shade = Mix(sky, {1.0, 0.93, 0.74}, std::exp(-toSun * toSun * 40) * 0.9);
    shade = Mix(shade, {1.0, 0.99, 0.93}, 1 - Step(0.045, 0.05, toSun));
    for (int ridge = 0; ridge < 4; ++ridge) {
        double const depth = (1 - y) - Ridge(ridge, x);
        Shade const near{0.05, 0.10, 0.13}, far{0.80, 0.55, 0.50};
        Shade const colour = Mix(far, near, (ridge + 1) / 4.0 + std::clamp(-depth, 0.0, 0.25));
        shade = Mix(shade, colour, Step(0.002, -0.002, depth));
    }
    return shade;
}

std::uint8_t ToByte(double value) { return static_cast<std::uint8_t>(std::clamp(value, 0.0, 1.0) * 255 + 0.5); }

/// Writes `draw(x, y)` into every pixel.
template<class Draw>
void Fill(Bitmap & bitmap, Draw && draw) {
    Bitmap::PixelAccessor<Raster::AllChannels> writer(&bitmap);
    for (int y = 0; y < bitmap.GetHeight(); ++y) {
        writer.SetToXY(0, y);
        for (int x = 0; x < bitmap.GetWidth(); ++x, writer.Increment()) {
            Pixel pixel = draw(x, y);
            writer.Write(pixel);
        }
    }
}

Kernel::Counted<Bitmap> DrawLandscape(int width, int height) {
    Kernel::Counted<Bitmap> bitmap(
        new Bitmap(width, height, Raster::MipmapModeNone, Raster::HardwareCachePolicy::Default));
    Fill(*bitmap, [&](int x, int y) {
        Shade const shade = Landscape((x + 0.5) / width, (y + 0.5) / height);
        double const grain = Grain(x, y) * 0.012;
        return Pixel{ToByte(shade.red + grain), ToByte(shade.green + grain), ToByte(shade.blue + grain), 255};
    });
    return bitmap;
}

/// A ring around a star, on nothing.
Kernel::Counted<Bitmap> DrawBadge(int size) {
    Kernel::Counted<Bitmap> bitmap(
        new Bitmap(size, size, Raster::MipmapModeNone, Raster::HardwareCachePolicy::Default));
    Fill(*bitmap, [&](int x, int y) {
        double const u = (x + 0.5) / size * 2 - 1, v = (y + 0.5) / size * 2 - 1, edge = 3.0 / size;
        double const radius = std::hypot(u, v), star = 0.42 + 0.2 * std::cos(5 * std::atan2(u, -v));
        double const ring = Step(0.76 - edge, 0.76 + edge, radius) * Step(0.95 + edge, 0.95 - edge, radius);
        double const inStar = Step(star + edge, star - edge, radius);
        double const alpha = std::max(ring, inStar);
        Shade const shade = Mix({0.98, 0.98, 0.95}, {0.95, 0.65, 0.10}, inStar);
        return alpha == 0 ? Pixel{} : Pixel{ToByte(shade.red), ToByte(shade.green), ToByte(shade.blue), ToByte(alpha)};
    });
    return bitmap;
}

/// Writes the bitmap to the stream. A profile goes into the file only if it is asked for.
bool Write(Raster::DynamicBitmap const & bitmap, Raster::FileType type,
           Kernel::Counted<Kernel::OutStreamSeekable> const & stream) {
    Raster::ExportOptions options;
    options.SetQuality(92);
    options.SetDPI(300);
    options.SetICCProfile(Raster::ICCManager::GetInstance().GetDefaultProfileForFormat(Raster::RGBA8));
    Raster::DynamicFile file;
    return stream && file.Create(stream, bitmap.GetWidth(), bitmap.GetHeight(), options, type, Raster::RGBA8) &&
           Raster::Feed(file, bitmap, nullptr) && stream->Finish();
}

/// Writes to memory, opens what was written, draws it into a new bitmap, and says what it found.
bool WriteAndRead(char const * name, Raster::DynamicBitmap const & bitmap, Raster::FileType type) {
    Kernel::Counted<Kernel::MemoryOutStream> const stream(new Kernel::MemoryOutStream);
    if (!Write(bitmap, type, stream))
        return false;
    Kernel::Counted<Raster::CompressedRasterData> const bytes(new Raster::CompressedRasterData);
    bytes->CopyFrom(stream->GetData(), stream->GetSize());

    Raster::DynamicFile file;
    if (!file.Create(bytes) || file.GetFormat() != Raster::RGBA8)
        return false;
    Raster::DynamicBitmap read(file.GetWidth(), file.GetHeight(), file.GetFormat(), Raster::MipmapModeNone,
                               Raster::HardwareCachePolicy::Default);
    Raster::Draw(read, file, nullptr, nullptr, 0, 0);
    auto const profile = file.GetProfile();
    std::printf("%s: %d x %d pixels in %llu bytes, %g dpi, profile %s\n", name, read.GetWidth(), read.GetHeight(),
                static_cast<unsigned long long>(stream->GetSize()), file.GetDPI(),
                profile ? profile->GetProfileName().GetCharacters() : "none");
    return !file.HasFailed() && read.GetAlphaBoundingBox() == bitmap.GetAlphaBoundingBox() && file.GetDPI() == 300;
}

bool WriteFile(std::string const & path, Raster::DynamicBitmap const & bitmap, Raster::FileType type) {
    std::printf("%s: %d x %d pixels\n", path.c_str(), bitmap.GetWidth(), bitmap.GetHeight());
    return Write(bitmap, type, Kernel::FastFileOutStream::Create(path.c_str()));
}
}

int main(int argumentCount, char ** arguments) {
    // Once, before there are bitmaps: what all tiles share, and where tiles go when memory is full.
    Raster::Tile::InitStaticTiles();
    Raster::Block::InitStaticBlock();
    Raster::Block::InitBackstore("/var/tmp");

    int const width = argumentCount > 2 ? std::clamp(std::atoi(arguments[2]), 3, 30000) : 600;
    Raster::DynamicBitmap const landscape(DrawLandscape(width, width * 2 / 3));
    Raster::DynamicBitmap const badge(DrawBadge(width / 3));
    bool isRight;
    if (argumentCount > 1) {
        std::string const folder = arguments[1];
        isRight = WriteFile(folder + "/landscape.jpg", landscape, Raster::FileTypeJPEG) &&
                  WriteFile(folder + "/badge.png", badge, Raster::FileTypePNG);
    } else {
        isRight = WriteAndRead("landscape as JPEG", landscape, Raster::FileTypeJPEG) &&
                  WriteAndRead("badge as PNG", badge, Raster::FileTypePNG);
    }
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}
