#include "host/OptionValues.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace Host::OptionValues {
Colour ParseColour(std::string const & option, std::string const & text) {
    if (text == "white")
        return {255, 255, 255};
    if (text == "black")
        return {0, 0, 0};
    std::string_view const digits = std::string_view(text).substr(text.starts_with('#') ? 1 : 0);
    std::uint32_t value = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (digits.size() != 6 || error != std::errc() || end != digits.data() + digits.size())
        throw CLI::ValidationError(option, fmt::format("'{}' is no colour such as #ff8000, white or black", text));
    return {static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 8),
            static_cast<std::uint8_t>(value)};
}

void ParsePoint(std::string const & option, std::string const & text, double & x, double & y) {
    constexpr double farthest = 1 << 24; // beyond that positions are no longer exact
    auto const comma = text.find(',');
    if (comma == text.npos)
        throw CLI::ValidationError(option, fmt::format("'{}' is no pair of numbers X,Y", text));
    std::string_view const view = text;
    x = ParseWithin<double>(option, view.substr(0, comma), -farthest, farthest);
    y = ParseWithin<double>(option, view.substr(comma + 1), -farthest, farthest);
}

Kernel::RectT<int> ParseRect(std::string const & option, std::string const & text) {
    constexpr int farthest = 1 << 24;
    std::array<int, 4> numbers{};
    std::string_view rest = text;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        bool const isLast = i + 1 == numbers.size();
        auto const end = isLast ? rest.size() : rest.find(',');
        if (end == rest.npos)
            throw CLI::ValidationError(option, fmt::format("'{}' is no rectangle X,Y,WIDTH,HEIGHT", text));
        numbers[i] = ParseWithin<int>(option, rest.substr(0, end), i < 2 ? -farthest : 0, farthest);
        rest.remove_prefix(isLast ? end : end + 1);
    }
    return {numbers[0], numbers[1], numbers[0] + numbers[2], numbers[1] + numbers[3]};
}

std::optional<Raster::Intent> FindIntent(std::string const & text) {
    constexpr std::array<std::string_view, Raster::intentCount> words = {"perceptual", "relative", "saturation",
                                                                         "absolute"};
    auto const found = std::ranges::find(words, text);
    if (found == words.end())
        return std::nullopt;
    return static_cast<Raster::Intent>(std::distance(words.begin(), found));
}
}
