#pragma once

#include "kernel/Export.h"
#include "kernel/Point.h"
#include "kernel/Rect.h"

#include <array>

namespace Kernel {
/// Affine maps of the plane.
class RASTER_API AffineTransform {
public:
    /// Maps (x, y) to (a x + b y + c, d x + e y + f). The default is the identity.
    struct RASTER_API Params {
        double a = 1.0, b = 0.0, c = 0.0, d = 0.0, e = 1.0, f = 0.0;

        static Params FromArray(double const * sixDoubles) {
            return {sixDoubles[0], sixDoubles[1], sixDoubles[2], sixDoubles[3], sixDoubles[4], sixDoubles[5]};
        }
        std::array<double, 6> ToArray() const { return {a, b, c, d, e, f}; }

        /// Whether each of the six numbers is within `tolerance` of the identity's.
        bool IsIdentity(double tolerance = 0.0) const;
        double GetDeterminant() const { return a * e - b * d; }
        PointT<double> Apply(PointT<double> const & point) const {
            return {a * point.x + b * point.y + c, d * point.x + e * point.y + f};
        }
        bool operator==(Params const &) const = default;
    };

    static Params Translate(double x, double y) { return {1.0, 0.0, x, 0.0, 1.0, y}; }
    static Params Scale(double x, double y) { return {x, 0.0, 0.0, 0.0, y, 0.0}; }
    /// About the origin, from the x axis towards the y axis.
    static Params Rotate(double angleRadians);

    /// The map that applies `first` and then `second`.
    static Params Multiply(Params const & first, Params const & second);
    /// The map that undoes `params`. Where the determinant's magnitude is at most 1e-128, or is no number, there is
    /// none: the result then has a zero linear part and the translation negated.
    static Params Invert(Params const & params);
    /// The smallest rectangle around the image of `rect`.
    static RectT<double> ApplyToRect(Params const & params, RectT<double> const & rect);
};
}
