#include "kernel/FormatArgument.h"

#include "kernel/ConvertEnc.h"

#include <charconv>
#include <cmath>

namespace Kernel {
namespace {
// Long enough for any 64-bit integer in base 10 or 16 and for any double of 6 digits.
constexpr std::size_t NumberSpace = 32;

template<class... Arguments>
void AppendNumber(std::string & dest, Arguments... arguments) {
    char space[NumberSpace];
    auto const result = std::to_chars(space, space + NumberSpace, arguments...);
    dest.append(space, result.ptr);
}

struct Appender {
    std::string & dest;

    void operator()(std::int64_t number) const { AppendNumber(dest, number); }
    void operator()(std::uint64_t number) const { AppendNumber(dest, number); }
    void operator()(double number) const {
        // The sign of a NaN differs between machines for the same operation, so it isn't shown.
        if (std::isnan(number))
            dest += "nan";
        else
            AppendNumber(dest, number, std::chars_format::general, 6); // defined as printf's %g in the C locale
    }
    void operator()(char character) const { dest += character; }
    void operator()(bool truth) const { dest += truth ? '1' : '0'; }
    void operator()(std::string_view text) const { dest += text; }
    void operator()(std::u16string_view text) const { dest += ConvertEnc<TEncUtf8, TEncUtf16>(text).GetView(); }
    void operator()(void const * address) const {
        dest += "0x";
        AppendNumber(dest, reinterpret_cast<std::uintptr_t>(address), 16);
    }
};
}

void FormatArgument::AppendTo(std::string & dest) const { std::visit(Appender{dest}, value); }
}
