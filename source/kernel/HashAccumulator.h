#pragma once

#include "kernel/Export.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace Kernel {
/// Folds values into one hash, for tables of equal objects. Order and boundaries count: "ab", "c" is not "a", "bc".
/// The hash is for use within a process; it has no place in files.
class RASTER_API HashAccumulator {
public:
    void AddToHash(void const * data, std::size_t size);
    void AddToHash(std::string_view text) { AddToHash(text.data(), text.size()); }
    /// By value, so that equal numbers of different types have equal hashes.
    template<class T>
        requires(std::integral<T> || std::is_enum_v<T>)
    void AddToHash(T value) {
        auto const wide = static_cast<std::uint64_t>(value);
        AddToHash(&wide, sizeof wide);
    }
    /// Equal numbers have equal hashes, so 0 and -0 have one.
    void AddToHash(double value);

    std::uint64_t GetHash() const noexcept { return hash; }

private:
    std::uint64_t hash = 0;
};
}
