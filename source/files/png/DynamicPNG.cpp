#include "files/png/DynamicPNG.h"

#include "kernel/Trace.h"
#include "pixel/DynamicBase.inl"

#include <array>
#include <type_traits>
#include <utility>

namespace Raster {
template class RASTER_TEMPLATE_INSTANCE DynamicBase<DynamicPNG>;

namespace {
// By the number of the format.
constexpr std::array<Format, formatCount> supportedFormats = {
    RGBA8,     RGBA16, IA8, IA16, /*CMYKA8*/ RGBA8, /*LABA16*/ RGBA16, A8, A16, /*NoFormat*/ RGBA8, /*RGBAUF*/ RGBA16,
    /*AF*/ A16};
}

DynamicPNG::DynamicPNG() = default;
DynamicPNG::DynamicPNG(DynamicPNG const &) = default;
DynamicPNG & DynamicPNG::operator=(DynamicPNG const &) = default;
DynamicPNG::~DynamicPNG() = default;

bool DynamicPNG::Refuse(std::string reason) {
    Kernel::Trace("%1\r\n", reason.c_str());
    SetOpenFailure(std::move(reason));
    return false;
}

bool DynamicPNG::Create(char const * path) { return CreateFromSource(FileSource(path)); }

bool DynamicPNG::Create(Kernel::Counted<CompressedRasterData const> data) {
    return CreateFromSource(FileSource(std::move(data)));
}

bool DynamicPNG::CreateFromSource(FileSource const & source) {
    std::string why;
    auto stream = source.Open(why);
    return stream ? CreateFromStream(std::move(stream)) : Refuse(std::move(why));
}

bool DynamicPNG::CreateFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream) {
    if (!stream)
        return Refuse("PNG: there is no file");
    std::string why;
    Format const format = PNGBase::FindFormat(*stream, why);
    Kernel::Counted<Kernel::Countable> model;
    if (format != NoFormat)
        VisitFormat(format, [&](auto tuple) {
            using Typed = TypedOf<decltype(tuple)>;
            if constexpr (!std::is_void_v<Typed>) {
                auto typed = Kernel::MakeCounted<Typed>(stream);
                if (typed->HasFailed())
                    why = typed->GetFailure();
                else
                    model = std::move(typed);
            }
            return true;
        });
    SetTyped(model ? format : NoFormat, model);
    if (!model)
        return Refuse(std::move(why));
    SetOpenFailure({});
    return true;
}

template<class Target>
bool DynamicPNG::CreateForWriting(Target const & target, int width, int height, ExportOptions const & options,
                                  Format format) {
    if (!target)
        return Refuse("PNG: there is nothing to write to");
    std::string why = "PNG: pixels of this format can't be written";
    Kernel::Counted<Kernel::Countable> model;
    VisitFormat(format, [&](auto tuple) {
        using Typed = TypedOf<decltype(tuple)>;
        if constexpr (!std::is_void_v<Typed>) {
            auto typed = Kernel::MakeCounted<Typed>(target, width, height, options);
            if (typed->HasFailed())
                why = typed->GetFailure();
            else
                model = std::move(typed);
        }
        return true;
    });
    if (!model)
        return Refuse(std::move(why));
    SetTyped(format, std::move(model));
    SetOpenFailure({});
    return true;
}

bool DynamicPNG::Create(char const * path, int width, int height, ExportOptions const & options, Format format) {
    return CreateForWriting(path, width, height, options, format);
}

bool DynamicPNG::Create(Kernel::Counted<CompressedRasterData> data, int width, int height,
                        ExportOptions const & options, Format format) {
    return CreateForWriting(data, width, height, options, format);
}

bool DynamicPNG::CreateToStream(Kernel::Counted<Kernel::OutStream> stream, int width, int height,
                                ExportOptions const & options, Format format) {
    return CreateForWriting(stream, width, height, options, format);
}

double DynamicPNG::GetDPI() const {
    return Dispatch([](auto const & png) { return png.GetDPI(); });
}

Kernel::Consolidated<ICCProfile> DynamicPNG::GetProfile() const {
    return Dispatch([](auto const & png) { return png.GetProfile(); });
}

bool DynamicPNG::IsProfileFallback() const {
    return Dispatch([](auto const & png) { return png.IsProfileFallback(); });
}

Format DynamicPNG::GetSupportedFormat(Format format) noexcept {
    return format < formatCount ? supportedFormats[format] : NoFormat;
}

bool DynamicPNG::IsSupportedFormat(Format format) noexcept {
    return format != NoFormat && GetSupportedFormat(format) == format;
}
}
