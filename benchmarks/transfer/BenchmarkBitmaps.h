/// Pictures for benchmarks of transfers.
#pragma once

#include "pixel/MemoryManager.h"
#include "storage/Bitmap.h"
#include "storage/Block.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <cstddef>
#include <cstdlib>
#include <random>

namespace Raster {
/// A side of a picture. Ordinary test runs only see that everything still runs.
inline int Side(int full) {
    static bool const isSmoke = std::getenv("RASTER_BENCHMARK_SMOKE") != nullptr;
    return isSmoke ? full / 8 : full;
}

enum class Alpha { Soft, Full };

/// Random colours. All tiles are there and written.
template<class Tuple>
Kernel::Counted<BitmapOf<Tuple>> MakeBitmap(int width, int height, Alpha kind, unsigned seed,
                                            MipmapMode mode = MipmapModeNone) {
    static bool const initialised = [] {
        Tile::InitStaticTiles();
        Block::InitStaticBlock();
        MemoryManager::Instance().SetDRAMLimit(16384);
        return true;
    }();
    (void)initialised;
    using Storage = typename Tuple::Storage;
    Kernel::Counted<BitmapOf<Tuple>> bitmap(new BitmapOf<Tuple>(width, height, mode, HardwareCachePolicy()));
    std::mt19937 random(seed);
    for (int plane = 0; plane < Tuple::channelCount; ++plane)
        for (std::size_t i = 0; i < bitmap->GetPlane(plane).GetTileCount(); ++i) {
            MutableTileGuard guard(bitmap->GetPlane(plane).GetTile(i));
            auto * const samples = reinterpret_cast<Storage *>(guard.GetBuffer());
            bool const full = plane == Tuple::channelCount - 1 && kind == Alpha::Full;
            for (std::size_t s = 0; s < 65536 / sizeof(Storage); ++s)
                samples[s] = full ? Storage(Tuple::First::maximum)
                                  : Storage(Tuple::First::maximum * float(random() & 0xffff) / 65535.0f);
        }
    return bitmap;
}
}
