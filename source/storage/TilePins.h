#pragma once

#include "kernel/Export.h"
#include "storage/PlaneCore.h"
#include "storage/TileGuard.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace Raster {
class BitmapCore;

/// The tiles that one accessor has pinned: a small flat map from the place of a tile in the grid to the session that
/// was opened on it in every plane. It only changes where a walk comes to a tile for the first time, and forgets all at
/// `Reset`.
template<class Guard>
class TilePins {
public:
    static constexpr bool isMutable = std::is_same_v<Guard, MutableTileGuard>;
    using Byte = std::conditional_t<isMutable, std::byte, std::byte const>;
    using Bitmap = std::conditional_t<isMutable, BitmapCore, BitmapCore const>;
    using Buffers = std::array<Byte *, 5>; ///< one for each plane; the rest null

    TilePins() = default;
    TilePins(TilePins const &) = delete;
    TilePins & operator=(TilePins const &) = delete;
    /// A pointer to the session belongs to the tile, and the tile to the bitmap: this goes first.
    ~TilePins() = default;

    /// The buffers of the tile in each plane, pinned now if they were not. What opening a session throws passes
    /// through, the tile then not being pinned in any plane.
    Buffers const & Pin(Bitmap & bitmap, std::uint32_t tileIndex);
    std::size_t GetCount() const noexcept { return tiles.size(); }
    /// Ends all sessions.
    void Reset() noexcept;

private:
    struct PinnedTile {
        std::uint32_t tileIndex;
        Buffers buffers;
        std::array<Guard, 5> guards;
    };

    PinnedTile * Find(std::uint32_t tileIndex);
    void AddToSlots(std::uint32_t tileIndex, std::uint32_t position);
    void GrowSlots();

    std::vector<PinnedTile> tiles;    // in the order in which they were met
    std::vector<std::uint32_t> slots; // open addressing: position in `tiles` plus 1, or 0. Empty while `tiles` is small
};

extern template class RASTER_EXTERN_TEMPLATE TilePins<ConstTileGuard>;
extern template class RASTER_EXTERN_TEMPLATE TilePins<MutableTileGuard>;
}
