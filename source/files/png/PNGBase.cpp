#include "files/png/PNGBase.h"

#include "colour/ICCManager.h"
#include "files/ImageLimits.h"
#include "files/png/PNGReader.h"
#include "files/png/PNGWriter.h"
#include "kernel/AppendFormat.h"
#include "kernel/File.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "pixel/FileColourTypes.h"
#include "storage/CompressedRasterData.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

namespace Raster {
namespace {
constexpr unsigned char magic[] = {0x89, 'P', 'N', 'G'};

bool BeginsAsPNG(unsigned char const * bytes, std::uint64_t count) {
    return count >= sizeof(magic) && std::memcmp(bytes, magic, sizeof(magic)) == 0;
}

bool SeekTo(Kernel::InStreamSeekable & stream, std::uint64_t position) {
    return position <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
           stream.Seek(Kernel::SeekOrigin::Start, static_cast<std::int64_t>(position));
}
}

PNGBase::PNGBase(TupleLayout const & tupleLayout, int pngColourType, int nonAlphaPNGColourType)
    : layout(tupleLayout), colourType(pngColourType), nonAlphaColourType(nonAlphaPNGColourType) {}
PNGBase::~PNGBase() = default;

bool PNGBase::IsPNGFile(char const * path) {
    if (!path)
        return false;
    auto file = Kernel::File::Open(path, "rb");
    unsigned char bytes[sizeof(magic)];
    return file.IsOpen() && BeginsAsPNG(bytes, file.Read(bytes, sizeof(bytes)));
}

bool PNGBase::IsPNGFile(Kernel::Counted<CompressedRasterData const> const & data) {
    return data && BeginsAsPNG(data->GetData(), data->GetSize());
}

Format PNGBase::GetFormat(char const * path) {
    std::string why;
    return GetFormat(FileSource(path).Open(why));
}

Format PNGBase::GetFormat(Kernel::Counted<CompressedRasterData const> data) {
    std::string why;
    return GetFormat(FileSource(std::move(data)).Open(why));
}

Format PNGBase::GetFormat(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    std::string why;
    return stream ? FindFormat(*stream, why) : NoFormat;
}

Format PNGBase::FindFormat(Kernel::InStreamSeekable & stream, std::string & why) {
    auto const position = stream.Tell();
    try {
        auto const format = PNGReader(stream).ReadFormat();
        if (!SeekTo(stream, position))
            throw PNGReadError("PNG: the stream can't be read again");
        return format;
    } catch (PNGReadError const & error) {
        why = error.what();
    } catch (ImageLimitError const & error) {
        why = error.what();
    }
    Kernel::Trace("%1\r\n", why.c_str());
    SeekTo(stream, position);
    return NoFormat;
}

void PNGBase::InitialiseFromSource(FileSource const & source) {
    std::string why;
    auto stream = source.Open(why);
    if (!stream)
        SetFailure(std::move(why));
    InitialiseFromStream(std::move(stream));
}

void PNGBase::InitialiseFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    width = height = 0;
    dpi = 0;
    hasAlpha = isProfileFallback = false;
    profile.Reset();
    header.reset();
    inStream.Reset();
    if (!stream)
        return;
    start = stream->Tell();
    try {
        auto newHeader = PNGReader(*stream).ReadHeader();
        if (!SeekTo(*stream, start))
            throw PNGReadError("PNG: the stream can't be read again");
        TakeHeader(newHeader);
        inStream = std::move(stream);
    } catch (PNGReadError const & error) {
        SetFailure(error.what());
    } catch (ImageLimitError const & error) {
        SetFailure(error.what());
    }
}

void PNGBase::TakeHeader(PNGHeader & newHeader) {
    isProfileFallback = !newHeader.profile && newHeader.format == RGBA8;
    if (newHeader.profile && !newHeader.profile->empty())
        profile = ICCManager::GetInstance().AddProfileFromMemory(
            newHeader.profile->data(), static_cast<unsigned>(newHeader.profile->size()), nullptr);
    newHeader.profile.reset();
    width = newHeader.width;
    height = newHeader.height;
    dpi = newHeader.dpi;
    hasAlpha = newHeader.hasAlpha;
    header = std::make_unique<PNGHeader>(std::move(newHeader));
}

// The default is looked up when it is asked for: making the defaults costs more than reading a header.
Kernel::Consolidated<ICCProfile> PNGBase::GetProfile() const {
    return isProfileFallback ? ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8) : profile;
}

DecodedPixels const & PNGBase::Decode(bool * abort) const {
    Kernel::ScopedLock const guard(lock);
    // Gone with the end of this scope, however it ends: nothing is tried twice.
    if (auto const stream = std::exchange(inStream, nullptr))
        DecodeOnce(*stream, [&] { pixels = PNGReader(*stream).ReadPixels(*header, abort); });
    return pixels;
}

bool PNGBase::DecodeBands(BandCut const & cut, BandTaker const & take, bool * abort) {
    Kernel::Counted<Kernel::InStreamSeekable> stream;
    {
        Kernel::ScopedLock const guard(lock); // not for longer: what takes the bands has locks of its own
        if (!inStream)
            return pixels.IsEmpty();
        if (header->isInterlaced)
            return false;
        stream = std::exchange(inStream, nullptr);
    }
    std::exception_ptr takerFailure;
    DecodeOnce(*stream, [&] { takerFailure = PNGReader(*stream).ReadBands(*header, cut, take, abort); });
    if (takerFailure) // for which the file isn't to blame
        std::rethrow_exception(takerFailure);
    return true;
}

template<class Action>
void PNGBase::DecodeOnce(Kernel::InStreamSeekable & stream, Action && action) const {
    if (header->format != layout.format) {
        SetFailure("PNG: the file holds pixels of another format");
        return;
    }
    try {
        if (!SeekTo(stream, start))
            throw PNGReadError("PNG: the stream can't be read again");
        action();
        SeekTo(stream, start);
    } catch (PNGReadError const & error) {
        SetFailure(error.what());
    } catch (ImageLimitError const & error) {
        SetFailure(error.what());
    } catch (std::bad_alloc const &) {
        SetFailure("PNG: there is not enough memory to decode the picture");
    } catch (std::exception const & error) {
        SetFailure(error.what());
        throw;
    } catch (...) {
        SetFailure("PNG: the file can't be read");
        throw;
    }
}

void PNGBase::InitialiseForWrite(char const * path, int newWidth, int newHeight, ExportOptions const & options) {
    InitialiseFromStream(OpenForWriting(path), newWidth, newHeight, options);
    ownsOutStream = true;
}

void PNGBase::InitialiseForWrite(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight,
                                 ExportOptions const & options) {
    InitialiseFromStream(OpenForWriting(std::move(data)), newWidth, newHeight, options);
    ownsOutStream = true;
}

void PNGBase::InitialiseFromStream(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight,
                                   ExportOptions const & options) {
    width = std::clamp(newWidth, 0, largestWrittenSide);
    height = std::clamp(newHeight, 0, largestWrittenSide);
    dpi = options.GetDPI();
    profile = options.GetICCProfile();
    exportOptions = options;
    isProfileFallback = false;
    bool const dropsAlpha = layout.channelCount > 1 && !options.GetAlpha();
    writtenChannels = layout.channelCount - dropsAlpha;
    ownsOutStream = false;
    outStream = std::move(stream);
}

void PNGBase::BeginEncoding() {
    int const type = exportOptions.GetAlpha() ? colourType : nonAlphaColourType;
    Encode([&] {
        if (!outStream || encoder)
            throw PNGError("PNG: there is nothing to write to");
        if (type == noColourType)
            throw PNGError("PNG: pixels of this format can't be written");
        heldRow.assign(static_cast<std::size_t>(width) * GetWrittenPixelBytes(), 0);
        encoder =
            std::make_unique<BasePixelAccessor>(*outStream, width, height, type, layout.sampleSize * 8, exportOptions);
    });
}

void PNGBase::EncodeRow() {
    if (encoder)
        Encode([&] { encoder->WriteRow(heldRow.data()); });
}

void PNGBase::FinishEncoding() {
    if (encoder)
        Encode([&] {
            encoder->Finish();
            encoder.reset();
            EndStream();
        });
}

// After an error there is no encoder: what comes then is ignored, as the caller knows.
template<class Action>
void PNGBase::Encode(Action && action) {
    try {
        action();
    } catch (std::exception const & error) {
        SetFailure(error.what());
        AbandonEncoding();
        throw;
    } catch (...) {
        SetFailure("PNG: the file can't be written");
        AbandonEncoding();
        throw;
    }
}

// A stream that the model opened ends with the file; another one goes on, but has to have taken everything.
void PNGBase::EndStream() {
    auto const stream = std::exchange(outStream, nullptr);
    if (!(ownsOutStream ? stream->Finish() : stream->ForceFlush()))
        throw Kernel::OutStream::WriteException();
}

void PNGBase::AbandonEncoding() noexcept {
    encoder.reset();
    outStream.Reset();
    if (!HasFailed())
        SetFailure("PNG: the file was not finished");
}

Kernel::StringUtf8 PNGBase::Describe(std::vector<ChannelParams> const & channels) {
    return Kernel::FormatString("PNG<%1>", Kernel::FormatString("%1,%2,%3,%4,%5", channels[0].name, channels[1].name,
                                                                channels[2].name, channels[3].name, channels[4].name));
}

PNGBase::BaseConstPixelAccessor::BaseConstPixelAccessor(PNGBase const & readModel, bool * abort)
    : model(readModel), pixels(readModel.Decode(abort)) {}

int PNGBase::BaseConstPixelAccessor::GetBytesPerSample() const { return model.header ? model.header->sampleBytes : 0; }

unsigned char const * PNGBase::BaseConstPixelAccessor::LookupPNGPalette(unsigned char index) const {
    static constexpr PNGHeader::Palette none{};
    return (model.header ? model.header->palette : none).data() + std::size_t(index) * 3;
}
}
