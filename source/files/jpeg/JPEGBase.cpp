#include "files/jpeg/JPEGBase.h"

#include "colour/ICCManager.h"
#include "files/ImageLimits.h"
#include "files/jpeg/JPEGReader.h"
#include "files/jpeg/JPEGWriter.h"
#include "kernel/AppendFormat.h"
#include "kernel/ScopedLock.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Raster {
JPEGBase::JPEGBase(int pixelComponents) : components(pixelComponents) {}
JPEGBase::~JPEGBase() = default;

void JPEGBase::InitialiseForRead(FileSource const & source) {
    std::string why;
    auto stream = source.Open(why);
    if (!stream)
        SetFailure(std::move(why));
    InitialiseForRead(std::move(stream));
}

void JPEGBase::InitialiseForRead(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    invertCMYK = true;
    profile.Reset();
    width = height = 0;
    if (!stream)
        return;
    auto newReader = std::make_unique<JPEGReader>(std::move(stream));
    try {
        newReader->ReadHeader(JPEGReader::Metadata::Keep);
    } catch (std::exception const & error) {
        SetFailure(error.what());
        throw;
    } catch (...) {
        SetFailure("JPEG: the stream could not be read");
        throw;
    }
    try {
        TakeMetadata(*newReader);
        dpi = newReader->GetDPI();
        width = newReader->GetWidth();
        height = newReader->GetHeight();
        reader = std::move(newReader);
    } catch (std::exception const & error) {
        SetFailure(error.what());
        width = height = 0;
        dpi = 0;
    }
}

void JPEGBase::TakeMetadata(JPEGReader const & newReader) {
    auto const & metadata = newReader.GetMetadata();
    auto const profileBytes = metadata.GetProfile();
    isProfileFallback = profileBytes.empty();
    if (!isProfileFallback)
        profile = ICCManager::GetInstance().AddProfileFromMemory(profileBytes.data(),
                                                                 static_cast<unsigned>(profileBytes.size()), nullptr);
    auto const & blocks = metadata.GetImageResourceBlocks();
    imageResourceBlocks.Reset();
    if (!blocks.empty())
        imageResourceBlocks =
            Kernel::MakeCounted<ImageResourceBlocks>(ImageResourceBlocks::CreateCopy(blocks.data(), blocks.size()));
    orientation = metadata.GetOrientation();
}

// The default is looked up when it is asked for: making the defaults costs more than reading a header.
Kernel::Consolidated<ICCProfile> JPEGBase::GetProfile() const {
    return isProfileFallback ? ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8) : profile;
}

void JPEGBase::SetImageResourceBlocksData(Kernel::Counted<ImageResourceBlocks const> blocks) {
    imageResourceBlocks = std::move(blocks);
}

std::string JPEGBase::GetWarning() const {
    Kernel::ScopedLock const guard(lock);
    return warning;
}

DecodedPixels const & JPEGBase::Decode(bool * abort) const {
    Kernel::ScopedLock const guard(lock);
    // Gone with the end of this scope, however it ends: nothing is tried twice.
    if (auto const decodingReader = std::move(reader))
        DecodeOnce(*decodingReader, abort, [&] { pixels = decodingReader->Decode(components); });
    return pixels;
}

bool JPEGBase::DecodeBands(BandCut const & cut, BandTaker const & take, bool * abort) {
    std::unique_ptr<JPEGReader> decodingReader;
    {
        Kernel::ScopedLock const guard(lock); // not for longer: what takes the bands has locks of its own
        if (!reader)
            return pixels.IsEmpty();
        decodingReader = std::move(reader);
    }
    std::exception_ptr takerFailure;
    DecodeOnce(*decodingReader, abort, [&] { takerFailure = decodingReader->DecodeBands(components, cut, take); });
    if (takerFailure) // for which the file isn't to blame
        std::rethrow_exception(takerFailure);
    return true;
}

template<class Action>
void JPEGBase::DecodeOnce(JPEGReader & decodingReader, bool * abort, Action && action) const {
    decodingReader.SetAbort(abort);
    try {
        action();
    } catch (std::bad_alloc const &) {
        SetFailure("JPEG: not enough memory to decode the picture");
    } catch (ImageLimitError const & error) {
        SetFailure(std::string("JPEG: ") + error.what());
    } catch (std::exception const & error) {
        SetFailure(error.what());
        throw;
    } catch (...) {
        SetFailure("JPEG: the stream could not be read");
        throw;
    }
    {
        Kernel::ScopedLock const guard(lock);
        warning = decodingReader.GetWarning();
    }
    warningCount.store(decodingReader.GetWarningCount(), std::memory_order_release);
    endedEarly.store(decodingReader.EndedEarly(), std::memory_order_release);
}

void JPEGBase::InitialiseForWrite(char const * path, int newWidth, int newHeight, ExportOptions const & options) {
    InitialiseForWrite(OpenForWriting(path), newWidth, newHeight, options);
    ownsOutStream = true;
}

void JPEGBase::InitialiseForWrite(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight,
                                  ExportOptions const & options) {
    InitialiseForWrite(OpenForWriting(std::move(data)), newWidth, newHeight, options);
    ownsOutStream = true;
}

void JPEGBase::InitialiseForWrite(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight,
                                  ExportOptions const & options) {
    invertCMYK = true;
    profile.Reset();
    isProfileFallback = false;
    width = height = 0;
    if (!stream)
        return;
    int const cutWidth = std::clamp(newWidth, 0, largestSide), cutHeight = std::clamp(newHeight, 0, largestSide);
    writer = std::make_unique<JPEGWriter>(stream, cutWidth, cutHeight, components, options);
    outStream = std::move(stream);
    width = cutWidth;
    height = cutHeight;
    dpi = options.GetDPI();
    profile = options.GetICCProfile();
}

void JPEGBase::BeginEncoding() {
    if (!writer)
        return;
    try {
        heldRow.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(components), 0);
        writer->SetAbort(writeAbort);
        JPEGWriter::View const profileBytes = profile ? profile->GetRawData() : JPEGWriter::View();
        JPEGWriter::View resourceBytes;
        if (imageResourceBlocks)
            resourceBytes = {imageResourceBlocks->GetData(), imageResourceBlocks->GetSize()};
        writer->Begin(profileBytes, resourceBytes);
    } catch (std::exception const & error) {
        StopEncoding(error.what());
        throw;
    } catch (...) {
        StopEncoding("JPEG: the stream could not be written");
        throw;
    }
}

void JPEGBase::EncodeRow() {
    if (writer && !writer->WriteRow(heldRow.data()))
        StopEncoding("JPEG: stopped on request");
}

void JPEGBase::FinishEncoding() {
    if (!writer)
        return;
    if (!writer->HasAllRows())
        StopEncoding("JPEG: the file is unfinished: rows are missing");
    else if (!writer->Finish())
        StopEncoding("JPEG: stopped on request");
    else
        EndStream();
}

void JPEGBase::EndStream() {
    writer.reset();
    auto const stream = std::move(outStream);
    if (!(ownsOutStream ? stream->Finish() : stream->ForceFlush()))
        throw Kernel::OutStream::WriteException();
}

void JPEGBase::AbandonEncoding() noexcept {
    try {
        StopEncoding("JPEG: the file is unfinished");
    } catch (...) { // no memory for the words
        writer.reset();
    }
}

void JPEGBase::StopEncoding(char const * reason) {
    writer.reset();
    outStream.Reset();
    SetFailure(reason);
}

Kernel::StringUtf8 JPEGBase::Describe(std::vector<ChannelParams> const & channels) {
    Kernel::StringUtf8 const names = Kernel::FormatString(
        "%1,%2,%3,%4,%5", channels[0].name.GetCharacters(), channels[1].name.GetCharacters(),
        channels[2].name.GetCharacters(), channels[3].name.GetCharacters(), channels[4].name.GetCharacters());
    return Kernel::FormatString("JPEG<%1>", names.GetCharacters());
}
}
