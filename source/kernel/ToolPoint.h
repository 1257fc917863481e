#pragma once

#include "kernel/Point.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Kernel {
/// The place in `ToolPoint::inputs` of what a drawing tool reports.
enum class ToolInput : std::size_t {
    Pressure,
    BarrelPressure,
    Tilt,
    Rotation,  ///< Of the barrel. Circular: 0 and 1 are the same place.
    Direction, ///< Of the tilt. Circular.
    Speed,
    Custom,
};

/// One sample of a stroke, as the host delivers it: 64 bytes, copied freely.
struct ToolPoint {
    static constexpr std::size_t InputCount = 7;

    double x = 0.0, y = 0.0;
    double seconds = 0.0;          ///< Since the start of the stroke.
    std::uint32_t device = 0;      ///< The host's number of the tool.
    float inputs[InputCount] = {}; ///< Each in 0..1, by `ToolInput`.
    std::uint64_t hostData = 0;    ///< Carried along, never looked at.

    constexpr operator PointT<double>() const { return {x, y}; }
    constexpr float GetInput(ToolInput input) const { return inputs[static_cast<std::size_t>(input)]; }
    constexpr void SetInput(ToolInput input, float value) { inputs[static_cast<std::size_t>(input)] = value; }
};

// Hosts fill these records in place, so the layout is part of the interface.
static_assert(sizeof(ToolPoint) == 64 && std::is_trivially_copyable_v<ToolPoint>);
static_assert(offsetof(ToolPoint, x) == 0 && offsetof(ToolPoint, y) == 8);
static_assert(offsetof(ToolPoint, inputs) == 28 && sizeof(ToolPoint::inputs) == 56 - 28);
}
