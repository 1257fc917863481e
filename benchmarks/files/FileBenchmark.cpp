/// What opening and writing files costs beside the codec that does the work: a picture of 16 million pixels as PNG with
/// alpha, one of 24 million as JPEG (4:2:0, quality 90), both made here. The argument is the number of threads. The
/// codec alone decodes into, or encodes from, a flat buffer of its own layout that is taken anew each time, bytes being
/// in memory on both sides. Rounds of both alternate; `codec` and `library` are the fastest seconds of each, `ratio`
/// is library over codec. In one thread they are processor time, else time of day.
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "kernel/Dispatch.h"
#include "kernel/MemoryOutStream.h"
#include "pixel/MemoryManager.h"
#include "storage/Block.h"
#include "storage/CompressedRasterData.h"
#include "storage/Tile.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

#include <jpeglib.h>
#include <png.h>

namespace Raster {
namespace {
using Bytes = std::vector<unsigned char>;
using Item = Kernel::Counted<CompressedRasterData>;

// Pixels and their number: interleaved, without padding.
struct Picture {
    int width, height, channels;
    Bytes samples;
    unsigned char * GetRow(int y) {
        return samples.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width * channels);
    }
};

int Side(int full) {
    static bool const isSmoke = std::getenv("RASTER_BENCHMARK_SMOKE") != nullptr;
    return isSmoke ? full / 8 : full;
}

// Something like a photograph: slopes, edges and noise. With four channels some of it is transparent.
Picture MakePicture(int width, int height, int channels) {
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

// libpng, as its manual has it.
struct PNGBytes {
    Bytes bytes;
    std::size_t position = 0;
};

PNGBytes EncodePNGAlone(Picture & picture) {
    PNGBytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &out,
        [](png_structp writer, png_bytep data, std::size_t size) {
            auto & bytes = static_cast<PNGBytes *>(png_get_io_ptr(writer))->bytes;
            bytes.insert(bytes.end(), data, data + size);
        },
        [](png_structp) {});
    png_set_IHDR(png, info, static_cast<png_uint_32>(picture.width), static_cast<png_uint_32>(picture.height), 8,
                 PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < picture.height; ++y)
        png_write_row(png, picture.GetRow(y));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

void DecodePNGAlone(PNGBytes source) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_read_fn(png, &source, [](png_structp reader, png_bytep data, std::size_t size) {
        auto & from = *static_cast<PNGBytes *>(png_get_io_ptr(reader));
        std::memcpy(data, from.bytes.data() + from.position, size);
        from.position += size;
    });
    png_read_info(png, info);
    png_set_expand(png);
    png_read_update_info(png, info);
    auto const height = png_get_image_height(png, info);
    auto const stride = png_get_rowbytes(png, info);
    std::unique_ptr<unsigned char[]> const pixels(new unsigned char[stride * height]);
    for (png_uint_32 y = 0; y < height; ++y)
        png_read_row(png, pixels.get() + y * stride, nullptr);
    benchmark::DoNotOptimize(pixels.get());
    png_destroy_read_struct(&png, &info, nullptr);
}

// libjpeg, as its manual has it: as a camera would, or with the settings that the library writes with.
enum class Settings { Camera, Library };
Bytes EncodeJPEGAlone(Picture & picture, Settings settings) {
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

void DecodeJPEGAlone(Bytes const & bytes) {
    jpeg_decompress_struct codec;
    jpeg_error_mgr errors;
    codec.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&codec);
    jpeg_mem_src(&codec, bytes.data(), bytes.size());
    jpeg_read_header(&codec, TRUE);
    jpeg_start_decompress(&codec);
    std::size_t const stride = std::size_t(codec.output_width) * 3;
    std::unique_ptr<unsigned char[]> const pixels(new unsigned char[stride * codec.output_height]);
    while (codec.output_scanline < codec.output_height) {
        JSAMPROW row = pixels.get() + codec.output_scanline * stride;
        jpeg_read_scanlines(&codec, &row, 1);
    }
    benchmark::DoNotOptimize(pixels.get());
    jpeg_finish_decompress(&codec);
    jpeg_destroy_decompress(&codec);
}

Item MakeItem(Bytes const & bytes) {
    auto item = Kernel::MakeCounted<CompressedRasterData>();
    item->CopyFrom(bytes.data(), bytes.size());
    return item;
}

DynamicBitmap DecodeByLibrary(Item const & item) {
    DynamicFile file;
    file.Create(Kernel::Counted<CompressedRasterData const>(item));
    DynamicBitmap bitmap(file.GetWidth(), file.GetHeight(), file.GetFormat(), MipmapModeOnDemandDefault,
                         HardwareCachePolicy());
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    return bitmap;
}

// The picture in tiles.
DynamicBitmap MakeBitmap(Picture & picture) {
    DynamicBitmap bitmap(picture.width, picture.height, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy());
    auto & typed = *bitmap.GetTyped<RGBA8Tuple>();
    ModelAccessor<BitmapOf<RGBA8Tuple>> accessor(&typed);
    for (int y = 0; y < picture.height; ++y) {
        auto const * sample = picture.GetRow(y);
        accessor.SetToXY(0, y);
        for (int x = 0; x < picture.width; ++x, sample += picture.channels, accessor.Increment())
            accessor.Write({{sample[0], sample[1], sample[2], picture.channels == 4 ? sample[3] : std::uint8_t(255)}});
    }
    return bitmap;
}

void EncodeByLibrary(DynamicBitmap const & bitmap, FileType type, unsigned quality) {
    ExportOptions options;
    options.SetQuality(quality);
    Kernel::Counted<Kernel::OutStreamSeekable> const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    DynamicFile file;
    file.Create(stream, bitmap.GetWidth(), bitmap.GetHeight(), options, type, bitmap.GetFormat());
    if (!Feed(file, bitmap, nullptr))
        std::abort();
}

PNGBytes & GetPNG() {
    static PNGBytes png = [] {
        auto picture = MakePicture(Side(4096), Side(4096), 4);
        return EncodePNGAlone(picture);
    }();
    return png;
}
Bytes & GetJPEG() {
    static Bytes jpeg = [] {
        auto picture = MakePicture(Side(6000), Side(4000), 3);
        return EncodeJPEGAlone(picture, Settings::Camera);
    }();
    return jpeg;
}

double GetSeconds(bool ofProcessor) {
    timespec time;
    clock_gettime(ofProcessor ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Rounds of both kinds by turns.
template<class Codec, class Library>
void Compare(benchmark::State & state, Codec codec, Library library) {
    static bool const isReady = [] {
        Block::InitStaticBlock();
        Tile::InitStaticTiles();
        return true;
    }();
    static_cast<void>(isReady);
    auto const threads = static_cast<unsigned>(state.range(0));
    Kernel::Dispatch::SetThreadCount(threads);
    double fastestCodec = std::numeric_limits<double>::max(), fastestLibrary = fastestCodec;
    auto const measure = [&](auto & work, double & fastest) {
        double const start = GetSeconds(/*ofProcessor=*/threads == 1);
        work();
        double const seconds = GetSeconds(threads == 1) - start;
        fastest = std::min(fastest, seconds);
        return seconds;
    };
    for (auto _ : state) {
        measure(codec, fastestCodec);
        state.SetIterationTime(measure(library, fastestLibrary));
    }
    state.counters["codec"] = fastestCodec;
    state.counters["library"] = fastestLibrary;
    state.counters["ratio"] = fastestLibrary / fastestCodec;
    Kernel::Dispatch::SetThreadCount(0);
}

void DecodePNG(benchmark::State & state) {
    auto const item = MakeItem(GetPNG().bytes);
    Compare(
        state, [] { DecodePNGAlone(GetPNG()); }, [&] { DecodeByLibrary(item); });
}
void DecodeJPEG(benchmark::State & state) {
    auto const item = MakeItem(GetJPEG());
    Compare(
        state, [] { DecodeJPEGAlone(GetJPEG()); }, [&] { DecodeByLibrary(item); });
}
void EncodePNG(benchmark::State & state) {
    auto picture = MakePicture(Side(4096), Side(4096), 4);
    auto const bitmap = DecodeByLibrary(MakeItem(GetPNG().bytes));
    Compare(
        state, [&] { EncodePNGAlone(picture); }, [&] { EncodeByLibrary(bitmap, FileTypePNG, 100); });
}
void EncodeJPEG(benchmark::State & state) {
    auto picture = MakePicture(Side(6000), Side(4000), 3);
    auto const bitmap = MakeBitmap(picture);
    Compare(
        state, [&] { EncodeJPEGAlone(picture, Settings::Library); },
        [&] { EncodeByLibrary(bitmap, FileTypeJPEG, 90); });
}

BENCHMARK(DecodePNG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeJPEG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(EncodePNG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeJPEG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
}
}
