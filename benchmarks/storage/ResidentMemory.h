/// How much of this process is in memory.
#pragma once

#include <cstddef>
#include <fstream>
#include <unistd.h>

namespace Raster {
inline std::size_t GetResidentBytes() {
    std::size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}
}
