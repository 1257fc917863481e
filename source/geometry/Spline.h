#pragma once

#include "kernel/Counted.h"
#include "kernel/Point.h"
#include "kernel/Serialisable.h"

#include <cstddef>
#include <vector>

namespace Geometry {
/// A smooth curve through points: a function of one number, such as the response of a brush to pressure. Between two
/// points it goes from the one height to the other without turning back, so it never leaves their range; before the
/// first point and behind the last it is level. With no points at all it gives back what it is given.
/// Threads: any number may read one.
class RASTER_API Spline final : public Kernel::Serialisable {
public:
    using Point = Kernel::PointT<double>;
    static constexpr std::size_t mostPoints = 65536;

    Spline() noexcept = default;
    /// Points whose x rises from each to the next by 1e-9 or more; those that don't are left out, and so are those that
    /// are no numbers or lie beyond 1e9. At most `mostPoints` are taken.
    explicit Spline(std::vector<Point> const & curvePoints);

    /// The curves that brushes begin with, each from 0 to 1: 0 straight, 1 falling, 2 level at 1, 3 gentle at both
    /// ends, 4 gentle at first, 5 steep at first. Any other number gives the straight one.
    static Kernel::Counted<Spline const> GetDefaultProfile(int profile);

    std::size_t GetCount() const noexcept { return points.size(); }
    // Of the points, by index.
    double GetX(std::size_t index) const { return points[index].x; }
    double GetY(std::size_t index) const { return points[index].y; }

    /// Where on a curve somebody reads, so that the next reading nearby need not search. The curve outlives it.
    struct RASTER_API Interpolator {
        explicit Interpolator(Spline const & curve);

        Spline const * spline;
        std::size_t span = 1;             ///< the number of the point at its right end
        double width = 1, reciprocal = 1; ///< of the span, in x
    };
    /// The curve's height at `x`, whatever was read before. Not a number gives the height of the first point.
    static double Interpolate(double x, Interpolator * interpolator);
    double Interpolate(double x) const;

    bool operator==(Spline const & other) const { return points == other.points; }

    static Kernel::ClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(Kernel::OutSerialiser & serialiser) const override;
    /// @return false for points that no curve can have.
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
    void AccumulateHash(Kernel::HashAccumulator & accumulator) const override;
    bool CompareMembers(Kernel::Serialisable const & other) const override;

private:
    void FindSlopes();

    std::vector<Point> points;
    std::vector<double> slopes; // of the curve at each point
};
}
