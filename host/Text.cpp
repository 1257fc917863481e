#include "host/Text.h"

#include <fmt/format.h>

#include <cstddef>
#include <system_error>

namespace Host {
namespace {
/// How many bytes of `text` are one character of UTF-8; 0 if they are none.
std::size_t MeasureCharacter(std::string_view text) {
    auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned const first = byte(0);
    if (first < 0x80)
        return 1;
    std::size_t const length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    unsigned const second = byte(1);
    bool const isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    bool const isNoCharacter = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return isOverlong || isNoCharacter ? 0 : length;
}
}

std::string MakePrintable(std::string_view text) {
    std::string result;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            result += fmt::format("\\x{:02X}", byte);
        else
            result += c;
    }
    return result;
}

std::string MakeUtf8(std::string_view bytes) {
    std::string result;
    while (!bytes.empty()) {
        std::size_t const length = MeasureCharacter(bytes);
        if (length == 0)
            result += "\xEF\xBF\xBD";
        else
            result += bytes.substr(0, length);
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

std::string Join(std::vector<std::string> const & words, std::string_view last) {
    std::string result;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0)
            result += i + 1 == words.size() ? fmt::format(" {} ", last) : ", ";
        result += words[i];
    }
    return result;
}

std::string FormatBytes(std::uint64_t bytes) {
    if (bytes < 1024)
        return fmt::format("{} bytes", bytes);
    static constexpr char const * units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1023.95 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string DescribeError(int errorNumber) { return std::generic_category().message(errorNumber); }
}
