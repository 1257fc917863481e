#include "kernel/CRC32.h"

#include <libdeflate.h>

namespace Kernel {
CRC32 const & CRC32::Instance() {
    static CRC32 const instance;
    return instance;
}

std::uint32_t CRC32::DataCRC32(void const * data, std::size_t size, std::uint32_t before) const {
    return size == 0 ? before : libdeflate_crc32(before, data, size); // a null pointer would start afresh there
}
}
