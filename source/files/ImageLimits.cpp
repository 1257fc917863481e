#include "files/ImageLimits.h"

#include "kernel/CriticalSection.h"
#include "kernel/ScopedLock.h"

#include <unistd.h>

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
constexpr std::uint64_t noNumber = std::numeric_limits<std::uint64_t>::max();

std::uint64_t GetDefaultDecodedBytes() {
    std::uint64_t const most = std::uint64_t(4) << 30;
    long const pages = sysconf(_SC_PHYS_PAGES), pageBytes = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageBytes <= 0)
        return most;
    return std::min(most, static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes) / 2);
}

struct Current {
    Kernel::CriticalSection lock;
    ImageLimits limits;
};

Current & GetCurrent() {
    static Current & current = *[] {
        auto * const created = new Current; // outlives every static object
        created->limits.largestDecodedBytes = GetDefaultDecodedBytes();
        return created;
    }();
    return current;
}

// The product, or the largest number if it does not fit.
std::uint64_t Multiply(std::uint64_t a, std::uint64_t b) {
    std::uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? noNumber : product;
}

std::uint64_t Add(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? noNumber : sum;
}

void Check(char const * name, std::uint64_t needed, std::uint64_t allowed) {
    if (needed > allowed)
        throw ImageLimitError(name, needed, allowed);
}
}

ImageLimits GetImageLimits() {
    auto & current = GetCurrent();
    Kernel::ScopedLock const guard(current.lock);
    return current.limits;
}

void SetImageLimits(ImageLimits const & limits) {
    auto & current = GetCurrent();
    Kernel::ScopedLock const guard(current.lock);
    current.limits = limits;
    if (limits.largestDecodedBytes == 0)
        current.limits.largestDecodedBytes = GetDefaultDecodedBytes();
}

ImageLimitError::ImageLimitError(char const * limitName, std::uint64_t needed, std::uint64_t allowed)
    : std::runtime_error("over the limit " + std::string(limitName) + ": " + std::to_string(needed) + " needed, " +
                         std::to_string(allowed) + " allowed") {}

ImageLimitError::~ImageLimitError() = default;

void CheckImageSize(std::uint64_t width, std::uint64_t height, std::uint64_t bytesPerPixel, std::uint64_t codecBytes) {
    auto const limits = GetImageLimits();
    Check("largestSide", std::max(width, height), limits.largestSide);
    std::uint64_t const pixelCount = Multiply(width, height);
    Check("largestPixelCount", pixelCount, limits.largestPixelCount);
    Check("largestDecodedBytes", Add(Multiply(pixelCount, bytesPerPixel), codecBytes), limits.largestDecodedBytes);
}
}
