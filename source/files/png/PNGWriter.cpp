#include "files/png/PNGWriter.h"

#include "analysis/DynamicPalette.h"
#include "files/png/PNGError.h"
#include "files/png/PNGProfileName.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

namespace Raster {
PNGError::~PNGError() = default;

namespace {
// NaN is 0; the largest is what the file can hold.
std::uint32_t PixelsPerMetre(double dpi) {
    double const value = std::round(dpi * 39.3700787);
    return value > 0 ? static_cast<std::uint32_t>(std::min(value, double(PNG_UINT_31_MAX))) : 0;
}
}

PNGBase::BasePixelAccessor::BasePixelAccessor(Kernel::OutStream & target, int newWidth, int newHeight,
                                              int newColourType, int newDepth, ExportOptions const & options)
    : stream(target), width(static_cast<std::uint32_t>(newWidth)), height(static_cast<std::uint32_t>(newHeight)),
      colourType(newColourType), depth(newDepth), pixelsPerMetre(PixelsPerMetre(options.GetDPI())) {
    if (colourType == PNG_COLOR_TYPE_PALETTE && options.GetPalette())
        TakePalette(*options.GetPalette());
    png = png_create_write_struct(version, static_cast<PNGSession *>(this), OnError, OnWarning);
    if (!png)
        throw std::bad_alloc();
    try {
        info = png_create_info_struct(png);
        if (!info)
            throw std::bad_alloc();
        RunOrThrow(BeginStep);
        RunOrThrow(ColoursStep);
        if (auto const embedded = options.GetICCProfile())
            WriteProfile(*embedded);
        RunOrThrow(WriteInfoStep);
    } catch (...) {
        png_destroy_write_struct(&png, &info);
        throw;
    }
}

PNGBase::BasePixelAccessor::~BasePixelAccessor() { png_destroy_write_struct(&png, &info); }

void PNGBase::BasePixelAccessor::WriteRow(unsigned char const * samples) {
    row = colourType == PNG_COLOR_TYPE_PALETTE || isGreyRamp ? Pack(samples) : samples;
    RunOrThrow(WriteRowStep);
    ++rowsWritten;
}

void PNGBase::BasePixelAccessor::Finish() {
    // The codec would end the file all the same.
    if (rowsWritten < height)
        throw PNGError("PNG: rows are missing");
    RunOrThrow(FinishStep);
}

void PNGBase::BasePixelAccessor::OnWrite(png_structp png, png_bytep data, std::size_t size) {
    auto & writer = *static_cast<BasePixelAccessor *>(png_get_io_ptr(png));
    if (char const * const failure = writer.Write(data, size))
        png_error(png, failure);
}

void PNGBase::BasePixelAccessor::OnFlush(png_structp) {} // the stream's owner decides when

char const * PNGBase::BasePixelAccessor::Write(unsigned char const * data, std::size_t size) noexcept {
    try {
        stream.WriteAll(data, size);
        return nullptr;
    } catch (...) {
        thrown = std::current_exception();
        return "the file can't be written";
    }
}

void PNGBase::BasePixelAccessor::BeginStep(BasePixelAccessor & writer) {
    png_set_benign_errors(writer.png, 1);
    png_set_write_fn(writer.png, &writer, OnWrite, OnFlush);
    png_set_IHDR(writer.png, writer.info, writer.width, writer.height, writer.depth, writer.colourType,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_pHYs(writer.png, writer.info, writer.pixelsPerMetre, writer.pixelsPerMetre, PNG_RESOLUTION_METER);
}

void PNGBase::BasePixelAccessor::ColoursStep(BasePixelAccessor & writer) {
    if (writer.colourType == PNG_COLOR_TYPE_PALETTE) {
        if (writer.palette.empty())
            png_error(writer.png, "there is no palette");
        png_set_PLTE(writer.png, writer.info, writer.palette.data(), static_cast<int>(writer.palette.size()));
    }
    if (!writer.paletteAlpha.empty())
        png_set_tRNS(writer.png, writer.info, writer.paletteAlpha.data(), static_cast<int>(writer.paletteAlpha.size()),
                     nullptr);
    if (writer.hasTransparentGrey)
        png_set_tRNS(writer.png, writer.info, nullptr, 0, &writer.transparentGrey);
}

void PNGBase::BasePixelAccessor::ProfileStep(BasePixelAccessor & writer) {
    auto const bytes = writer.profile->GetRawData();
    png_set_iCCP(writer.png, writer.info, writer.profileName.c_str(), PNG_COMPRESSION_TYPE_BASE, bytes.data(),
                 static_cast<png_uint_32>(bytes.size()));
}

void PNGBase::BasePixelAccessor::WriteInfoStep(BasePixelAccessor & writer) { png_write_info(writer.png, writer.info); }

void PNGBase::BasePixelAccessor::WriteRowStep(BasePixelAccessor & writer) { png_write_row(writer.png, writer.row); }

void PNGBase::BasePixelAccessor::FinishStep(BasePixelAccessor & writer) { png_write_end(writer.png, nullptr); }

void PNGBase::BasePixelAccessor::RunOrThrow(void (*step)(BasePixelAccessor &)) {
    if (Run(*this, step))
        return;
    if (thrown)
        std::rethrow_exception(std::exchange(thrown, nullptr));
    throw PNGError(DescribeFailure());
}

void PNGBase::BasePixelAccessor::TakePalette(DynamicPalette const & given) {
    auto const & colours = given.GetColours();
    int const transparent = given.GetChromaKeyIndex();
    bool const hasTransparent = transparent >= 0 && static_cast<std::size_t>(transparent) < colours.size();
    if (colours.size() > PNG_MAX_PALETTE_LENGTH)
        throw PNGError("PNG: a palette has at most 256 colours, not " + std::to_string(colours.size()));
    depth = given.GetBitDepth();
    for (auto const & colour : colours) {
        PixelOf<RGBA8Tuple> const & rgb = colour;
        palette.push_back({rgb[0], rgb[1], rgb[2]});
    }
    if (depth == 8 && given.IsGreyScale()) {
        isGreyRamp = true;
        colourType = PNG_COLOR_TYPE_GRAY;
        greyOfIndex.fill(palette.back().red);
        std::ranges::transform(palette, greyOfIndex.begin(), &png_color::red);
        hasTransparentGrey = hasTransparent;
        if (hasTransparent)
            transparentGrey.gray = palette[static_cast<std::size_t>(transparent)].red;
    } else if (hasTransparent) {
        paletteAlpha.assign(palette.size(), 255);
        paletteAlpha[static_cast<std::size_t>(transparent)] = 0;
    }
}

// A picture without the profile is better than none.
void PNGBase::BasePixelAccessor::WriteProfile(ICCProfile const & embedded) {
    profile = &embedded;
    profileName = MakePNGProfileName(embedded.GetProfileName().GetView());
    bool const isTaken = embedded.GetRawData().size() <= PNG_UINT_31_MAX && Run(*this, ProfileStep) &&
                         png_get_valid(png, info, PNG_INFO_iCCP) != 0;
    profile = nullptr;
    if (!isTaken)
        Kernel::Trace("PNG: written without the profile \"%1\", which the codec refuses\r\n", profileName.c_str());
}

unsigned char const * PNGBase::BasePixelAccessor::Pack(unsigned char const * samples) {
    packedRow.clear();
    if (isGreyRamp) {
        for (std::uint32_t x = 0; x < width; ++x)
            packedRow.push_back(greyOfIndex[samples[x]]);
        return packedRow.data();
    }
    unsigned const mask = (1u << depth) - 1;
    unsigned byte = 0;
    int used = 0; // bits, from the high end
    for (std::uint32_t x = 0; x < width; ++x) {
        byte |= (samples[x] & mask) << (8 - depth - used);
        used += depth;
        if (used == 8 || x + 1 == width) {
            packedRow.push_back(static_cast<unsigned char>(byte));
            byte = 0;
            used = 0;
        }
    }
    return packedRow.data();
}
}
