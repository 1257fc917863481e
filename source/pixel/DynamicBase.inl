/// Bodies of DynamicBase, for the files that make its instances.
#pragma once

#include "pixel/DynamicBase.h"

#include <memory>

namespace Raster {
template<class T>
template<class Copy>
T * DynamicBase<T>::CloneWith(Copy && copy) const {
    auto clone = std::make_unique<T>();
    if (VisitFormat(heldFormat, [](auto) { return true; })) {
        DynamicBase & base = *clone;
        base.SetTyped(heldFormat,
                      Dispatch([&](auto const & typed) -> Kernel::Counted<Kernel::Countable> { return copy(typed); }));
    }
    return clone.release();
}

template<class T>
T * DynamicBase<T>::Clone() const {
    return CloneWith([](auto const & typed) { return typed.Clone(); });
}

template<class T>
T * DynamicBase<T>::CloneEmpty() const {
    return CloneWith([](auto const & typed) { return typed.CloneEmpty(); });
}

template<class T>
int DynamicBase<T>::GetWidth() const {
    return Dispatch([](auto const & typed) { return typed.GetWidth(0); });
}

template<class T>
int DynamicBase<T>::GetHeight() const {
    return Dispatch([](auto const & typed) { return typed.GetHeight(0); });
}

template<class T>
std::vector<ChannelParams> DynamicBase<T>::GetChannelInfo() const {
    return VisitFormat(heldFormat, [](auto tuple) { return GetChannelInfoOf<decltype(tuple)>(); });
}
}
