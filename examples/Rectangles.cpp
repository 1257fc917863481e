// Rectangles, shared objects and half floats: the smallest things that the library offers.
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/Rect.h"
#include "pixel/Half.h"

#include <cstdio>
#include <cstdlib>

namespace {
/// Something shared: derived from `Countable`, held by `Counted`.
class Selection : public Kernel::Countable {
public:
    explicit Selection(Kernel::RectT<int> const & area) : area(area) {}
    Kernel::RectT<int> const area;
};
}

int main() {
    Kernel::RectT<int> const canvas{0, 0, 640, 480};
    auto const selection = Kernel::MakeCounted<Selection>(Kernel::RectT<int>{600, 400, 800, 500});
    auto const other = selection; // a second holder of the same object
    auto const visible = canvas.Intersect(other->area);
    std::printf("the selection shows %d x %d pixels of the canvas and has %llu holders\n", visible.GetWidth(),
                visible.GetHeight(), static_cast<unsigned long long>(selection->GetCount()));

    auto const third = Raster::ToHalf(1.0f / 3);
    std::printf("a third is 0x%04x as a half float, which is %.9g\n", unsigned(third.bits),
                double(Raster::ToFloat(third)));

    bool const right = visible == Kernel::RectT<int>{600, 400, 640, 480} && selection->GetCount() == 2;
    return right ? EXIT_SUCCESS : EXIT_FAILURE;
}
