#pragma once

#include "kernel/Counted.h"
#include "kernel/Export.h"
#include "kernel/IDTag.h"
#include "kernel/Rect.h"
#include "pixel/Channel.h"
#include "storage/Tile.h"
#include "storage/TileGrid.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Kernel {
class DelayLoadHolder;
class FileStore;
class InSerialiser;
class OutSerialiser;
}

namespace Raster {
class BlockDeduplicationSupport;

/// What a document says of a tile. The numbers stand in files.
enum class TileState : std::uint8_t {
    Unallocated = 0,
    Zero = 1,
    Full = 2,
    FullFloat = 3,
    OwnBlock = 4,     ///< the next block of the plane's array
    SameAsBacking = 5 ///< left as it is
};

/// The tiles of one channel, for every channel type: all that it needs to know is how long a sample is, and whether
/// "full" means bytes of 255 or floats of 1.0. Half and complex channels count as float, so their fullness is judged on
/// 4-byte floats too.
///
/// Threads: no lock of its own. `Scrub`, `Deduplicate` and the boxes may run beside readers and each other; whoever
/// inflates, moves or replaces tiles does so alone.
class RASTER_API PlaneCore {
public:
    /// All tiles unallocated; costs a handle each. Negative sizes count as 0.
    /// Throws `std::length_error` for more than `maximumTileCount` tiles.
    PlaneCore(int width, int height, int sampleSize, ChannelKind channelKind);
    PlaneCore(PlaneCore && other) noexcept;
    PlaneCore & operator=(PlaneCore && other) noexcept;
    ~PlaneCore();

    int GetWidth() const { return grid.width; }
    int GetHeight() const { return grid.height; }
    int GetTileWidth() const { return grid.tileWidth; }
    int GetTilesAcross() const { return grid.tilesAcross; }
    int GetTilesDown() const { return grid.tilesDown; }
    std::size_t GetTileCount() const { return static_cast<std::size_t>(grid.GetTileCount()); }
    int GetSampleSize() const { return TileGrid::rowBytes / grid.tileWidth; } ///< bytes
    ChannelKind GetKind() const { return kind; }
    TileGrid const & GetGrid() const { return grid; }

    /// Tiles lie row by row. The position is not checked.
    Tile & GetTile(std::size_t index) { return tiles[index]; }
    Tile const & GetTile(std::size_t index) const { return tiles[index]; }
    Tile & GetTile(int column, int row) { return tiles[grid.GetIndex(column, row)]; }
    Tile const & GetTile(int column, int row) const { return tiles[grid.GetIndex(column, row)]; }

    /// The static tile that is full for this kind of channel.
    Tile const & GetFullTileOfKind() const;

    /// Both walk the tiles in order and test `abort`, which may be null, before each.
    void Scrub(bool * abort);
    void Deduplicate(BlockDeduplicationSupport & support, bool * abort);

    /// The tiles that hold something, static tiles included: in whole tiles, also beyond the plane's edges.
    Kernel::RectT<int> GetAllocatedBoundingBox() const;
    /// Around the samples that have a byte other than 0.
    Kernel::RectT<int> GetDataBoundingBox() const;
    /// Around the samples that are not full. Unallocated tiles are nowhere full.
    Kernel::RectT<int> GetInverseDataBoundingBox() const;

    /// Grows outward without touching pixels: left and top by whole tiles, right and bottom by what is asked. New tiles
    /// are unallocated, or full if `fillEmpty` is false. No tile is backed afterwards. Negative amounts count as 0;
    /// growth beyond the limits changes nothing.
    void InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty);

    /// The two halves of `InflateByPixels`, for those who must grow several planes or none. The first allocates a plane
    /// of the new shape with its new tiles filled; the second moves the tiles of this plane into it and takes its
    /// place.
    PlaneCore PrepareInflation(TileGridInflation const & inflation, bool fillEmpty) const;
    void CommitInflation(TileGridInflation const & inflation, PlaneCore && grown) noexcept;

    /// Shares every tile of a plane with the same grid, backing included. Another grid: does nothing.
    void ShareTilesFrom(PlaneCore const & source);
    /// The same for a plane that was just made and that no other thread sees yet: at less cost.
    void ShareTilesIntoNew(PlaneCore const & source);
    /// Marks every tile as equal to what the holder holds; null takes the mark away.
    void SetBacking(Kernel::Counted<Kernel::DelayLoadHolder> const & backing);

    /// Writes the blocks of the tiles that have one under one tag, and a byte for each tile under the other: see
    /// `TileState`.
    /// @param unchanged  a tile that this backs has nothing to write; may be null.
    void SaveInline(Kernel::OutSerialiser & serialiser, Kernel::IDTag blockTag, Kernel::IDTag stateTag,
                    Kernel::Counted<Kernel::DelayLoadHolder> const & unchanged) const;
    /// Fills a plane with what `SaveInline` wrote. What is missing or makes no sense leaves its tile unallocated.
    bool LoadInline(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, Kernel::IDTag blockTag,
                    Kernel::IDTag stateTag, unsigned short version);
    /// The same, in silence.
    /// @return how many tiles the stream should have had and hasn't.
    std::size_t LoadTiles(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, Kernel::IDTag blockTag,
                          Kernel::IDTag stateTag);

private:
    PlaneCore(TileGrid const & shape, ChannelKind channelKind);
    void DetachVirtual() noexcept;
    template<class Function>
    Kernel::RectT<int> UniteOverTiles(Function && rectOfTile) const;
    Kernel::RectT<int> GetInverseRectOf(Tile const & tile, int column, int row) const;

    TileGrid grid;
    ChannelKind kind;
    std::unique_ptr<Tile[]> tiles; // grid.GetTileCount() of them
};
}
