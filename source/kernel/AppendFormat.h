#pragma once

#include "kernel/FormatArgument.h"

#include <span>

namespace Kernel {
/// The untyped core of `AppendFormatVT`. @param format  see there.
RASTER_API void AppendFormat(std::string & dest, std::string_view format, std::span<FormatArgument const> arguments);
RASTER_API void AppendFormat(StringUtf8 & dest, std::string_view format, std::span<FormatArgument const> arguments);
RASTER_API void AppendFormat(StringUtf16 & dest, std::u16string_view format, std::span<FormatArgument const> arguments);

/// Appends `format` with %1 to %9 each replaced by the argument of that number, in any order and as often as wished;
/// %% gives one %. The placeholder of a missing argument, and a % before anything else, stand as they are. Text that
/// was put in is not looked at again, so the arguments may hold anything. See `FormatArgument` for how values print.
template<class Dest, class Format, class... Arguments>
void AppendFormatVT(Dest & dest, Format const & format, Arguments const &... arguments) {
    if constexpr (sizeof...(Arguments) == 0)
        AppendFormat(dest, format, {});
    else {
        FormatArgument const list[] = {FormatArgument(arguments)...};
        AppendFormat(dest, format, list);
    }
}

/// A new text made by `AppendFormatVT`.
template<class TEnc = TEncUtf8, class... Arguments>
StringT<TEnc> FormatString(typename StringT<TEnc>::Character const * format, Arguments const &... arguments) {
    StringT<TEnc> result;
    AppendFormatVT(result, typename StringT<TEnc>::View(format), arguments...);
    return result;
}
}
