#pragma once

#include "geometry/Polygon.h"
#include "kernel/Countable.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace Geometry {
/// A collection of polygons, such as the outlines of one shape with its holes.
template<class T>
class PolyPolygonType : public virtual Kernel::Countable {
public:
    using Polygon = PolygonType<T>;

    void AddPolygon(Polygon polygon) { polygons.push_back(std::move(polygon)); }
    void Clear() { polygons.clear(); }
    bool IsEmpty() const { return polygons.empty(); }
    std::size_t GetCount() const { return polygons.size(); }
    Polygon const & GetPolygon(std::size_t index) const { return polygons[index]; }
    std::vector<Polygon> const & GetPolygons() const { return polygons; }

    BoundingBoxT<T> GetBoundingBox() const;
    void Scale(T x, T y);
    void Translate(T x, T y);
    void Simplify(double tolerance);

private:
    std::vector<Polygon> polygons;
};

extern template class RASTER_EXTERN_TEMPLATE PolyPolygonType<float>;
extern template class RASTER_EXTERN_TEMPLATE PolyPolygonType<double>;
}
