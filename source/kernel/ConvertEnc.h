#pragma once

#include "kernel/String.h"

namespace Kernel {
/// Converts between encodings. Any input will do: each maximal part of an ill-formed sequence becomes one U+FFFD, so
/// that the result is always well-formed. From an encoding to itself it repairs. Throws only what allocation throws.
template<class TDest, class TSource>
RASTER_API StringT<TDest> ConvertEnc(std::basic_string_view<typename TSource::Character> source);

template<class TDest, class TSource>
StringT<TDest> ConvertEnc(StringT<TSource> const & source) {
    return ConvertEnc<TDest, TSource>(source.GetView());
}

/// Whether every sequence is well-formed, so that conversion loses nothing.
template<class TEnc>
RASTER_API bool IsWellFormed(std::basic_string_view<typename TEnc::Character> text);
}
