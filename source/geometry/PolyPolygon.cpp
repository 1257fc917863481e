#include "geometry/PolyPolygon.h"

namespace Geometry {
template<class T>
BoundingBoxT<T> PolyPolygonType<T>::GetBoundingBox() const {
    BoundingBoxT<T> result;
    for (auto const & polygon : polygons)
        result.Add(polygon.GetBoundingBox());
    return result;
}

template<class T>
void PolyPolygonType<T>::Scale(T x, T y) {
    for (auto & polygon : polygons)
        polygon.Scale(x, y);
}

template<class T>
void PolyPolygonType<T>::Translate(T x, T y) {
    for (auto & polygon : polygons)
        polygon.Translate(x, y);
}

template<class T>
void PolyPolygonType<T>::Simplify(double tolerance) {
    for (auto & polygon : polygons)
        polygon.Simplify(tolerance);
}

template class RASTER_TEMPLATE_INSTANCE PolyPolygonType<float>;
template class RASTER_TEMPLATE_INSTANCE PolyPolygonType<double>;
}
