#include "kernel/AffineTransform.h"

#include <algorithm>
#include <cmath>

namespace Kernel {
bool AffineTransform::Params::IsIdentity(double tolerance) const {
    auto const values = ToArray(), identity = Params().ToArray();
    return std::equal(values.begin(), values.end(), identity.begin(),
                      [&](double one, double other) { return std::abs(one - other) <= tolerance; });
}

AffineTransform::Params AffineTransform::Rotate(double angleRadians) {
    double const cosine = std::cos(angleRadians), sine = std::sin(angleRadians);
    return {cosine, -sine, 0.0, sine, cosine, 0.0};
}

AffineTransform::Params AffineTransform::Multiply(Params const & first, Params const & second) {
    return {second.a * first.a + second.b * first.d,
            second.a * first.b + second.b * first.e,
            second.a * first.c + second.b * first.f + second.c,
            second.d * first.a + second.e * first.d,
            second.d * first.b + second.e * first.e,
            second.d * first.c + second.e * first.f + second.f};
}

AffineTransform::Params AffineTransform::Invert(Params const & params) {
    double const determinant = params.GetDeterminant();
    if (!(std::abs(determinant) > 1e-128))
        return {0.0, 0.0, -params.c, 0.0, 0.0, -params.f};
    double const a = params.e / determinant, b = -params.b / determinant;
    double const d = -params.d / determinant, e = params.a / determinant;
    return {a, b, -(a * params.c + b * params.f), d, e, -(d * params.c + e * params.f)};
}

RectT<double> AffineTransform::ApplyToRect(Params const & params, RectT<double> const & rect) {
    auto const first = params.Apply({rect.left, rect.top});
    RectT<double> result{first.x, first.y, first.x, first.y};
    for (PointT<double> const corner :
         {PointT<double>{rect.right, rect.top}, {rect.left, rect.bottom}, {rect.right, rect.bottom}}) {
        auto const image = params.Apply(corner);
        result = {std::min(result.left, image.x), std::min(result.top, image.y), std::max(result.right, image.x),
                  std::max(result.bottom, image.y)};
    }
    return result;
}
}
