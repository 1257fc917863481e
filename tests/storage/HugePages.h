/// What tests of memory must know about the huge pages of the system that they run on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace Raster {
constexpr std::size_t HugePageBytes = std::size_t(2) << 20;

inline std::size_t GetPageBytes() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

inline bool IsInMemory(void const * page) {
    unsigned char state = 0;
    return mincore(const_cast<void *>(page), GetPageBytes(), &state) == 0 && (state & 1);
}

/// Whether one touch of advised memory takes 2 MiB of it.
inline bool SystemGivesHugePages() {
    auto * const mapped = static_cast<unsigned char *>(
        mmap(nullptr, 2 * HugePageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    auto * const page = mapped + -reinterpret_cast<std::uintptr_t>(mapped) % HugePageBytes;
    bool const isAdvised = madvise(page, HugePageBytes, MADV_HUGEPAGE) == 0;
    *page = 1;
    bool const isGiven = isAdvised && IsInMemory(page + HugePageBytes - GetPageBytes());
    munmap(mapped, 2 * HugePageBytes);
    return isGiven;
}

/// How many huge pages the system has ever broken up, those of other processes too; -1 if it doesn't say.
inline long GetBrokenUpCount() {
    std::ifstream file("/proc/vmstat");
    std::string name;
    for (long value = 0; file >> name >> value;)
        if (name == "thp_split_page")
            return value;
    return -1;
}

/// While it lives, the system gives this process no huge pages.
class WithoutHugePages {
public:
    WithoutHugePages() : isDone(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0) {}
    ~WithoutHugePages() { prctl(PR_SET_THP_DISABLE, 0, 0, 0, 0); }
    WithoutHugePages(WithoutHugePages const &) = delete;
    WithoutHugePages & operator=(WithoutHugePages const &) = delete;
    explicit operator bool() const { return isDone; }

private:
    bool const isDone;
};
}
