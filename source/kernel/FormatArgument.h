#pragma once

#include "kernel/String.h"

#include <concepts>
#include <string>
#include <type_traits>
#include <variant>

namespace Kernel {
template<class T>
concept Enumeration = std::is_enum_v<T>;

/// One value on its way into a formatted text. Texts are borrowed, so it must not outlive the call that it is made for.
class FormatArgument {
public:
    using Value = std::variant<std::int64_t, std::uint64_t, double, char, bool, std::string_view, std::u16string_view,
                               void const *>;

    template<std::signed_integral T>
    FormatArgument(T number) : value(std::int64_t(number)) {}
    template<std::unsigned_integral T>
    FormatArgument(T number) : value(std::uint64_t(number)) {}
    template<std::floating_point T>
    FormatArgument(T number) : value(static_cast<double>(number)) {}
    template<Enumeration T>
    FormatArgument(T entry) : FormatArgument(static_cast<std::underlying_type_t<T>>(entry)) {}
    FormatArgument(char character) : value(character) {}
    FormatArgument(bool truth) : value(truth) {}
    FormatArgument(char const * text) : value(std::string_view(text ? text : "")) {}
    FormatArgument(char16_t const * text) : value(std::u16string_view(text ? text : u"")) {}
    FormatArgument(std::string_view text) : value(text) {}
    FormatArgument(std::u16string_view text) : value(text) {}
    FormatArgument(std::string const & text) : value(std::string_view(text)) {}
    template<class TEnc>
    FormatArgument(StringT<TEnc> const & text) : value(text.GetView()) {}
    FormatArgument(void const * address) : value(address) {}

    /// Appends the value: numbers in decimal and the C locale's form, doubles as by %g, truth values as 1 and 0,
    /// addresses in hexadecimal, texts of the other encoding converted.
    RASTER_API void AppendTo(std::string & dest) const;

private:
    Value value;
};
}
