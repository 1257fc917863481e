/// JPEG files made by libjpeg itself, of any kind, and its own answer on what a file holds.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <jpeglib.h>

namespace Raster {
using JPEGBytes = std::vector<std::uint8_t>;

struct JPEGSegment {
    int marker; ///< such as 0xE2 for APP2
    JPEGBytes data;
};

/// What `MakeJPEG` writes. The samples are a gradient with pseudo-random noise; they depend on the recipe alone.
struct JPEGRecipe {
    int width = 1, height = 1;
    J_COLOR_SPACE inSpace = JCS_RGB;
    J_COLOR_SPACE fileSpace = JCS_YCbCr;
    int horizontalSampling = 1, verticalSampling = 1; ///< of the first component; 1 for the others
    bool isProgressive = false;
    bool isArithmetic = false;
    int restartInterval = 0;
    int quality = 90;
    bool hasJFIF = true;
    int densityUnit = 0, densityX = 1, densityY = 1;
    std::vector<JPEGSegment> segments; ///< before the picture
};

namespace JPEGMaking {
struct Errors {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};
[[noreturn]] inline void Abort(j_common_ptr) { std::abort(); }
[[noreturn]] inline void Jump(j_common_ptr codec) { std::longjmp(reinterpret_cast<Errors *>(codec->err)->jump, 1); }
inline void Count(j_common_ptr codec, int level) {
    if (level < 0)
        ++codec->err->num_warnings;
}
inline void PrintNothing(j_common_ptr) {}

inline int GetComponents(J_COLOR_SPACE space) {
    return space == JCS_GRAYSCALE ? 1 : space == JCS_CMYK || space == JCS_YCCK ? 4 : 3;
}

inline void Set(jpeg_compress_struct & codec, JPEGRecipe const & recipe) {
    codec.image_width = static_cast<JDIMENSION>(recipe.width);
    codec.image_height = static_cast<JDIMENSION>(recipe.height);
    codec.input_components = GetComponents(recipe.inSpace);
    codec.in_color_space = recipe.inSpace;
    jpeg_set_defaults(&codec);
    jpeg_set_colorspace(&codec, recipe.fileSpace);
    for (int i = 0; i < codec.num_components; ++i) {
        codec.comp_info[i].h_samp_factor = i == 0 ? recipe.horizontalSampling : 1;
        codec.comp_info[i].v_samp_factor = i == 0 ? recipe.verticalSampling : 1;
    }
    jpeg_set_quality(&codec, recipe.quality, TRUE);
    if (recipe.isProgressive)
        jpeg_simple_progression(&codec);
    codec.arith_code = recipe.isArithmetic;
    codec.restart_interval = static_cast<unsigned>(recipe.restartInterval);
    codec.write_JFIF_header = recipe.hasJFIF;
    codec.density_unit = static_cast<UINT8>(recipe.densityUnit);
    codec.X_density = static_cast<UINT16>(recipe.densityX);
    codec.Y_density = static_cast<UINT16>(recipe.densityY);
}
}

inline JPEGBytes MakeJPEG(JPEGRecipe const & recipe) {
    using namespace JPEGMaking;
    jpeg_compress_struct codec{};
    jpeg_error_mgr errors;
    codec.err = jpeg_std_error(&errors);
    errors.error_exit = Abort;
    jpeg_create_compress(&codec);
    unsigned char * bytes = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&codec, &bytes, &size);
    Set(codec, recipe);
    jpeg_start_compress(&codec, TRUE);
    for (auto const & segment : recipe.segments)
        jpeg_write_marker(&codec, segment.marker, segment.data.data(), static_cast<unsigned>(segment.data.size()));
    auto const components = static_cast<std::size_t>(codec.input_components);
    std::vector<std::uint8_t> row(static_cast<std::size_t>(recipe.width) * components);
    std::uint32_t state = 1;
    while (codec.next_scanline < codec.image_height) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            state = state * 1664525 + 1013904223;
            row[i] = static_cast<std::uint8_t>(i / components * (3 + i % components) + codec.next_scanline * 5 +
                                               (state >> 28));
        }
        JSAMPROW rows = row.data();
        jpeg_write_scanlines(&codec, &rows, 1);
    }
    jpeg_finish_compress(&codec);
    jpeg_destroy_compress(&codec);
    JPEGBytes result(bytes, bytes + size);
    std::free(bytes);
    return result;
}

/// What libjpeg makes of a file.
struct JPEGAnswer {
    bool hasHeader = false; ///< the header could be read
    bool hasPixels = false; ///< all rows could be read, and the end
    int width = 0, height = 0, components = 0;
    J_COLOR_SPACE fileSpace = JCS_UNKNOWN, outSpace = JCS_UNKNOWN;
    int horizontalSampling[4]{}, verticalSampling[4]{};
    bool isProgressive = false, hasJFIF = false;
    int densityUnit = 0, densityX = 0, densityY = 0;
    long warningCount = 0;
    std::vector<JPEGSegment> segments; ///< APP1, APP2 and APP13
    JPEGBytes pixels;

    std::uint8_t const * At(int x, int y) const {
        return pixels.data() +
               (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) *
                   static_cast<std::size_t>(components);
    }
};

namespace JPEGMaking {
inline void ReadAll(jpeg_decompress_struct & codec, Errors & errors, JPEGBytes const & file, JPEGAnswer & answer,
                    std::size_t largestBytes) {
    if (setjmp(errors.jump))
        return;
    jpeg_create_decompress(&codec);
    jpeg_mem_src(&codec, file.data(), file.size());
    for (int const marker : {0xE1, 0xE2, 0xED})
        jpeg_save_markers(&codec, marker, 65535);
    jpeg_read_header(&codec, TRUE);
    answer.width = static_cast<int>(codec.image_width);
    answer.height = static_cast<int>(codec.image_height);
    answer.fileSpace = codec.jpeg_color_space;
    answer.outSpace = codec.out_color_space;
    for (int i = 0; i < codec.num_components && i < 4; ++i) {
        answer.horizontalSampling[i] = codec.comp_info[i].h_samp_factor;
        answer.verticalSampling[i] = codec.comp_info[i].v_samp_factor;
    }
    answer.isProgressive = codec.progressive_mode;
    answer.hasJFIF = codec.saw_JFIF_marker;
    answer.densityUnit = codec.density_unit;
    answer.densityX = codec.X_density;
    answer.densityY = codec.Y_density;
    for (auto const * marker = codec.marker_list; marker; marker = marker->next)
        answer.segments.push_back({marker->marker, JPEGBytes(marker->data, marker->data + marker->data_length)});
    answer.hasHeader = true;
    answer.components = GetComponents(codec.out_color_space);
    if (codec.image_height > largestBytes / codec.image_width / static_cast<unsigned>(answer.components))
        return;
    jpeg_start_decompress(&codec);
    std::size_t const rowBytes = std::size_t(codec.output_width) * static_cast<std::size_t>(codec.output_components);
    answer.pixels.assign(rowBytes * codec.output_height, 0);
    while (codec.output_scanline < codec.output_height) {
        JSAMPROW row = answer.pixels.data() + codec.output_scanline * rowBytes;
        jpeg_read_scanlines(&codec, &row, 1);
    }
    jpeg_finish_decompress(&codec);
    answer.hasPixels = true;
}
}

/// @param largestBytes  pictures beyond this are not decoded.
inline JPEGAnswer AskLibjpeg(JPEGBytes const & file, std::size_t largestBytes = 256 << 20) {
    using namespace JPEGMaking;
    JPEGAnswer answer;
    jpeg_decompress_struct codec{};
    Errors errors;
    codec.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = Jump;
    errors.manager.emit_message = Count;
    errors.manager.output_message = PrintNothing;
    ReadAll(codec, errors, file, answer, largestBytes);
    answer.warningCount = errors.manager.num_warnings;
    jpeg_destroy_decompress(&codec);
    return answer;
}

/// One recipe for each combination of colours, sampling and coding that the codec writes.
inline std::vector<JPEGRecipe> MakeEveryKindOfJPEG(int width, int height) {
    std::vector<JPEGRecipe> recipes;
    for (auto const & [inSpace, fileSpace] : {std::pair{JCS_GRAYSCALE, JCS_GRAYSCALE},
                                              {JCS_RGB, JCS_YCbCr},
                                              {JCS_RGB, JCS_RGB},
                                              {JCS_CMYK, JCS_CMYK},
                                              {JCS_CMYK, JCS_YCCK}})
        for (int sampling = 1; sampling <= 2; ++sampling)
            for (int coding = 0; coding < 4; ++coding) {
                JPEGRecipe recipe;
                recipe.width = width;
                recipe.height = height;
                recipe.inSpace = inSpace;
                recipe.fileSpace = fileSpace;
                recipe.horizontalSampling = recipe.verticalSampling = sampling;
                recipe.isProgressive = coding == 1;
                recipe.isArithmetic = coding == 2;
                recipe.restartInterval = coding == 3 ? 2 : 0;
                recipes.push_back(recipe);
            }
    return recipes;
}

inline JPEGBytes Join(std::initializer_list<JPEGBytes> parts) {
    JPEGBytes joined;
    for (auto const & part : parts)
        joined.insert(joined.end(), part.begin(), part.end());
    return joined;
}

inline JPEGBytes BytesOfText(char const * text, std::size_t size) { return JPEGBytes(text, text + size); }

/// An APP2 segment with a piece of a profile.
inline JPEGSegment MakeProfileChunk(int number, int count, JPEGBytes const & data) {
    return {0xE2, Join({BytesOfText("ICC_PROFILE\0", 12),
                        {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(count)},
                        data})};
}
/// An APP13 segment with image resource blocks.
inline JPEGSegment MakeResources(JPEGBytes const & data) {
    return {0xED, Join({BytesOfText("Photoshop 3.0\0", 14), data})};
}
/// An APP1 segment with an EXIF directory that has the orientation behind `before` other entries.
inline JPEGSegment MakeExif(int orientation, bool isLittle, int type = 3, int before = 1) {
    JPEGBytes tiff;
    auto const put = [&](std::uint32_t value, int count) {
        for (int i = 0; i < count; ++i)
            tiff.push_back(static_cast<std::uint8_t>(value >> 8 * (isLittle ? i : count - 1 - i)));
    };
    tiff = isLittle ? JPEGBytes{'I', 'I'} : JPEGBytes{'M', 'M'};
    put(42, 2);
    put(8, 4);
    put(static_cast<std::uint32_t>(before + 1), 2);
    for (int i = 0; i < before; ++i) {
        put(0x0100, 2);
        put(3, 2);
        put(1, 4);
        put(7, 2);
        put(0, 2);
    }
    put(0x0112, 2);
    put(static_cast<std::uint32_t>(type), 2);
    put(1, 4);
    if (type == 4)
        put(static_cast<std::uint32_t>(orientation), 4);
    else {
        put(static_cast<std::uint32_t>(orientation), 2);
        put(0, 2);
    }
    put(0, 4);
    return {0xE1, Join({BytesOfText("Exif\0\0", 6), tiff})};
}
}
