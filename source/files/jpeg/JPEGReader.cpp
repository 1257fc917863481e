#include "files/jpeg/JPEGReader.h"

#include "files/ImageLimits.h"
#include "kernel/Abort.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Raster {
namespace {
constexpr int keptMarkers[] = {JPEGMetadata::exifMarker, JPEGMetadata::profileMarker, JPEGMetadata::resourcesMarker};

J_COLOR_SPACE GetColourSpaceOf(int components) {
    return components == 1 ? JCS_GRAYSCALE : components == 4 ? JCS_CMYK : JCS_RGB;
}

// Sound files have below 20 scans.
constexpr int mostScans = 500;
// Of blocks of 8 by 8, by all scans. Common progressive files go over each block 5 times, as 100 megapixels without
// subsampling do with 23 million visits. The first number takes 3 seconds here, and below 10 on a slow machine.
constexpr std::uint64_t alwaysAllowedVisits = std::uint64_t(64) << 20, mostVisitsPerBlock = 12;

std::uint64_t CountBlocks(jpeg_component_info const & component) {
    return std::uint64_t(component.width_in_blocks) * component.height_in_blocks;
}

std::uint64_t RoundUp(std::uint64_t number, int unit) {
    auto const step = static_cast<std::uint64_t>(unit);
    return (number + step - 1) / step * step;
}
}

JPEGReader::JPEGReader(Kernel::Counted<Kernel::InStreamSeekable> inStream) : stream(std::move(inStream)) {
    source.init_source = OnInit;
    source.fill_input_buffer = OnFill;
    source.skip_input_data = OnSkip;
    source.resync_to_restart = jpeg_resync_to_restart;
    source.term_source = OnInit;
    Connect(codec);
}

JPEGReader::~JPEGReader() { jpeg_destroy_decompress(&codec); }

void JPEGReader::ReadHeader(Metadata wanted) {
    if (wanted == Metadata::Keep)
        segment = std::make_unique<unsigned char[]>(JPEGMetadata::largestSegment);
    RunOrThrow(*this, CreateStep);
    RunOrThrow(*this, HeaderStep);
    segment.reset();
    streamPosition = stream->Tell();
}

void JPEGReader::CreateStep(JPEGReader & reader) {
    jpeg_create_decompress(&reader.codec);
    reader.codec.src = &reader.source;
    reader.codec.mem->max_memory_to_use = 0; // whatever the environment says
    reader.ConnectProgress(reader.codec, OnReadProgress);
}

void JPEGReader::HeaderStep(JPEGReader & reader) {
    if (reader.segment)
        for (int const marker : keptMarkers)
            jpeg_set_marker_processor(&reader.codec, marker, OnMarker);
    jpeg_read_header(&reader.codec, TRUE);
}

Format JPEGReader::GetFormat() const {
    switch (codec.out_color_space) {
    case JCS_GRAYSCALE:
        return IA8;
    case JCS_RGB:
        return RGBA8;
    case JCS_CMYK: // YCCK too: the codec gives it as CMYK
        return CMYKA8;
    default:
        return NoFormat;
    }
}

double JPEGReader::GetDPI() const {
    if (codec.density_unit == 0 || codec.X_density == 0)
        return 72.0;
    constexpr int perCentimetre = 2;
    // Divided, not multiplied: documents rely on the size at which such files have always been placed.
    return codec.density_unit == perCentimetre ? codec.X_density / 2.54 : codec.X_density;
}

DecodedPixels JPEGReader::Decode(int wantedComponents) {
    Prepare(wantedComponents);
    DecodedPixels pixels(static_cast<int>(codec.output_width), static_cast<int>(codec.output_height),
                         static_cast<std::size_t>(components));
    ReadRows(pixels, pixels.GetHeight());
    return pixels;
}

std::exception_ptr JPEGReader::DecodeBands(int wantedComponents, BandCut const & cut, BandTaker const & take) {
    Prepare(wantedComponents);
    return DecodeBandByBand(
        cut, static_cast<int>(codec.output_width), static_cast<std::size_t>(components),
        [&](DecodedPixels & band, int rowCount) { return ReadRows(band, rowCount); }, take);
}

// Everything before the rows. The limits hold for the whole picture, whoever keeps it.
void JPEGReader::Prepare(int wantedComponents) {
    components = wantedComponents;
    if (stream->Tell() != streamPosition)
        stream->Seek(Kernel::SeekOrigin::Start, static_cast<std::int64_t>(streamPosition));
    RunOrThrow(*this, SizeStep);
    auto const coefficientBytes = GetCoefficientBytes();
    CheckImageSize(codec.output_width, codec.output_height, static_cast<std::uint64_t>(components), coefficientBytes);
    // The check above is the limit. This one catches a codec that wants more for its arrays than was counted; what it
    // takes beside them grows with the width alone.
    constexpr std::uint64_t workBytes = 64 << 20;
    codec.mem->max_memory_to_use = static_cast<long>(coefficientBytes + workBytes);
}

/// The next rows; the first call starts the codec and that for the last row ends it.
/// @return false if it was aborted.
bool JPEGReader::ReadRows(DecodedPixels & wanted, int count) {
    rows = &wanted;
    rowsDone = 0;
    rowsWanted = count;
    bool const isFirst = codec.output_scanline == 0;
    bool const isRead = (!isFirst || Run(*this, StartStep)) && Run(*this, RowsStep);
    bool const isLast = isRead && codec.output_scanline == codec.output_height;
    if (isRead && (!isLast || Run(*this, FinishStep)))
        return rowsDone == rowsWanted;
    if (!WasAborted())
        ThrowFailure();
    return false;
}

void JPEGReader::SizeStep(JPEGReader & reader) {
    auto & codec = reader.codec;
    codec.out_color_space = GetColourSpaceOf(reader.components);
    codec.scale_num = 1;
    codec.scale_denom = 1;
    jpeg_calc_output_dimensions(&codec);
    if (codec.output_components != reader.components)
        Fail(AsCommon(&codec), JERR_BAD_J_COLORSPACE);
    reader.hasSeveralScans = jpeg_has_multiple_scans(&codec);
    for (int i = 0; i < codec.num_components; ++i)
        reader.blockCount += CountBlocks(codec.comp_info[i]);
}

// A file whose picture comes in one scan is decoded as it is read. Of others the codec first collects all coefficients.
std::uint64_t JPEGReader::GetCoefficientBytes() const {
    if (!hasSeveralScans)
        return 0;
    std::uint64_t blocks = 0;
    for (int i = 0; i < codec.num_components; ++i) {
        auto const & component = codec.comp_info[i];
        blocks += RoundUp(component.width_in_blocks, component.h_samp_factor) *
                  RoundUp(component.height_in_blocks, component.v_samp_factor);
    }
    return blocks * sizeof(JBLOCK);
}

void JPEGReader::StartStep(JPEGReader & reader) { jpeg_start_decompress(&reader.codec); }

void JPEGReader::RowsStep(JPEGReader & reader) {
    // One row a call: more at once is no faster, and the flag is looked at before each.
    for (; reader.rowsDone < reader.rowsWanted; ++reader.rowsDone) {
        if (Kernel::IsAborted(reader.abort))
            return;
        JSAMPROW row = reader.rows->GetRow(reader.rowsDone);
        jpeg_read_scanlines(&reader.codec, &row, 1);
    }
}

void JPEGReader::FinishStep(JPEGReader & reader) { jpeg_finish_decompress(&reader.codec); }

// A file of several scans is read whole before the first row comes. A scan may be a few bytes long and yet cost a walk
// over all coefficients, 40 nanoseconds and more for each block: so the blocks that all scans go over are counted.
void JPEGReader::OnReadProgress(j_common_ptr common) {
    OnProgress(common);
    auto & codec = *reinterpret_cast<j_decompress_ptr>(common);
    auto & reader = Of(&codec);
    if (codec.input_scan_number == reader.lastScan)
        return;
    reader.lastScan = codec.input_scan_number;
    if (reader.lastScan > mostScans)
        reader.Refuse("more than 500 scans");
    for (int i = 0; i < codec.comps_in_scan; ++i)
        reader.visitedBlocks += CountBlocks(*codec.cur_comp_info[i]);
    if (reader.visitedBlocks > std::max(alwaysAllowedVisits, mostVisitsPerBlock * reader.blockCount))
        reader.Refuse("the scans go over the picture too often");
}

boolean JPEGReader::OnFill(j_decompress_ptr codec) {
    auto & reader = Of(codec);
    if (!reader.Fill())
        reader.Jump();
    if (reader.bufferedBytes == 0) {
        if (!reader.hasRead)
            Fail(AsCommon(codec), JERR_INPUT_EMPTY);
        reader.endedEarly = true;
        codec->err->msg_code = JWRN_JPEG_EOF;
        codec->err->emit_message(AsCommon(codec), -1);
        reader.buffer[0] = 0xFF;
        reader.buffer[1] = JPEG_EOI;
        reader.bufferedBytes = 2;
    }
    reader.hasRead = true;
    codec->src->next_input_byte = reader.buffer;
    codec->src->bytes_in_buffer = reader.bufferedBytes;
    return TRUE;
}

bool JPEGReader::Fill() noexcept {
    try {
        bufferedBytes = stream->Read(buffer, bufferBytes);
        return true;
    } catch (...) {
        thrown = std::current_exception();
        return false;
    }
}

void JPEGReader::OnSkip(j_decompress_ptr codec, long count) {
    if (count <= 0)
        return;
    auto & source = *codec->src;
    auto const wanted = static_cast<std::size_t>(count), here = std::min(wanted, source.bytes_in_buffer);
    source.next_input_byte += here;
    source.bytes_in_buffer -= here;
    if (here < wanted && !Of(codec).SkipInStream(wanted - here))
        Of(codec).Jump();
}

bool JPEGReader::SkipInStream(std::uint64_t count) noexcept {
    try {
        stream->SkipBlock(count); // past the end: the next fill tells
        return true;
    } catch (...) {
        thrown = std::current_exception();
        return false;
    }
}

// Takes a segment that may hold metadata. The codec could keep segments itself, but walks all of them to add one, and
// knows no limit for their size.
boolean JPEGReader::OnMarker(j_decompress_ptr codec) {
    auto & reader = Of(codec);
    int const marker = codec->unread_marker;
    unsigned const high = reader.ReadByte();
    unsigned const size = high << 8 | reader.ReadByte();
    if (size <= 2)
        return TRUE;
    if (!reader.segment) {
        OnSkip(codec, static_cast<long>(size) - 2);
        return TRUE;
    }
    reader.ReadSegment(size - 2);
    if (!reader.endedEarly && !reader.TakeSegment(marker, size - 2))
        reader.Jump();
    return TRUE;
}

unsigned JPEGReader::ReadByte() {
    if (source.bytes_in_buffer == 0)
        OnFill(&codec);
    --source.bytes_in_buffer;
    return *source.next_input_byte++;
}

void JPEGReader::ReadSegment(std::size_t size) {
    for (std::size_t done = 0; done < size && !endedEarly;) {
        if (source.bytes_in_buffer == 0)
            OnFill(&codec);
        auto const count = std::min(size - done, source.bytes_in_buffer);
        std::memcpy(segment.get() + done, source.next_input_byte, count);
        source.next_input_byte += count;
        source.bytes_in_buffer -= count;
        done += count;
    }
}

bool JPEGReader::TakeSegment(int marker, std::size_t size) noexcept {
    try {
        metadata.TakeSegment(marker, {segment.get(), size});
        return true;
    } catch (...) {
        thrown = std::current_exception();
        return false;
    }
}
}
