#include "storage/DynamicBitmap.h"

#include "kernel/Trace.h"
#include "pixel/DynamicBase.inl"

namespace Raster {
template class RASTER_TEMPLATE_INSTANCE DynamicBase<DynamicBitmap>;

DynamicBitmap::DynamicBitmap() = default;
DynamicBitmap::DynamicBitmap(int width, int height, Format format, MipmapMode mode, HardwareCachePolicy policy) {
    Create(width, height, format, mode, policy);
}
DynamicBitmap::DynamicBitmap(DynamicBitmap const & other) = default;
DynamicBitmap::DynamicBitmap(DynamicBitmap && other) noexcept = default;
DynamicBitmap & DynamicBitmap::operator=(DynamicBitmap const & other) = default;
DynamicBitmap & DynamicBitmap::operator=(DynamicBitmap && other) noexcept = default;
DynamicBitmap::~DynamicBitmap() = default;

void DynamicBitmap::Create(int width, int height, Format format, MipmapMode mode, HardwareCachePolicy policy) {
    VisitFormat(format, [&](auto tuple) {
        using Tuple = decltype(tuple);
        if (TileGrid::Create(width, height, Tuple::sampleSize).IsWithinLimit(Tuple::channelCount)) {
            SetTyped(format, Kernel::MakeCounted<BitmapOf<Tuple>>(width, height, mode, policy));
            return;
        }
        Kernel::Trace("DynamicBitmap can't be %1 by %2 pixels.\r\n", width, height);
        SetTyped(NoFormat, nullptr);
    });
}

Kernel::StringUtf8 DynamicBitmap::GetDescription() const { return "DynamicBitmap"; }

BitmapCore * DynamicBitmap::GetCore() {
    return Dispatch([](auto & bitmap) -> BitmapCore * { return &bitmap; });
}
BitmapCore const * DynamicBitmap::GetCore() const {
    return Dispatch([](auto const & bitmap) -> BitmapCore const * { return &bitmap; });
}

bool DynamicBitmap::IsPendingDelayLoad() const {
    auto const * const core = GetCore();
    return core && core->IsPendingDelayLoad();
}
void DynamicBitmap::ForceDelayLoad(bool * abort) const {
    if (auto const * const core = GetCore())
        core->ForceDelayLoad(abort);
}
Kernel::JailCounted<Kernel::DelayLoadHolder> DynamicBitmap::GetBackingData() const {
    auto const * const core = GetCore();
    return core ? core->GetBackingData() : nullptr;
}
void DynamicBitmap::SetBackingData(Kernel::Counted<Kernel::DelayLoadHolder> holder, std::nullptr_t profile) {
    if (auto * const core = GetCore())
        core->SetBackingData(std::move(holder), profile);
}
void DynamicBitmap::SetHardwarePolicy(HardwareCachePolicy policy) {
    if (auto * const core = GetCore())
        core->SetHardwarePolicy(policy);
}

void DynamicBitmap::Scrub(bool * abort) {
    if (auto * const core = GetCore())
        core->Scrub(abort);
}
void DynamicBitmap::Deduplicate(BlockDeduplicationSupport & support, bool * abort) {
    if (auto * const core = GetCore())
        core->Deduplicate(support, abort);
}

Kernel::RectT<int> DynamicBitmap::GetAllocatedBoundingBox() const {
    auto const * const core = GetCore();
    return core ? core->GetAllocatedBoundingBox() : Kernel::RectT<int>();
}
Kernel::RectT<int> DynamicBitmap::GetNonZeroBoundingBox() const {
    auto const * const core = GetCore();
    return core ? core->GetNonZeroBoundingBox() : Kernel::RectT<int>();
}
Kernel::RectT<int> DynamicBitmap::GetNonFullBoundingBox() const {
    auto const * const core = GetCore();
    return core ? core->GetNonFullBoundingBox() : Kernel::RectT<int>();
}
Kernel::RectT<int> DynamicBitmap::GetAlphaBoundingBox() const {
    auto const * const core = GetCore();
    return core ? core->GetAlphaBoundingBox() : Kernel::RectT<int>();
}
Kernel::RectT<int> DynamicBitmap::GetInverseAlphaBoundingBox() const {
    auto const * const core = GetCore();
    return core ? core->GetInverseAlphaBoundingBox() : Kernel::RectT<int>();
}

Kernel::RectT<int> DynamicBitmap::InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty) {
    auto * const core = GetCore();
    return core ? core->InflateByPixels(amounts, fillEmpty) : Kernel::RectT<int>();
}
int DynamicBitmap::GetLeftInflationTiles() const {
    auto const * const core = GetCore();
    return core ? core->GetLeftInflationTiles() : 0;
}
int DynamicBitmap::GetTopInflationTiles() const {
    auto const * const core = GetCore();
    return core ? core->GetTopInflationTiles() : 0;
}

MipmapMode DynamicBitmap::GetMipmapMode() const {
    auto const * const core = GetCore();
    return core ? core->GetMipmapMode() : MipmapModeNone;
}
void DynamicBitmap::InvalidateMipmaps() {
    if (auto * const core = GetCore())
        core->InvalidateMipmaps();
}
void DynamicBitmap::InvalidateMipmaps(Kernel::RectT<int> changed) {
    if (auto * const core = GetCore())
        core->InvalidateMipmaps(changed);
}
void DynamicBitmap::UpdateMipmaps(int level, bool * abort) const {
    if (auto const * const core = GetCore())
        core->UpdateMipmaps(level, abort);
}

Kernel::Counted<DynamicBitmap> DynamicBitmap::GetMipmap(int level) {
    return Dispatch([&](auto & bitmap) {
        auto const mipmap = bitmap.GetMipmap(level);
        return mipmap ? Kernel::MakeCounted<DynamicBitmap>(mipmap) : nullptr;
    });
}
Kernel::Counted<DynamicBitmap const> DynamicBitmap::GetMipmap(int level) const {
    // The wrapper that comes back is const, and so is what it leads to.
    return const_cast<DynamicBitmap *>(this)->GetMipmap(level);
}

Kernel::ClassProperties const & DynamicBitmap::GetClassProperties() {
    static Kernel::ClassProperties const properties(
        "DyBm", /*version=*/1, [] { return Kernel::Counted<Kernel::Serialisable>(new DynamicBitmap); });
    return properties;
}
Kernel::ClassPropertiesBase const & DynamicBitmap::GetObjectClassProperties() const { return GetClassProperties(); }
}
