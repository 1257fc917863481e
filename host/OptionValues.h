/// What options take: how their texts become values. For the parser of the command line only; includes its heavy
/// header.
#pragma once

#include "host/Settings.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Host::OptionValues {
template<class T>
struct ValueOf {
    using Type = T;
};
template<class T>
struct ValueOf<std::optional<T>> {
    using Type = T;
};

/// All of the text, or nothing.
template<class T>
std::optional<T> Parse(std::string_view text) {
    T value{};
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// A number between two others, which are allowed. What isn't a number is in no range.
template<class T>
T ParseWithin(std::string const & option, std::string_view text, T least, T most) {
    auto const value = Parse<T>(text);
    if (!value || !(*value >= least && *value <= most))
        throw CLI::ValidationError(option, fmt::format("'{}' is no number from {} to {}", text, least, most));
    return *value;
}

/// An option with one number, which may be negative: a parser that looks for options first would trip over the sign.
template<class Target, class T = typename ValueOf<Target>::Type>
CLI::Option * AddNumber(CLI::App * app, std::string const & name, Target & target, T least, T most, char const * unit,
                        std::string const & description) {
    auto const take = [&target, name, least, most](std::string const & text) {
        target = ParseWithin<T>(name, text, least, most);
    };
    return app->add_option_function<std::string>(name, take, description)->type_name(unit);
}

/// An option whose words stand for values.
template<class Target, class Find>
CLI::Option * AddWord(CLI::App * app, std::string const & name, Target & target, Find find, std::string const & words,
                      char const * unit, std::string const & description) {
    auto const take = [&target, name, find, words](std::string const & text) {
        auto const found = find(text);
        if (!found)
            throw CLI::ValidationError(name, fmt::format("'{}' is none of {}", text, words));
        target = *found;
    };
    return app->add_option_function<std::string>(name, take, description)->type_name(unit);
}

Colour ParseColour(std::string const & option, std::string const & text);
/// "X,Y".
void ParsePoint(std::string const & option, std::string const & text, double & x, double & y);
/// "X,Y,WIDTH,HEIGHT" in whole pixels.
Kernel::RectT<int> ParseRect(std::string const & option, std::string const & text);
std::optional<Raster::Intent> FindIntent(std::string const & text);
}
