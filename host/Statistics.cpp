#include "host/Statistics.h"

#include "pixel/MemoryManager.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/resource.h>

namespace Host {
namespace {
using Raster::MemoryManager;

struct Usage {
    char const * name;
    std::uint64_t (MemoryManager::*now)() const;
    std::uint64_t (MemoryManager::*peak)() const;
};

constexpr Usage usages[] = {
    {"planar", &MemoryManager::GetPlanarUsage, &MemoryManager::GetPlanarPeakUsage},
    {"interleaved", &MemoryManager::GetInterleavedUsage, &MemoryManager::GetInterleavedPeakUsage},
    {"virtual", &MemoryManager::GetVirtualUsage, &MemoryManager::GetVirtualPeakUsage},
    {"compressed", &MemoryManager::GetCompressedUsage, &MemoryManager::GetCompressedPeakUsage},
    {"delayed", &MemoryManager::GetDelayedUsage, &MemoryManager::GetDelayedPeakUsage},
    {"hardware", &MemoryManager::GetHardwareUsage, &MemoryManager::GetHardwarePeakUsage},
    {"front-end hardware", &MemoryManager::GetFrontEndHardwareUsage, &MemoryManager::GetFrontEndHardwarePeakUsage},
    {"backstore", &MemoryManager::GetBackstoreUsage, &MemoryManager::GetBackstorePeakUsage},
};
}

void PrintStatistics() {
    auto const & manager = MemoryManager::Instance();
    std::string text = fmt::format("{:<20}{:>16}{:>16}\n", "bytes", "at the end", "peak");
    for (auto const & usage : usages)
        text += fmt::format("{:<20}{:>16}{:>16}\n", usage.name, (manager.*usage.now)(), (manager.*usage.peak)());
    rusage process{};
    ::getrusage(RUSAGE_SELF, &process);
    auto const residentKibibytes = static_cast<std::uint64_t>(process.ru_maxrss);
    text += fmt::format("{:<20}{:>16}{:>16}\n", "resident", "", residentKibibytes << 10);
    std::fputs(text.c_str(), stderr);
}
}
