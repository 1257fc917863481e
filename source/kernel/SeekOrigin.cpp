#include "kernel/SeekOrigin.h"

#include <algorithm>
#include <limits>

namespace Kernel {
std::optional<std::uint64_t> ResolveSeek(SeekOrigin origin, std::int64_t offset, std::uint64_t position,
                                         std::uint64_t size) {
    std::uint64_t const base = origin == SeekOrigin::Start ? 0 : origin == SeekOrigin::End ? size : position;
    constexpr std::uint64_t limit = std::numeric_limits<std::int64_t>::max();
    if (base > limit)
        return std::nullopt;
    std::int64_t target = 0;
    if (__builtin_add_overflow(static_cast<std::int64_t>(base), offset, &target))
        return std::nullopt; // only upwards: base is not negative
    return std::min(static_cast<std::uint64_t>(std::max<std::int64_t>(target, 0)), size);
}
}
