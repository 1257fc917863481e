/// What the files of this folder share of the colour library, in terms that need none of its headers.
#pragma once

#include "kernel/String.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace Raster::ColourEngine {
/// Which messages of the colour library are passed on.
enum class Messages { Traced, Dropped };

/// The context that profiles and transforms are made in: no single piece of memory above `largestAllocationBytes`, and
/// messages go to the trace or nowhere. Lives as long as the process.
void * GetContext(Messages messages);

/// Far above what the largest honest profile needs: four inks on 33 steps are 7 MiB. A profile of a few bytes may claim
/// half a gibibyte.
inline constexpr std::uint64_t largestAllocationBytes = 64u << 20;

struct CloseProfile {
    void operator()(void * handle) const noexcept;
};
using ProfileHandle = std::unique_ptr<void, CloseProfile>;

void DeleteTransform(void * transform) noexcept;

/// Null for bytes that are no profile. The bytes are copied.
ProfileHandle OpenProfile(void const * data, std::uint64_t size);

/// The English description, at most 255 characters of it. Nothing if there is none.
std::optional<Kernel::StringUtf8> ReadDescription(void * profile);
}
