#include "files/png/PNGReader.h"

#include "files/ImageLimits.h"
#include "kernel/Abort.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <utility>

namespace Raster {
namespace {
// Chunks that say nothing about pixels, their colours or their size. They are skipped, compressed text in particular:
// a few kilobytes of it can grow to megabytes each. Those in the second line matter, but not to the samples.
constexpr png_byte skippedChunks[] = "bKGD\0eXIf\0hIST\0iTXt\0oFFs\0pCAL\0sBIT\0sCAL\0sPLT\0tEXt\0tIME\0zTXt\0"
                                     "cHRM\0gAMA\0iCCP\0pHYs\0sRGB";
constexpr int skippedInRows = sizeof(skippedChunks) / 5, skippedInHeader = skippedInRows - 5;
static_assert(sizeof(skippedChunks) % 5 == 0, "four letters and a zero each");

Format ChooseFormat(int colourType, int depth) {
    bool const isGrey = colourType == PNG_COLOR_TYPE_GRAY || colourType == PNG_COLOR_TYPE_GRAY_ALPHA;
    switch (depth) {
    case 1:
    case 2:
    case 4:
    case 8:
        return isGrey ? IA8 : RGBA8;
    case 16:
        return isGrey ? IA16 : RGBA16;
    default:
        return NoFormat;
    }
}
}

PNGReader::PNGReader(Kernel::InStream & source) : stream(source) {
    png = png_create_read_struct(version, static_cast<PNGSession *>(this), OnError, OnWarning);
    if (!png)
        throw std::bad_alloc();
    info = png_create_info_struct(png);
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        throw std::bad_alloc();
    }
}

PNGReader::~PNGReader() { png_destroy_read_struct(&png, &info, nullptr); }

void PNGReader::OnRead(png_structp png, png_bytep dest, std::size_t size) {
    auto & reader = *static_cast<PNGReader *>(png_get_io_ptr(png));
    if (char const * const failure = reader.Read(dest, size))
        png_error(png, failure);
}

char const * PNGReader::Read(unsigned char * dest, std::size_t size) noexcept {
    try {
        return stream.ReadAll(dest, size) ? nullptr : "the file ends early";
    } catch (...) {
        thrown = std::current_exception();
        return "the file can't be read";
    }
}

void PNGReader::ConfigureStep(PNGReader & reader) {
    auto * const png = reader.png;
    png_set_benign_errors(png, 1);
    png_set_read_fn(png, &reader, OnRead);
    png_set_user_limits(png, reader.widest, reader.highest);
    png_set_chunk_malloc_max(png, static_cast<png_alloc_size_t>(reader.largestChunk));
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, skippedChunks, reader.skippedCount);
}

void PNGReader::ReadInfoStep(PNGReader & reader) { png_read_info(reader.png, reader.info); }

void PNGReader::StartRowsStep(PNGReader & reader) {
    png_set_expand(reader.png);
    reader.passCount = png_set_interlace_handling(reader.png);
    png_read_update_info(reader.png, reader.info);
}

void PNGReader::ReadRowsStep(PNGReader & reader) {
    for (int pass = 0; pass < reader.passCount; ++pass)
        for (int y = 0; y < reader.rowCount; ++y) {
            if (Kernel::IsAborted(reader.abort)) {
                reader.wasAborted = true;
                return;
            }
            png_read_row(reader.png, reader.rows + static_cast<std::size_t>(y) * reader.stride, nullptr);
        }
}

void PNGReader::RunOrThrow(void (*step)(PNGReader &)) {
    if (Run(*this, step))
        return;
    if (thrown)
        std::rethrow_exception(std::exchange(thrown, nullptr));
    throw PNGReadError(DescribeFailure());
}

void PNGReader::Configure(std::uint32_t widestAllowed, std::uint32_t highestAllowed, int firstSkipped) {
    skippedCount = firstSkipped;
    auto const limits = GetImageLimits();
    widest = widestAllowed;
    highest = highestAllowed;
    largestChunk = std::clamp<std::uint64_t>(std::max(limits.largestProfileBytes, limits.largestMetadataBytes), 4096,
                                             PNG_UINT_31_MAX);
    RunOrThrow(ConfigureStep);
}

// The codec takes no memory for the pixels yet. So that a refusal can name the limit, the codec has none of its own.
void PNGReader::ReadUpToPixels(int firstSkipped) {
    Configure(PNG_UINT_31_MAX, PNG_UINT_31_MAX, firstSkipped);
    RunOrThrow(ReadInfoStep);
    CheckImageSize(png_get_image_width(png, info), png_get_image_height(png, info), 0);
}

Format PNGReader::ReadFormat() {
    ReadUpToPixels(skippedInRows);
    return ChooseFormat(png_get_color_type(png, info), png_get_bit_depth(png, info));
}

PNGHeader PNGReader::ReadHeader() {
    ReadUpToPixels(skippedInHeader);
    return GetHeader();
}

DecodedPixels PNGReader::ReadPixels(PNGHeader const & expected, bool const * givenAbort) {
    // Before the codec takes memory for its rows.
    DecodedPixels pixels(expected.width, expected.height, expected.GetPixelBytes());
    abort = givenAbort;
    Prepare(expected);
    ReadRows(pixels, pixels.GetHeight());
    return pixels;
}

std::exception_ptr PNGReader::ReadBands(PNGHeader const & expected, BandCut const & cut, BandTaker const & take,
                                        bool const * givenAbort) {
    CheckImageSize(static_cast<std::uint64_t>(expected.width), static_cast<std::uint64_t>(expected.height),
                   expected.GetPixelBytes());
    abort = givenAbort;
    Prepare(expected);
    if (passCount != 1)
        throw PNGReadError("PNG: the file has changed since it was opened");
    return DecodeBandByBand(
        cut, expected.width, expected.GetPixelBytes(),
        [&](DecodedPixels & band, int count) { return ReadRows(band, count); }, take);
}

// Everything before the rows.
void PNGReader::Prepare(PNGHeader const & expected) {
    Configure(static_cast<std::uint32_t>(expected.width), static_cast<std::uint32_t>(expected.height), skippedInRows);
    RunOrThrow(ReadInfoStep);
    auto const width = png_get_image_width(png, info), height = png_get_image_height(png, info);
    if (width == static_cast<png_uint_32>(expected.width) && height == static_cast<png_uint_32>(expected.height))
        RunOrThrow(StartRowsStep);
    if (png_get_rowbytes(png, info) != static_cast<std::size_t>(expected.width) * expected.GetPixelBytes() ||
        passCount == 0 || png_get_channels(png, info) != expected.GetChannels())
        throw PNGReadError("PNG: the file has changed since it was opened");
}

/// The next rows, or all of an interlaced file.
/// @return false if it was aborted
bool PNGReader::ReadRows(DecodedPixels & pixels, int count) {
    rows = pixels.GetRow(0);
    stride = pixels.GetStride();
    rowCount = count;
    RunOrThrow(ReadRowsStep);
    return !wasAborted;
}

PNGHeader PNGReader::GetHeader() const {
    PNGHeader header;
    header.width = static_cast<int>(png_get_image_width(png, info)); // at most 31 bits, by the limits
    header.height = static_cast<int>(png_get_image_height(png, info));
    int const colourType = png_get_color_type(png, info), depth = png_get_bit_depth(png, info);
    header.format = ChooseFormat(colourType, depth);
    header.colourChannels = (colourType & PNG_COLOR_MASK_COLOR) != 0 ? 3 : 1;
    header.isInterlaced = png_get_interlace_type(png, info) != PNG_INTERLACE_NONE;
    header.hasAlpha = (colourType & PNG_COLOR_MASK_ALPHA) != 0 || png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    header.sampleBytes = std::max(depth / 8, 1);
    header.dpi = GetDPI();
    header.profile = GetProfile();
    header.palette = GetPalette();
    return header;
}

double PNGReader::GetDPI() const {
    double const dpi = std::round(png_get_pixels_per_meter(png, info) * 0.0254);
    return dpi == 0 ? 72.0 : dpi;
}

std::optional<std::vector<std::uint8_t>> PNGReader::GetProfile() const {
    png_charp name = nullptr;
    int compression = 0;
    png_bytep bytes = nullptr;
    png_uint_32 size = 0;
    if (png_get_iCCP(png, info, &name, &compression, &bytes, &size) == 0 || !bytes)
        return std::nullopt;
    auto const limit = GetImageLimits().largestProfileBytes;
    if (size > limit) {
        Kernel::Trace("PNG: a profile of %1 bytes is over the limit of %2\r\n", std::uint64_t(size), limit);
        return std::vector<std::uint8_t>();
    }
    return std::vector<std::uint8_t>(bytes, bytes + size);
}

PNGHeader::Palette PNGReader::GetPalette() const {
    static_assert(sizeof(png_color) == 3);
    PNGHeader::Palette palette{};
    png_colorp colours = nullptr;
    int count = 0;
    if (png_get_PLTE(png, info, &colours, &count) != 0 && colours && count > 0)
        std::memcpy(palette.data(), colours, static_cast<std::size_t>(std::min(count, 256)) * 3);
    return palette;
}
}
