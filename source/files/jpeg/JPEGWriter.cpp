#include "files/jpeg/JPEGWriter.h"

#include "files/jpeg/JPEGMetadata.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <utility>

namespace Raster {
namespace {
constexpr std::size_t chunkBytes = JPEGMetadata::largestSegment - JPEGMetadata::profileHeaderBytes; // 65519
constexpr std::size_t mostChunks = 255;                                                  // numbered in a byte
constexpr std::uint8_t profileName[] = "ICC_PROFILE", resourcesName[] = "Photoshop 3.0"; // each with its zero byte

J_COLOR_SPACE GetColourSpaceOf(int components) {
    return components == 1 ? JCS_GRAYSCALE : components == 4 ? JCS_CMYK : JCS_RGB;
}

// Truncated to what the header has room for; 0 if it is no number.
std::uint16_t GetDensity(double dpi) {
    return dpi > 0 ? static_cast<std::uint16_t>(std::min(dpi, 65535.0)) : std::uint16_t(0);
}
}

JPEGWriter::JPEGWriter(Kernel::Counted<Kernel::OutStream> outStream, int width, int height, int pixelComponents,
                       ExportOptions const & options)
    : stream(std::move(outStream)), components(pixelComponents), quality(options.GetQuality()),
      isProgressive(options.GetProgressive()), density(GetDensity(options.GetDPI())) {
    destination.init_destination = OnInit;
    destination.empty_output_buffer = OnEmpty;
    destination.term_destination = OnTerminate;
    Connect(codec);
    codec.image_width = static_cast<JDIMENSION>(width);
    codec.image_height = static_cast<JDIMENSION>(height);
    if (!Run(*this, SetUpStep)) {
        jpeg_destroy_compress(&codec);
        ThrowFailure();
    }
}

JPEGWriter::~JPEGWriter() { jpeg_destroy_compress(&codec); }

void JPEGWriter::SetUpStep(JPEGWriter & writer) {
    auto & codec = writer.codec;
    JDIMENSION const width = codec.image_width, height = codec.image_height; // creating it clears it
    jpeg_create_compress(&codec);
    codec.dest = &writer.destination;
    codec.mem->max_memory_to_use = 0; // whatever the environment says
    writer.ConnectProgress(codec);
    codec.image_width = width;
    codec.image_height = height;
    codec.input_components = writer.components;
    codec.in_color_space = GetColourSpaceOf(writer.components);
    jpeg_set_defaults(&codec);
    for (int i = 0; i < std::min(writer.components, 3); ++i) { // colour keeps its resolution
        codec.comp_info[i].h_samp_factor = 1;
        codec.comp_info[i].v_samp_factor = 1;
    }
    codec.num_components = writer.components;
    codec.dct_method = JDCT_FLOAT;
    codec.write_JFIF_header = TRUE;
    codec.density_unit = 1; // per inch
    codec.X_density = writer.density;
    codec.Y_density = writer.density;
    jpeg_set_quality(&codec, writer.quality, TRUE);
    if (writer.isProgressive)
        jpeg_simple_progression(&codec);
}

void JPEGWriter::Begin(View profile, View resources) {
    if (profile.size() > mostChunks * chunkBytes) {
        Kernel::Trace("JPEG: a colour profile of %1 bytes is too large to be written\r\n", profile.size());
        profile = {};
    }
    profileBytes = profile;
    resourceBytes = resources;
    RunOrThrow(*this, BeginStep);
    profileBytes = resourceBytes = {};
}

void JPEGWriter::BeginStep(JPEGWriter & writer) {
    jpeg_start_compress(&writer.codec, TRUE);
    writer.WriteSegments(JPEGMetadata::profileMarker, profileName, writer.profileBytes, /*isNumbered=*/true);
    writer.WriteSegments(JPEGMetadata::resourcesMarker, resourcesName, writer.resourceBytes, /*isNumbered=*/false);
}

// In pieces, each behind the name and, of a profile, its number from 1 and the count.
void JPEGWriter::WriteSegments(int marker, View name, View data, bool isNumbered) {
    std::size_t const count = (data.size() + chunkBytes - 1) / chunkBytes;
    for (std::size_t number = 1; number <= count; ++number) {
        View const chunk =
            data.subspan((number - 1) * chunkBytes, std::min(data.size() - (number - 1) * chunkBytes, chunkBytes));
        std::size_t const headerBytes = name.size() + (isNumbered ? 2 : 0);
        jpeg_write_m_header(&codec, marker, static_cast<unsigned>(headerBytes + chunk.size()));
        for (auto const byte : name)
            jpeg_write_m_byte(&codec, byte);
        if (isNumbered) {
            jpeg_write_m_byte(&codec, static_cast<int>(number));
            jpeg_write_m_byte(&codec, static_cast<int>(count));
        }
        for (auto const byte : chunk)
            jpeg_write_m_byte(&codec, byte);
    }
}

bool JPEGWriter::WriteRow(unsigned char * row) {
    heldRow = row;
    return RunUnlessAborted(RowStep);
}

void JPEGWriter::RowStep(JPEGWriter & writer) { jpeg_write_scanlines(&writer.codec, &writer.heldRow, 1); }

bool JPEGWriter::Finish() { return RunUnlessAborted(FinishStep); }

void JPEGWriter::FinishStep(JPEGWriter & writer) { jpeg_finish_compress(&writer.codec); }

bool JPEGWriter::RunUnlessAborted(void (*step)(JPEGWriter &)) {
    if (Run(*this, step))
        return true;
    if (!WasAborted())
        ThrowFailure();
    return false;
}

void JPEGWriter::OnInit(j_compress_ptr codec) {
    codec->dest->next_output_byte = Of(codec).buffer;
    codec->dest->free_in_buffer = bufferBytes;
}

boolean JPEGWriter::OnEmpty(j_compress_ptr codec) {
    Of(codec).FlushBuffer(bufferBytes); // all of it: the codec's own count is not up to date here
    OnInit(codec);
    return TRUE;
}

void JPEGWriter::OnTerminate(j_compress_ptr codec) { Of(codec).FlushBuffer(bufferBytes - codec->dest->free_in_buffer); }

void JPEGWriter::FlushBuffer(std::size_t count) {
    if (!WriteToStream(count))
        Jump();
    if (!hasTakenAll)
        Fail(reinterpret_cast<j_common_ptr>(&codec), JERR_FILE_WRITE);
}

bool JPEGWriter::WriteToStream(std::size_t count) noexcept {
    try {
        hasTakenAll = stream->Write(buffer, count) == count;
        return true;
    } catch (...) {
        thrown = std::current_exception();
        return false;
    }
}
}
