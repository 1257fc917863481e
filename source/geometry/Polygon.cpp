#include "geometry/Polygon.h"

#include "geometry/SimplifyPoints.h"

namespace Geometry {
template<class T>
BoundingBoxT<T> PolygonType<T>::GetBoundingBox() const {
    BoundingBoxT<T> result;
    for (auto const & point : points)
        result.Add(point);
    return result;
}

template<class T>
void PolygonType<T>::Scale(T x, T y) {
    for (auto & point : points)
        point = {point.x * x, point.y * y};
}

template<class T>
void PolygonType<T>::Translate(T x, T y) {
    for (auto & point : points)
        point += {x, y};
}

template<class T>
double PolygonType<T>::GetSignedArea() const {
    double sum = 0.0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        auto const & one = points[i];
        auto const & next = points[i + 1 == points.size() ? 0 : i + 1];
        sum += static_cast<double>(one.x) * static_cast<double>(next.y) -
               static_cast<double>(next.x) * static_cast<double>(one.y);
    }
    return 0.5 * sum;
}

template<class T>
void PolygonType<T>::Simplify(double tolerance) {
    if (isClosed)
        while (points.size() > 1 && points.back() == points.front())
            points.pop_back();
    std::vector<Kernel::PointT<double>> exact; // every float is a double
    exact.reserve(points.size());
    for (auto const & point : points)
        exact.push_back({static_cast<double>(point.x), static_cast<double>(point.y)});
    auto const kept = isClosed ? SimplifyClosed(exact, tolerance) : SimplifyOpen(exact, tolerance);
    std::size_t count = 0;
    for (auto const index : kept)
        points[count++] = points[index];
    points.resize(count);
}

template class RASTER_TEMPLATE_INSTANCE PolygonType<float>;
template class RASTER_TEMPLATE_INSTANCE PolygonType<double>;
}
