#pragma once

namespace Kernel {
template<class T>
struct SizeT {
    T width{}, height{};

    /// Without area, also when a side is negative.
    constexpr bool IsEmpty() const { return !(width > T{} && height > T{}); }
    constexpr bool operator==(SizeT const &) const = default;
};
}
