#include "kernel/MD5.h"
#include "storage/DynamicBitmap.h"
#include "storage/TileGuard.h"

#include <cstdint>

namespace Raster {
namespace {
void AddTile(Kernel::MD5_CTX * digest, Tile const & tile) {
    if (tile.IsZeroTileBuffer())
        Kernel::MD5_Update(digest, "0", 1);
    else if (tile.IsFullTileBuffer() || tile.IsFullFloatTileBuffer())
        Kernel::MD5_Update(digest, "1", 1);
    else
        Kernel::MD5_Update(digest, ConstTileGuard(tile).GetBuffer(), Tile::ByteCount);
}
}

void GetBitmapMD5Digest(unsigned char * const digest, Kernel::Counted<DynamicBitmap const> bitmap) {
    Kernel::MD5_CTX context;
    Kernel::MD5_Init(&context);
    std::uint32_t trailer[3] = {0, 0, NoFormat};
    if (auto const * const core = bitmap ? bitmap->GetCore() : nullptr) {
        core->ForceDelayLoad(nullptr);
        for (int i = 0; i < core->GetPlaneCount(); ++i)
            for (std::size_t tile = 0; tile < core->GetPlane(i).GetTileCount(); ++tile)
                AddTile(&context, core->GetPlane(i).GetTile(tile));
        trailer[0] = static_cast<std::uint32_t>(core->GetWidth());
        trailer[1] = static_cast<std::uint32_t>(core->GetHeight());
        trailer[2] = bitmap->GetFormat();
    }
    Kernel::MD5_Update(&context, trailer, sizeof trailer);
    Kernel::MD5_Final(digest, &context);
}
}
