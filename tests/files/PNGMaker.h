/// PNG files made by libpng itself, of any colour type and depth, and its own answer on what a file holds.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <png.h>

namespace Raster {
/// What `MakePNG` writes. The samples are pseudo-random, in the file's own layout; they depend on the recipe alone.
struct PNGRecipe {
    int width = 1, height = 1;
    int colourType = PNG_COLOR_TYPE_RGB;
    int depth = 8;
    bool isInterlaced = false;
    std::vector<std::uint8_t> palette;      ///< three bytes a colour
    std::vector<std::uint8_t> paletteAlpha; ///< one byte a colour
    bool hasTransparentColour = false;      ///< grey 1, or RGB (1, 2, 3)
    std::vector<std::uint8_t> profile;
    std::uint32_t pixelsPerUnitX = 0, pixelsPerUnitY = 0; ///< 0 is none
    int unit = PNG_RESOLUTION_METER;
    bool hasText = false;
    int filters = PNG_ALL_FILTERS;
    std::uint32_t seed = 1;
    std::size_t compressionBuffer = 8192; ///< the size of an IDAT chunk
};

namespace PNGMaking {
struct Writing {
    png_structp png;
    png_infop info;
    std::vector<std::uint8_t> bytes;
};

[[noreturn]] inline void Fail(png_structp, png_const_charp) { std::abort(); }
inline void Ignore(png_structp, png_const_charp) {}

inline void Append(png_structp png, png_bytep data, std::size_t size) {
    auto & bytes = static_cast<Writing *>(png_get_io_ptr(png))->bytes;
    bytes.insert(bytes.end(), data, data + size);
}

inline void SetColours(Writing & writing, PNGRecipe const & recipe) {
    if (!recipe.palette.empty()) {
        std::vector<png_color> colours(recipe.palette.size() / 3);
        std::memcpy(colours.data(), recipe.palette.data(), colours.size() * 3);
        png_set_PLTE(writing.png, writing.info, colours.data(), static_cast<int>(colours.size()));
    }
    if (!recipe.paletteAlpha.empty())
        png_set_tRNS(writing.png, writing.info, recipe.paletteAlpha.data(),
                     static_cast<int>(recipe.paletteAlpha.size()), nullptr);
    if (recipe.hasTransparentColour) {
        png_color_16 colour = {};
        colour.gray = 1;
        colour.red = 1, colour.green = 2, colour.blue = 3;
        png_set_tRNS(writing.png, writing.info, nullptr, 0, &colour);
    }
}

inline void SetExtras(Writing & writing, PNGRecipe const & recipe) {
    if (!recipe.profile.empty())
        png_set_iCCP(writing.png, writing.info, "a profile", 0, recipe.profile.data(),
                     static_cast<png_uint_32>(recipe.profile.size()));
    if (recipe.pixelsPerUnitX != 0 || recipe.pixelsPerUnitY != 0)
        png_set_pHYs(writing.png, writing.info, recipe.pixelsPerUnitX, recipe.pixelsPerUnitY, recipe.unit);
    if (recipe.hasText) {
        std::string key = "Comment", text(300, 'x');
        png_text entry = {};
        entry.compression = PNG_TEXT_COMPRESSION_zTXt;
        entry.key = key.data();
        entry.text = text.data();
        entry.text_length = text.size();
        png_set_text(writing.png, writing.info, &entry, 1);
    }
}

/// Samples that are few enough to meet the transparent colour, below the number of palette entries.
inline std::vector<std::uint8_t> MakeRow(PNGRecipe const & recipe, std::size_t rowBytes, std::uint32_t & state) {
    std::vector<std::uint8_t> row(rowBytes);
    bool const isIndexed = recipe.colourType == PNG_COLOR_TYPE_PALETTE;
    std::size_t const colours = recipe.palette.size() / 3;
    for (auto & byte : row) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
        if (isIndexed && recipe.depth == 8 && colours != 0)
            byte = static_cast<std::uint8_t>(byte % colours);
        else if (recipe.depth >= 8 && recipe.hasTransparentColour)
            byte &= 3;
    }
    return row;
}
}

inline std::vector<std::uint8_t> MakePNG(PNGRecipe const & recipe) {
    using namespace PNGMaking;
    Writing writing = {png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, Fail, Ignore), nullptr, {}};
    writing.info = png_create_info_struct(writing.png);
    png_set_benign_errors(writing.png, 1);
    png_set_write_fn(writing.png, &writing, Append, nullptr);
    png_set_compression_buffer_size(writing.png, recipe.compressionBuffer);
    png_set_IHDR(writing.png, writing.info, static_cast<png_uint_32>(recipe.width),
                 static_cast<png_uint_32>(recipe.height), recipe.depth, recipe.colourType,
                 recipe.isInterlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_filter(writing.png, PNG_FILTER_TYPE_BASE, recipe.filters);
    SetColours(writing, recipe);
    SetExtras(writing, recipe);
    png_write_info(writing.png, writing.info);
    std::size_t const rowBytes = png_get_rowbytes(writing.png, writing.info);
    std::uint32_t state = recipe.seed;
    std::vector<std::vector<std::uint8_t>> rows;
    for (int y = 0; y < recipe.height; ++y)
        rows.push_back(MakeRow(recipe, rowBytes, state));
    for (int passes = png_set_interlace_handling(writing.png); passes != 0; --passes)
        for (auto const & row : rows)
            png_write_row(writing.png, row.data());
    png_write_end(writing.png, writing.info);
    png_destroy_write_struct(&writing.png, &writing.info);
    return std::move(writing.bytes);
}

/// What libpng makes of a file, everything expanded to whole bytes as by `png_set_expand`.
struct PNGAnswer {
    bool hasHeader = false; ///< the header could be read
    bool hasPixels = false; ///< all rows could be read
    std::uint32_t width = 0, height = 0;
    int fileColourType = 0, fileDepth = 0; ///< as stored
    int channels = 0, depth = 0;           ///< expanded
    bool hasProfile = false;
    std::uint32_t pixelsPerMetre = 0;
    std::size_t rowBytes = 0;
    std::vector<std::uint8_t> pixels; ///< 16-bit samples with the high byte first
};

namespace PNGMaking {
struct Reading {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::uint8_t const * bytes = nullptr;
    std::size_t left = 0;
    PNGAnswer * answer = nullptr;
};

inline void Take(png_structp png, png_bytep dest, std::size_t size) {
    auto & reading = *static_cast<Reading *>(png_get_io_ptr(png));
    if (size > reading.left)
        png_error(png, "the end");
    std::memcpy(dest, reading.bytes, size);
    reading.bytes += size;
    reading.left -= size;
}

[[noreturn]] inline void Jump(png_structp png, png_const_charp) { png_longjmp(png, 1); }

inline void ReadAll(Reading * reading, std::size_t largestBytes) {
    auto & answer = *reading->answer;
    if (setjmp(png_jmpbuf(reading->png)))
        return;
    png_set_benign_errors(reading->png, 1);
    png_set_read_fn(reading->png, reading, Take);
    png_read_info(reading->png, reading->info);
    answer.fileColourType = png_get_color_type(reading->png, reading->info);
    answer.fileDepth = png_get_bit_depth(reading->png, reading->info);
    answer.width = png_get_image_width(reading->png, reading->info);
    answer.height = png_get_image_height(reading->png, reading->info);
    answer.hasProfile = png_get_valid(reading->png, reading->info, PNG_INFO_iCCP) != 0;
    answer.pixelsPerMetre = png_get_pixels_per_meter(reading->png, reading->info);
    png_set_expand(reading->png);
    int const passes = png_set_interlace_handling(reading->png);
    png_read_update_info(reading->png, reading->info);
    answer.channels = png_get_channels(reading->png, reading->info);
    answer.depth = png_get_bit_depth(reading->png, reading->info);
    answer.rowBytes = png_get_rowbytes(reading->png, reading->info);
    answer.hasHeader = true;
    if (answer.height > largestBytes / answer.rowBytes)
        return;
    answer.pixels.assign(answer.rowBytes * answer.height, 0);
    for (int pass = 0; pass < passes; ++pass)
        for (std::uint32_t y = 0; y < answer.height; ++y)
            png_read_row(reading->png, answer.pixels.data() + y * answer.rowBytes, nullptr);
    answer.hasPixels = true;
}
}

/// @param largestBytes  pictures beyond this are not decoded.
inline PNGAnswer AskLibpng(std::vector<std::uint8_t> const & file, std::size_t largestBytes = 256 << 20) {
    using namespace PNGMaking;
    PNGAnswer answer;
    Reading reading;
    reading.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, Jump, Ignore);
    reading.info = png_create_info_struct(reading.png);
    reading.bytes = file.data();
    reading.left = file.size();
    reading.answer = &answer;
    ReadAll(&reading, largestBytes);
    png_destroy_read_struct(&reading.png, &reading.info, nullptr);
    return answer;
}

/// `count` colours that go up in steps, each channel with its own.
inline std::vector<std::uint8_t> MakePalette(int count) {
    std::vector<std::uint8_t> palette;
    for (int i = 0; i < count; ++i)
        for (int factor : {3, 7, 11})
            palette.push_back(static_cast<std::uint8_t>(i * factor + factor));
    return palette;
}

/// One recipe for every combination of colour type and depth that PNG has.
inline std::vector<PNGRecipe> MakeEveryKind(int width, int height) {
    struct Kind {
        int colourType;
        std::vector<int> depths;
    };
    std::vector<PNGRecipe> recipes;
    for (auto const & [colourType, depths] : {Kind{PNG_COLOR_TYPE_GRAY, {1, 2, 4, 8, 16}},
                                              {PNG_COLOR_TYPE_RGB, {8, 16}},
                                              {PNG_COLOR_TYPE_PALETTE, {1, 2, 4, 8}},
                                              {PNG_COLOR_TYPE_GRAY_ALPHA, {8, 16}},
                                              {PNG_COLOR_TYPE_RGB_ALPHA, {8, 16}}})
        for (int const depth : depths) {
            PNGRecipe recipe;
            recipe.width = width, recipe.height = height;
            recipe.colourType = colourType, recipe.depth = depth;
            recipe.seed = static_cast<std::uint32_t>(colourType * 16 + depth);
            if (colourType == PNG_COLOR_TYPE_PALETTE)
                recipe.palette = MakePalette(1 << depth);
            recipes.push_back(recipe);
        }
    return recipes;
}
}
