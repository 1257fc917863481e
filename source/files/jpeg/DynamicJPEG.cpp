#include "files/jpeg/DynamicJPEG.h"

#include "files/jpeg/JPEGReader.h"
#include "kernel/Trace.h"
#include "pixel/DynamicBase.inl"

#include <algorithm>
#include <array>
#include <utility>

namespace Raster {
template class RASTER_TEMPLATE_INSTANCE DynamicBase<DynamicJPEG>;

namespace {
Format FindFormat(Kernel::Counted<Kernel::InStreamSeekable> stream, std::string & why) {
    try {
        JPEGReader reader(std::move(stream));
        reader.ReadHeader(JPEGReader::Metadata::Skip);
        if (auto const format = reader.GetFormat(); format != NoFormat)
            return format;
        why = "JPEG: a colour space that is not supported";
    } catch (std::exception const & error) {
        why = error.what();
    } catch (...) {
        why = "JPEG: the stream could not be read";
    }
    Kernel::Trace("%1\r\n", why.c_str());
    return NoFormat;
}

bool BeginsLikeJPEG(FileSource const & source) {
    std::string why;
    auto const stream = source.Open(why);
    std::array<unsigned char, 3> start{};
    return stream && stream->ReadAll(start.data(), start.size()) &&
           start == std::array<unsigned char, 3>{0xFF, 0xD8, 0xFF};
}
}

Format GetJPEGFormat(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    std::string why;
    return stream ? FindFormat(std::move(stream), why) : NoFormat;
}

bool DynamicJPEG::Create(char const * path) { return CreateToRead(FileSource(path)); }

bool DynamicJPEG::Create(Kernel::Counted<CompressedRasterData const> data) {
    return CreateToRead(FileSource(std::move(data)));
}

bool DynamicJPEG::CreateToRead(FileSource const & source) {
    std::string why;
    auto stream = source.Open(why);
    return stream ? CreateFromStream(std::move(stream)) : Refuse(std::move(why));
}

bool DynamicJPEG::CreateFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    if (!stream)
        return Refuse("there is no stream");
    auto const start = static_cast<std::int64_t>(stream->Tell());
    std::string why;
    auto const format = FindFormat(stream, why);
    stream->Seek(Kernel::SeekOrigin::Start, start);
    Kernel::Counted<Kernel::Countable> model;
    if (format != NoFormat)
        model = VisitFormat(format, [&](auto tuple) -> Kernel::Counted<Kernel::Countable> {
            return Kernel::MakeCounted<TypedOf<decltype(tuple)>>(std::move(stream));
        });
    SetTyped(format, std::move(model));
    SetOpenFailure(std::move(why));
    return true;
}

bool DynamicJPEG::Create(char const * path, int width, int height, ExportOptions const & options, Format format) {
    return CreateToWrite(path, width, height, options, format);
}

bool DynamicJPEG::Create(Kernel::Counted<CompressedRasterData> data, int width, int height,
                         ExportOptions const & options, Format format) {
    return CreateToWrite(data, width, height, options, format);
}

bool DynamicJPEG::CreateToStream(Kernel::Counted<Kernel::OutStream> stream, int width, int height,
                                 ExportOptions const & options, Format format) {
    return CreateToWrite(stream, width, height, options, format);
}

template<class Target>
bool DynamicJPEG::CreateToWrite(Target const & target, int width, int height, ExportOptions const & options,
                                Format format) {
    if (!target)
        return Refuse("there is nothing to write to");
    if (!IsSupportedFormat(format))
        return Refuse("pixels of this format can't be written into a JPEG");
    auto model = VisitFormat(format, [&](auto tuple) -> Kernel::Counted<Kernel::Countable> {
        auto typed = Kernel::MakeCounted<TypedOf<decltype(tuple)>>(target, width, height, options);
        if (!typed->HasFailed())
            return typed;
        SetOpenFailure(typed->GetFailure());
        return nullptr;
    });
    if (!model)
        return false;
    SetTyped(format, std::move(model));
    SetOpenFailure({});
    return true;
}

bool DynamicJPEG::Refuse(std::string why) {
    SetOpenFailure(std::move(why));
    return false;
}

bool DynamicJPEG::IsJPEGFile(char const * path) { return BeginsLikeJPEG(FileSource(path)); }

bool DynamicJPEG::IsJPEGFile(Kernel::Counted<CompressedRasterData const> data) {
    return BeginsLikeJPEG(FileSource(std::move(data)));
}

double DynamicJPEG::GetDPI() const {
    return Dispatch([](auto const & jpeg) { return jpeg.GetDPI(); });
}

Kernel::Consolidated<ICCProfile> DynamicJPEG::GetProfile() const {
    return Dispatch([](auto const & jpeg) { return jpeg.GetProfile(); });
}

bool DynamicJPEG::IsProfileFallback() const {
    return Dispatch([](auto const & jpeg) { return jpeg.IsProfileFallback(); });
}

int DynamicJPEG::GetOrientation() const {
    return std::max(1, Dispatch([](auto const & jpeg) { return jpeg.GetOrientation(); }));
}

void DynamicJPEG::SetIsInvertCMYK(bool invert) {
    Dispatch([=](auto & jpeg) { jpeg.SetIsInvertCMYK(invert); });
}

bool DynamicJPEG::EndedEarly() const {
    return Dispatch([](auto const & jpeg) { return jpeg.EndedEarly(); });
}

unsigned long DynamicJPEG::GetWarningCount() const {
    return Dispatch([](auto const & jpeg) { return jpeg.GetWarningCount(); });
}

std::string DynamicJPEG::GetWarning() const {
    return Dispatch([](auto const & jpeg) { return jpeg.GetWarning(); });
}

Format DynamicJPEG::GetSupportedFormat(Format format) {
    switch (format) {
    case IA8:
    case IA16:
    case A8:
    case A16:
    case AF:
        return IA8;
    case CMYKA8:
        return CMYKA8;
    default:
        return RGBA8;
    }
}

bool DynamicJPEG::IsSupportedFormat(Format format) {
    return format != NoFormat && GetSupportedFormat(format) == format;
}
}
