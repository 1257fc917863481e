/// What tests of tiled storage need around them: static tiles, the static block, a place for evicted tiles, and a limit
/// that is as before when the test is over.
#pragma once

#include "pixel/MemoryManager.h"
#include "storage/Block.h"
#include "storage/Tile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace Raster {
class StorageTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        static bool const isReady = [] {
            Block::InitStaticBlock();
            Tile::InitStaticTiles();
            std::string pattern = (std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string();
            if (char const * const directory = mkdtemp(pattern.data())) {
                static std::string const made = directory;
                Block::InitBackstore(made.c_str());
                std::atexit([] {
                    std::error_code ignored;
                    std::filesystem::remove_all(made, ignored);
                });
            }
            return true;
        }();
        static_cast<void>(isReady);
    }
    ~StorageTest() override { MemoryManager::Instance().SetDRAMLimit(limitBefore >> 20); }

    /// Sends what can go to disk there.
    static void EvictEverything() {
        auto & ledger = MemoryManager::Instance();
        auto const limit = ledger.GetDRAMLimit();
        ledger.SetDRAMLimit(0);
        ledger.SetDRAMLimit(limit >> 20);
    }

private:
    std::uint64_t const limitBefore = MemoryManager::Instance().GetDRAMLimit();
};
}
