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

void AddChunk(Found & found, std::string_view type, std::string_view start) {
    if (type == "eXIf")
        found.Add("EXIF");
    else if (type == "iTXt" && start.starts_with("XML:com.adobe.xmp\0"sv))
        found.Add("XMP");
    else if (type == "tEXt" || type == "zTXt" || type == "iTXt")
        found.Add("text");
    else if (type == "tIME")
        found.Add("time of change");
    else if (type == "gAMA" || type == "cHRM")
        found.Add("gamma and primaries");
}

void FindInPNG(InStreamSeekable & stream, Found & found) {
    for (;;) {
        auto const length = ReadBigEndian<4>(stream);
        std::array<char, 4> type;
        if (!length || !stream.ReadAll(type.data(), type.size()))
            return;
        std::string_view const name(type.data(), type.size());
        AddChunk(found, name, Peek(stream, *length));
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
        FindInPNG(stream, found);
    }
    return std::move(found.names);
}
}
