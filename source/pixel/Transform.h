/// Maps from an accessor's positions to points of its model.
#pragma once

#include <cstdint>

namespace Raster {
// A transform turns the centre of a position into a point of the model, in double and in the order that its formula
// shows; an accessor truncates that to a pixel. `MapX` and `MapY` take the centre. The identity never leaves integers.

struct IdentityTransform {
    struct Params {};
};

/// The pixel at truncate(x + 0.5 + tx).
struct TranslateTransform {
    struct Params {
        double tx = 0, ty = 0;
    };
    static constexpr double MapX(Params const & params, double centre) { return centre + params.tx; }
    static constexpr double MapY(Params const & params, double centre) { return centre + params.ty; }
};

/// The pixel at truncate((x + 0.5) * sx).
struct ScaleTransform {
    struct Params {
        double sx = 1, sy = 1;
    };
    static constexpr double MapX(Params const & params, double centre) { return centre * params.sx; }
    static constexpr double MapY(Params const & params, double centre) { return centre * params.sy; }
};

/// `First`, then `Second`.
template<class First, class Second>
struct ChainedTransform;

template<>
struct ChainedTransform<IdentityTransform, ScaleTransform> : ScaleTransform {};

/// The pixel at truncate((x + 0.5 + tx) * sx).
template<>
struct ChainedTransform<TranslateTransform, ScaleTransform> {
    struct Params {
        double tx = 0, ty = 0, sx = 1, sy = 1;
    };
    static constexpr double MapX(Params const & params, double centre) { return (centre + params.tx) * params.sx; }
    static constexpr double MapY(Params const & params, double centre) { return (centre + params.ty) * params.sy; }
};

// Names without a comma, for lists.
using IdentityScaleTransform = ChainedTransform<IdentityTransform, ScaleTransform>;
using TranslateScaleTransform = ChainedTransform<TranslateTransform, ScaleTransform>;

/// The centre of a position. Exact: positions have far fewer than 52 bits.
constexpr double CentreOf(std::int64_t position) { return static_cast<double>(position) + 0.5; }
}
