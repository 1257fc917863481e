/// What opening and writing files costs beside the codec that does the work: a picture of 16 million pixels as PNG with
/// alpha, one of 24 million as JPEG (4:2:0, quality 90), both made here. The argument is the number of threads. The
/// codec alone decodes into, or encodes from, a flat buffer of its own layout that is taken anew each time, bytes being
/// in memory on both sides. Rounds of both alternate; `codec` and `library` are the fastest seconds of each, `ratio`
/// is library over codec. In one thread they are processor time, else time of day.
#include "files/BenchmarkPictures.h"
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
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

#include <png.h>

namespace Raster {
namespace {
using Item = Kernel::Counted<CompressedRasterData>;

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

// libjpeg, as its manual has it.
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

// `Keep`: the file holds the decoded picture, too, until it goes.
enum class Way { Keep, Once };
DynamicBitmap DecodeByLibrary(Item const & item, Way way = Way::Once) {
    DynamicFile file;
    file.Create(Kernel::Counted<CompressedRasterData const>(item));
    DynamicBitmap bitmap(file.GetWidth(), file.GetHeight(), file.GetFormat(), MipmapModeOnDemandDefault,
                         HardwareCachePolicy());
    if (way == Way::Keep)
        Draw(bitmap, file, nullptr, nullptr, 0, 0);
    else
        DrawOnce(bitmap, file, nullptr, nullptr, 0, 0);
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

template<Way way>
void DecodePNG(benchmark::State & state) {
    auto const item = MakeItem(GetPNG().bytes);
    Compare(
        state, [] { DecodePNGAlone(GetPNG()); }, [&] { DecodeByLibrary(item, way); });
}
template<Way way>
void DecodeJPEG(benchmark::State & state) {
    auto const item = MakeItem(GetJPEG());
    Compare(
        state, [] { DecodeJPEGAlone(GetJPEG()); }, [&] { DecodeByLibrary(item, way); });
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

BENCHMARK(DecodePNG<Way::Once>)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(DecodePNG<Way::Keep>)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeJPEG<Way::Once>)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeJPEG<Way::Keep>)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(EncodePNG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeJPEG)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
}
}
