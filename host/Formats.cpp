#include "host/Formats.h"

#include "host/Text.h"
#include "pixel/FormatFunctions.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <iterator>

namespace Host {
namespace {
using namespace Raster;

struct TypeFacts {
    FileType type;
    std::string_view name;
    bool isWritten;
    int largestSide; // 0 where nothing is written
    std::array<std::string_view, 4> extensions;
};

constexpr TypeFacts types[] = {
    {FileTypeJPEG, "JPEG", true, 65500, {"jpg", "jpeg", "jpe", "jfif"}},
    {FileTypePNG, "PNG", true, 32767, {"png"}},
    {FileTypeTIFF, "TIFF", false, 0, {"tif", "tiff"}},
    {FileTypeWEBP, "WebP", false, 0, {"webp"}},
    {FileTypeHDPhoto, "HD Photo", false, 0, {"jxr", "wdp", "hdp"}},
    {FileTypeRAW, "camera raw", false, 0, {}},
    {FileTypeGIF, "GIF", false, 0, {"gif"}},
    {FileTypeJPEG2000, "JPEG 2000", false, 0, {"jp2", "jpx", "j2k", "j2c"}},
    {FileTypeBMP, "BMP", false, 0, {"bmp"}},
    {FileTypeTGA, "TGA", false, 0, {"tga"}},
    {FileTypeOpenEXR, "OpenEXR", false, 0, {"exr"}},
    {FileTypeHDR, "Radiance HDR", false, 0, {"hdr"}},
    {FileTypeHEIF, "HEIF", false, 0, {"heic", "heif"}},
};

struct FormatFacts {
    Format format;
    std::string_view name;
    unsigned channels, bits;
};

constexpr FormatFacts formats[] = {
    {RGBA8, "RGBA8", 4, 8},    {RGBA16, "RGBA16", 4, 16}, {IA8, "IA8", 2, 8}, {IA16, "IA16", 2, 16},
    {CMYKA8, "CMYKA8", 5, 8},  {LABA16, "LABA16", 4, 16}, {A8, "A8", 1, 8},   {A16, "A16", 1, 16},
    {RGBAUF, "RGBAUF", 4, 32}, {AF, "AF", 1, 32},
};
static_assert(std::size(formats) + 1 == formatCount, "every format but the one without pixels");

std::string MakeLower(std::string_view text) {
    std::string lower(text);
    for (char & c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

TypeFacts const * FindType(FileType type) {
    auto const found = std::ranges::find(types, type, &TypeFacts::type);
    return found == std::end(types) ? nullptr : found;
}

FormatFacts GetFacts(Format format) {
    auto const found = std::ranges::find(formats, format, &FormatFacts::format);
    return found == std::end(formats) ? FormatFacts{NoFormat, "none", 0, 0} : *found;
}

bool HasExtension(TypeFacts const & type, std::string_view extension) {
    return !extension.empty() && std::ranges::find(type.extensions, extension) != type.extensions.end();
}
}

std::string_view GetTypeName(FileType type) {
    auto const * const facts = FindType(type);
    return facts ? facts->name : "unknown";
}

std::optional<FileType> FindWrittenType(std::string_view name) {
    auto const lower = MakeLower(name);
    for (auto const & type : types)
        if (type.isWritten && (lower == MakeLower(type.name) || HasExtension(type, lower)))
            return type.type;
    return std::nullopt;
}

std::optional<FileType> FindWrittenTypeOfPath(std::string_view path) {
    auto const name = path.substr(path.find_last_of('/') + 1); // npos + 1 is 0
    auto const dot = name.find_last_of('.');
    if (dot == name.npos || dot == 0)
        return std::nullopt;
    auto const extension = MakeLower(name.substr(dot + 1));
    for (auto const & type : types)
        if (type.isWritten && HasExtension(type, extension))
            return type.type;
    return std::nullopt;
}

std::string ListWrittenTypes() {
    std::vector<std::string> words;
    for (auto const & type : types) {
        if (!type.isWritten)
            continue;
        std::vector<std::string> extensions;
        for (auto const extension : type.extensions)
            if (!extension.empty())
                extensions.push_back(fmt::format(".{}", extension));
        words.push_back(fmt::format("{} ({})", MakeLower(type.name), fmt::join(extensions, ", ")));
    }
    return Join(words);
}

int GetLargestSide(FileType type) {
    auto const * const facts = FindType(type);
    return facts ? facts->largestSide : 0;
}

std::string_view GetFormatName(Format format) { return GetFacts(format).name; }

std::optional<Format> FindFormat(std::string_view name) {
    auto const lower = MakeLower(name);
    for (auto const & format : formats)
        if (lower == MakeLower(format.name))
            return format.format;
    return std::nullopt;
}

std::vector<std::string> ListFormats() {
    std::vector<std::string> names;
    for (auto const & format : formats)
        names.emplace_back(format.name);
    return names;
}

unsigned GetPixelBytes(Format format) {
    auto const facts = GetFacts(format);
    return facts.channels * facts.bits / 8;
}

unsigned GetBits(Format format) { return GetFacts(format).bits; }

std::string_view GetSpaceName(ColourSpace space) {
    switch (space) {
    case ColourSpaceGrey:
        return "grey";
    case ColourSpaceRGB:
        return "RGB";
    case ColourSpaceCMYK:
        return "CMYK";
    case ColourSpaceLAB:
        return "Lab";
    case ColourSpaceRGBUF:
        return "linear RGB";
    case ColourSpaceNone:
        break;
    }
    return "no colour";
}
}
