#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>

namespace Kernel {
/// The CRC-32 of zip, gzip and PNG (reflected, polynomial 0xedb88320).
class RASTER_API CRC32 {
public:
    static CRC32 const & Instance();

    /// @param before  the result for the bytes that come before these, 0 at the start.
    std::uint32_t DataCRC32(void const * data, std::size_t size, std::uint32_t before = 0) const;

private:
    CRC32() = default;
};
}
