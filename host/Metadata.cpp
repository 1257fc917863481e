#include "host/Metadata.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Host {
namespace {
using Kernel::InStreamSeekable;
using Kernel::SeekOrigin;

using namespace std::string_view_literals;

class Found {
public:
    void Add(std::string_view name) {
        if (std::ranges::find(names, name) == names.end())
            names.emplace_back(name);
    }
    std::vector<std::string> names;
};

template<std::size_t count>
std::optional<std::uint32_t> ReadBigEndian(InStreamSeekable & stream) {
    std::array<std::uint8_t, count> bytes;
    if (!stream.ReadAll(bytes.data(), bytes.size()))
        return std::nullopt;
    std::uint32_t value = 0;
    for (auto const byte : bytes)
        value = value << 8 | byte;
    return value;
}

/// Up to `size` bytes from here; the position stays.
std::string Peek(InStreamSeekable & stream, std::uint64_t size) {
    std::string bytes(std::min<std::uint64_t>(size, 32), '\0');
    bytes.resize(stream.Read(bytes.data(), bytes.size()));
    stream.Seek(SeekOrigin::Current, -static_cast<std::int64_t>(bytes.size()));
    return bytes;
}

void AddSegment(Found & found, std::uint32_t marker, std::string_view start) {
    if (marker == 0xE1 && start.starts_with("Exif\0"sv))
        found.Add("EXIF");
    else if (marker == 0xE1 && start.starts_with("http://ns.adobe.com/xap/"))
        found.Add("XMP");
    else if (marker == 0xED && start.starts_with("Photoshop 3.0"))
        found.Add("image resources");
    else if (marker == 0xFE)
        found.Add("comments");
}

void FindInJPEG(InStreamSeekable & stream, Found & found) {
    for (;;) {
        auto byte = ReadBigEndian<1>(stream);
        if (byte != 0xFFu)
            return;
        while (byte == 0xFFu) // as many as one likes
            byte = ReadBigEndian<1>(stream);
        constexpr std::uint32_t startOfScan = 0xDA, endOfImage = 0xD9;
        if (!byte || byte == startOfScan || byte == endOfImage)
            return;
        auto const length = ReadBigEndian<2>(stream);
        if (!length || *length < 2)
            return;
        AddSegment(found, *byte, Peek(stream, *length - 2));
        if (!stream.SkipBlock(*length - 2))
            return;
    }
}

/// What PNG files say of colours in other words than a profile; most say sRGB.
class ColourChunks {
public:
    void Take(std::string_view type, std::string_view start) {
        isProfiled = isProfiled || type == "iCCP" || type == "sRGB";
        isOther = isOther || (type == "gAMA" && start != "\x00\x00\xB1\x8F"sv) ||
                  (type == "cHRM" && start != "\x00\x00\x7A\x26\x00\x00\x80\x84\x00\x00\xFA\x00\x00\x00\x80\xE8"
                                              "\x00\x00\x75\x30\x00\x00\xEA\x60\x00\x00\x3A\x98\x00\x00\x17\x70"sv);
    }
    bool AreLost() const { return isOther && !isProfiled; }

private:
    bool isProfiled = false, isOther = false;
};

void AddChunk(Found & found, std::string_view type, std::string_view start) {
    if (type == "eXIf")
        found.Add("EXIF");
    else if (type == "iTXt" && start.starts_with("XML:com.adobe.xmp\0"sv))
        found.Add("XMP");
    else if (type == "tEXt" || type == "zTXt" || type == "iTXt")
        found.Add("text");
    else if (type == "tIME")
        found.Add("time of change");
}

void FindInPNG(InStreamSeekable & stream, Found & found, ColourChunks & colours) {
    for (;;) {
        auto const length = ReadBigEndian<4>(stream);
        std::array<char, 4> type;
        if (!length || !stream.ReadAll(type.data(), type.size()))
            return;
        std::string_view const name(type.data(), type.size());
        auto const content = Peek(stream, *length);
        AddChunk(found, name, content);
        colours.Take(name, content);
        constexpr std::uint32_t checksumBytes = 4;
        if (name == "IEND" || !stream.SkipBlock(std::uint64_t(*length) + checksumBytes))
            return;
    }
}
}

std::vector<std::string> FindMetadata(InStreamSeekable & stream) {
    Found found;
    auto const start = Peek(stream, 8);
    if (start.starts_with("\xFF\xD8\xFF")) {
        stream.SkipBlock(2);
        FindInJPEG(stream, found);
    } else if (start == "\x89PNG\r\n\x1A\n") {
        stream.SkipBlock(8);
        ColourChunks colours;
        FindInPNG(stream, found, colours);
        if (colours.AreLost())
            found.Add("gamma and primaries");
    }
    return std::move(found.names);
}
}
