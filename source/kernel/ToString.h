#pragma once

#include "kernel/ConvertEnc.h"
#include "kernel/FormatArgument.h"

namespace Kernel {
/// A value as text, as `AppendFormatVT` prints it.
template<class TEnc = TEncUtf8>
StringT<TEnc> ToStringT(FormatArgument const & value) {
    std::string text;
    value.AppendTo(text);
    if constexpr (std::is_same_v<TEnc, TEncUtf8>)
        return StringT<TEnc>(std::string_view(text));
    else
        return ConvertEnc<TEnc, TEncUtf8>(std::string_view(text));
}
}
