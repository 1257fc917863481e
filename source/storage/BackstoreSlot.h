#pragma once

#include <cstdint>

namespace Raster {
class BackstoreArray;

/// Where on disk the bytes of a block are. Kept in the block, so that nothing is searched for.
struct BackstoreSlot {
    BackstoreArray * array = nullptr; // not owned: it stays open as long as a slot is in use
    std::uint32_t number = 0;
};
}
