#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <memory>

namespace Kernel {
/// A running MD5. For telling pixels apart, not for security.
class RASTER_API MD5_CTX {
public:
    MD5_CTX();
    MD5_CTX(MD5_CTX const &) = delete;
    MD5_CTX & operator=(MD5_CTX const &) = delete;
    ~MD5_CTX();

private:
    friend RASTER_API void MD5_Init(MD5_CTX * context);
    friend RASTER_API void MD5_Update(MD5_CTX * context, void const * data, std::size_t size);
    friend RASTER_API void MD5_Final(unsigned char * digest, MD5_CTX * context);

    struct State;
    std::unique_ptr<State> state;
};

/// Starts a digest, also on a context that was used before. Throws std::runtime_error if the system forbids MD5.
RASTER_API void MD5_Init(MD5_CTX * context);
/// Only between `MD5_Init` and `MD5_Final`.
RASTER_API void MD5_Update(MD5_CTX * context, void const * data, std::size_t size);
/// Writes the 16 bytes of the digest, and ends it.
RASTER_API void MD5_Final(unsigned char * digest, MD5_CTX * context);
}
