/// Pictures that benchmarks of files work on, and JPEG files made by the codec itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <jpeglib.h>

namespace Raster {
using Bytes = std::vector<unsigned char>;

// Pixels and their number: interleaved, without padding.
struct Picture {
    int width, height, channels;
    Bytes samples;
    unsigned char * GetRow(int y) {
        return samples.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width * channels);
    }
};

inline int Side(int full) {
    static bool const isSmoke = std::getenv("RASTER_BENCHMARK_SMOKE") != nullptr;
    return isSmoke ? full / 8 : full;
}

// Something like a photograph: slopes, edges and noise. With four channels some of it is transparent.
inline Picture MakePicture(int width, int height, int channels) {
    Picture picture{width, height, channels, Bytes(std::size_t(width) * std::size_t(height) * std::size_t(channels))};
    std::uint32_t state = 1;
    auto * sample = picture.samples.data();
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            state = state * 1664525u + 1013904223u;
            int const noise = static_cast<int>(state >> 29);
            int const edge = ((x / 97) ^ (y / 61)) & 1 ? 40 : 0;
            bool const isHole = channels == 4 && ((x / 512) ^ (y / 512)) % 5 == 4; // black: its colour would be lost
            auto const add = [&](int value) {
                *sample++ = static_cast<unsigned char>(isHole ? 0 : value + edge + noise);
            };
            add(x * 200 / width);
            add(y * 200 / height);
            add((x + y) * 100 / (width + height));
            if (channels == 4)
                *sample++ = isHole ? 0 : x % 1024 < 900 ? 255 : 128;
        }
    return picture;
}

// libjpeg, as its manual has it: as a camera would, or with the settings that the library writes with.
enum class Settings { Camera, Library };
inline Bytes EncodeJPEGAlone(Picture & picture, Settings settings) {
    jpeg_compress_struct codec;
    jpeg_error_mgr errors;
    codec.err = jpeg_std_error(&errors);
    jpeg_create_compress(&codec);
    unsigned char * memory = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&codec, &memory, &size);
    codec.image_width = static_cast<JDIMENSION>(picture.width);
    codec.image_height = static_cast<JDIMENSION>(picture.height);
    codec.input_components = 3;
    codec.in_color_space = JCS_RGB;
    jpeg_set_defaults(&codec);
    jpeg_set_quality(&codec, 90, TRUE);
    if (settings == Settings::Library) {
        codec.comp_info[0].h_samp_factor = codec.comp_info[0].v_samp_factor = 1;
        codec.dct_method = JDCT_FLOAT;
    }
    jpeg_start_compress(&codec, TRUE);
    while (codec.next_scanline < codec.image_height) {
        JSAMPROW row = picture.GetRow(static_cast<int>(codec.next_scanline));
        jpeg_write_scanlines(&codec, &row, 1);
    }
    jpeg_finish_compress(&codec);
    Bytes bytes(memory, memory + size);
    jpeg_destroy_compress(&codec);
    std::free(memory);
    return bytes;
}
}
