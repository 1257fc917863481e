#pragma once

#include "kernel/String.h"

#include <initializer_list>
#include <limits>

namespace Kernel {
/// Joins texts of one encoding with a single allocation: strings, views and zero-terminated characters in any mixture,
/// of which the first is a string. Null characters count as an empty text.
template<class TEnc, class... Parts>
StringT<TEnc> ConcatString(StringT<TEnc> const & first, Parts const &... others) {
    using Character = typename TEnc::Character;
    using View = typename StringT<TEnc>::View;
    struct AsView {
        View view;
        AsView(StringT<TEnc> const & string) : view(string.GetView()) {}
        AsView(View text) : view(text) {}
        AsView(Character const * text) : view(text, BaseCharTraits<Character>::GetLength(text)) {}
    };
    std::initializer_list<AsView> const parts{first, others...};

    std::size_t length = 0;
    for (auto const & part : parts) // one text may stand here many times: a sum that overflows is refused by Create
        length = part.view.size() > std::numeric_limits<std::size_t>::max() - length
                     ? std::numeric_limits<std::size_t>::max()
                     : length + part.view.size();
    return StringT<TEnc>::Create(length, [&](Character * dest) {
        for (auto const & part : parts) {
            BaseCharTraits<Character>::Copy(dest, part.view.data(), part.view.size());
            dest += part.view.size();
        }
    });
}
}
