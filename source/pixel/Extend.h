/// What a read does at coordinates outside its model, and how positions become pixels of the model.
#pragma once

#include <cstdint>
#include <limits>

namespace Raster {
/// To the integer towards zero; too large or too small becomes the nearest integer, NaN becomes 0.
constexpr int Truncate(double value) {
    constexpr double low = std::numeric_limits<int>::min(), high = std::numeric_limits<int>::max();
    if (!(value > low))
        return value <= low ? std::numeric_limits<int>::min() : 0;
    return value < high ? static_cast<int>(value) : std::numeric_limits<int>::max();
}

// Each policy resolves one coordinate against the model's extent [low, high), from an integer or from a real number.
// The answer is false where the pixel reads as zeros. Real coordinates are tested before they are truncated: -0.5
// lies outside, though it truncates to pixel 0.

/// The caller promises coordinates inside `GetSafeRect`. An accessor that keeps track of where it is gets the check for
/// nothing, so a broken promise reads as zeros. Real coordinates are truncated first: -0.5 is pixel 0.
struct Safe {
    static constexpr bool Resolve(std::int64_t position, int low, int high, int & pixel) {
        pixel = static_cast<int>(position);
        return position >= low && position < high;
    }
    static constexpr bool Resolve(double position, int low, int high, int & pixel) {
        pixel = Truncate(position);
        return pixel >= low && pixel < high;
    }
};

/// Every channel outside reads as zero, alpha too, whatever constant the model has inside.
struct Zero {
    static constexpr bool Resolve(std::int64_t position, int low, int high, int & pixel) {
        return Safe::Resolve(position, low, high, pixel);
    }
    static constexpr bool Resolve(double position, int low, int high, int & pixel) {
        pixel = Truncate(position);
        return position >= low && position < high;
    }
};

/// The nearest edge pixel, in each direction on its own. A model without pixels has no edge: it reads as zeros.
struct Repeat {
    static constexpr bool Resolve(std::int64_t position, int low, int high, int & pixel) {
        pixel = position < low ? low : position >= high ? high - 1 : static_cast<int>(position);
        return low < high;
    }
    static constexpr bool Resolve(double position, int low, int high, int & pixel) {
        pixel = !(position >= low) ? low : position >= high ? high - 1 : Truncate(position);
        return low < high;
    }
};
}
