#include "storage/Bitmap.h"

namespace Raster {
template<class C1, class C2, class C3, class C4, class C5>
BitmapType const & Bitmap<C1, C2, C3, C4, C5>::GetType() {
    static constexpr BitmapType type{layoutOf<Tuple>, &Bitmap::Create};
    return type;
}

template<class C1, class C2, class C3, class C4, class C5>
BitmapCore * Bitmap<C1, C2, C3, C4, C5>::Create(int width, int height, MipmapMode mode, HardwareCachePolicy policy) {
    return new Bitmap(width, height, mode, policy);
}

template<class C1, class C2, class C3, class C4, class C5>
Bitmap<C1, C2, C3, C4, C5>::Bitmap(int width, int height, MipmapMode mode, HardwareCachePolicy policy)
    : BitmapCore(GetType(), width, height, mode, policy) {}

template<class C1, class C2, class C3, class C4, class C5>
Bitmap<C1, C2, C3, C4, C5>::~Bitmap() = default;

template<class C1, class C2, class C3, class C4, class C5>
Bitmap<C1, C2, C3, C4, C5> * Bitmap<C1, C2, C3, C4, C5>::Clone() const {
    return static_cast<Bitmap *>(CloneCore().release());
}

template<class C1, class C2, class C3, class C4, class C5>
Bitmap<C1, C2, C3, C4, C5> * Bitmap<C1, C2, C3, C4, C5>::CloneEmpty() const {
    return static_cast<Bitmap *>(CloneEmptyCore().release());
}

template<class C1, class C2, class C3, class C4, class C5>
void Bitmap<C1, C2, C3, C4, C5>::CopyPlanesFrom(Bitmap const * source) {
    BitmapCore::CopyPlanesFrom(source);
}

template<class C1, class C2, class C3, class C4, class C5>
Kernel::Counted<Bitmap<C1, C2, C3, C4, C5>> Bitmap<C1, C2, C3, C4, C5>::GetMipmap(int level) {
    return static_cast<Bitmap *>(GetMipmapTable().GetValid(level).Get());
}

template<class C1, class C2, class C3, class C4, class C5>
Kernel::Counted<Bitmap<C1, C2, C3, C4, C5> const> Bitmap<C1, C2, C3, C4, C5>::GetMipmap(int level) const {
    return static_cast<Bitmap const *>(GetMipmapTable().GetValid(level).Get());
}
}
