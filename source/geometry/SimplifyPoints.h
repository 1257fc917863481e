#pragma once

#include "kernel/Point.h"

#include <cstddef>
#include <vector>

namespace Geometry {
using PointRun = std::vector<Kernel::PointT<double>>;
using PointIndices = std::vector<std::size_t>;

/// The indices, ascending, of the points that a run keeps when it is simplified; see `PolygonType::Simplify`.
PointIndices SimplifyOpen(PointRun const & points, double tolerance);
/// The same for a ring whose last point is not its first.
PointIndices SimplifyClosed(PointRun const & points, double tolerance);
}
