/// What tests of blocks need around them: the static block, a backstore of their own, a disk that can be made to fail,
/// and a ledger that is checked when the test is over. Without static tiles, so that limits count what a test makes.
#pragma once

#include "pixel/MemoryManager.h"
#include "storage/BackstoreFile.h"
#include "storage/Block.h"
#include "storage/SlabAllocator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace Raster {
/// A disk that works, or not. Counts the calls that reach it.
struct TestDisk {
    enum class Fault { None, Error, Short };
    static inline std::atomic<Fault> writeFault{Fault::None}, readFault{Fault::None};
    static inline std::atomic<int> writes{0}, reads{0};

    static void Install() { BackstoreFile::Instance().SetFileFunctions(&Read, &Write); }
    static void Remove() {
        BackstoreFile::Instance().SetFileFunctions(nullptr, nullptr);
        writeFault = readFault = Fault::None;
        writes = reads = 0;
    }

private:
    static ssize_t Write(int file, void const * bytes, size_t count, off_t offset) {
        ++writes;
        if (writeFault == Fault::Error) {
            errno = EIO;
            return -1;
        }
        if (writeFault == Fault::Short)
            return offset % 65536 == 0 ? pwrite(file, bytes, 1000, offset) : 0;
        return pwrite(file, bytes, count, offset);
    }
    static ssize_t Read(int file, void * bytes, size_t count, off_t offset) {
        ++reads;
        if (readFault == Fault::Error) {
            errno = EIO;
            return -1;
        }
        if (readFault == Fault::Short) // as much as ends at an odd place, again and again
            return pread(file, bytes, std::min<size_t>(count, 4097), offset);
        return pread(file, bytes, count, offset);
    }
};

/// A folder that goes with the object.
class TestFolder {
public:
    TestFolder() : path((std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string()) {
        if (!mkdtemp(path.data()))
            throw std::runtime_error("no temporary folder");
    }
    TestFolder(TestFolder const &) = delete;
    TestFolder & operator=(TestFolder const &) = delete;
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string const & GetPath() const { return path; }

private:
    std::string path;
};

class BlockTest : public testing::Test {
protected:
    static constexpr std::uint64_t bytes = 65536;

    BlockTest() {
        Block::InitStaticBlock();
        Block::InitBackstore(folder.GetPath().c_str());
        ExpectAtRest(0, 0, 0);
        TestDisk::Install();
    }
    ~BlockTest() override {
        ledger.SetDRAMLimit(1024);
        ExpectAtRest(0, 0, 0);
        EXPECT_EQ(backstore.GetFreeSlotCount(), backstore.GetSlotCount());
        TestDisk::Remove();
        Block::DestroyStaticBlock();
    }

    /// Resident, disposed and pending blocks, everything at rest.
    void ExpectAtRest(std::uint64_t resident, std::uint64_t disposed, std::uint64_t pending) const {
        EXPECT_EQ(ledger.GetPlanarUsage(), resident * bytes);
        EXPECT_EQ(ledger.CountListedBlocks(), resident);
        EXPECT_EQ(ledger.GetBackstoreUsage(), disposed * bytes);
        EXPECT_EQ(ledger.GetDelayedUsage(), pending * bytes);
        EXPECT_EQ(SlabAllocator::Instance().GetUsedCount(), resident);
    }

    static std::vector<unsigned char> MakeNoise(unsigned seed) {
        std::vector<unsigned char> result(bytes);
        std::mt19937 random(seed);
        for (std::size_t i = 0; i < bytes; i += 4) {
            auto const word = static_cast<std::uint32_t>(random());
            std::memcpy(&result[i], &word, 4);
        }
        return result;
    }
    static void Write(Block & block, std::vector<unsigned char> const & content) {
        block.IncrementRefCountMutable();
        std::memcpy(block.GetMutableBuffer(), content.data(), bytes);
        block.DecrementRefCountMutable();
    }
    static std::vector<unsigned char> Read(Block const & block) {
        block.IncrementRefCountConst();
        std::vector<unsigned char> result(bytes);
        std::memcpy(result.data(), block.GetConstBuffer(), bytes);
        block.DecrementRefCountConst();
        return result;
    }
    static Kernel::Counted<Block> MakeNoiseBlock(unsigned seed) {
        auto block = Kernel::MakeCounted<Block>();
        Write(*block, MakeNoise(seed));
        return block;
    }

    TestFolder folder;
    MemoryManager & ledger = MemoryManager::Instance();
    BackstoreFile & backstore = BackstoreFile::Instance();
};
}
