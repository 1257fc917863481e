#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace Kernel {
/// Finds things that lie in some array by their keys: the table holds positions only, the keys stay with the things.
/// One piece of memory for all of them, where a map of the standard library takes one for each, which is what large
/// documents spend their time on. Nothing can be taken out.
/// Keys may be hostile: their hashes are `GetTableHash`.
class PositionTable {
public:
    /// Room for so many, before any is there.
    void Reserve(std::size_t count);
    /// Two may have the same key.
    /// @param position  below 2^32 - 1
    void Add(std::uint64_t key, std::uint64_t moreOfTheKey, std::size_t position);
    void Clear() noexcept;
    std::size_t GetCount() const noexcept { return used; }

    /// The position for which `isIt(position)` is true, which is asked only for those that may have this key: of
    /// several the one that was added first, if there was room for all of them.
    template<class IsIt>
    std::optional<std::size_t> Find(std::uint64_t key, std::uint64_t moreOfTheKey, IsIt && isIt) const {
        if (slots.empty())
            return {};
        auto const hash = GetHash(key, moreOfTheKey);
        for (std::size_t i = GetFirst(hash); slots[i].position != none; i = (i + 1) & (slots.size() - 1))
            if (slots[i].hash == hash && isIt(std::size_t(slots[i].position)))
                return slots[i].position;
        return {};
    }

private:
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();
    struct Slot {
        std::uint32_t hash = 0, position = none;
    };

    static std::uint32_t GetHash(std::uint64_t key, std::uint64_t moreOfTheKey) noexcept;
    std::size_t GetFirst(std::uint32_t hash) const noexcept {
        return static_cast<std::size_t>(std::uint64_t(hash) * slots.size() >> 32);
    }
    void Put(Slot slot) noexcept;
    void Resize(std::size_t count);

    std::vector<Slot> slots; // a power of 2 of them, at most half of them taken; from its place on, the next free one
    std::size_t used = 0;
};
}
