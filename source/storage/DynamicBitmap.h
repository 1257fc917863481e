#pragma once

#include "kernel/Serialisable.h"
#include "kernel/String.h"
#include "pixel/DynamicBase.h"
#include "storage/Bitmap.h"

#include <cstddef>
#include <utility>

namespace Raster {
class DynamicBitmap;
extern template class RASTER_EXTERN_TEMPLATE DynamicBase<DynamicBitmap>;

/// A bitmap whose format is known at run time: what documents hold. Copies share the bitmap; `Clone` makes another. One
/// without a bitmap answers everything with nothing.
/// Threads: those of the bitmap for its pixels; the wrapper itself belongs to one thread at a time.
class RASTER_API DynamicBitmap : public DynamicBase<DynamicBitmap>, public Kernel::Serialisable {
public:
    template<class Tuple>
    using TypedOf = BitmapOf<Tuple>;

    DynamicBitmap();
    DynamicBitmap(int width, int height, Format format, MipmapMode mode, HardwareCachePolicy policy);
    /// Shares a bitmap that is there already; null gives a wrapper without one.
    template<class... Channels>
    explicit DynamicBitmap(Kernel::Counted<Bitmap<Channels...>> bitmap) {
        if (bitmap)
            SetTyped(Bitmap<Channels...>::GetFormat(), std::move(bitmap));
    }
    DynamicBitmap(DynamicBitmap const & other);
    DynamicBitmap(DynamicBitmap && other) noexcept;
    DynamicBitmap & operator=(DynamicBitmap const & other);
    DynamicBitmap & operator=(DynamicBitmap && other) noexcept;
    ~DynamicBitmap() override;

    /// Takes a new bitmap in place of what was there. `NoFormat` and unknown formats: does nothing. A size of more than
    /// `maximumTileCount` tiles leaves no bitmap, which is traced. Negative sizes count as 0.
    void Create(int width, int height, Format format, MipmapMode mode, HardwareCachePolicy policy);
    Kernel::StringUtf8 GetDescription() const; ///< "DynamicBitmap"

    /// What all formats have in common, and what the operations below act on. Null without a bitmap.
    BitmapCore * GetCore();
    BitmapCore const * GetCore() const;

    // As on `BitmapCore`; without a bitmap, what the type is by default.
    bool IsPendingDelayLoad() const;
    void ForceDelayLoad(bool * abort) const;
    Kernel::JailCounted<Kernel::DelayLoadHolder> GetBackingData() const;
    template<class Profile = ICCProfile>
    void SetBackingData(Kernel::Counted<Kernel::DelayLoadHolder> holder,
                        Kernel::Consolidated<Profile> const & profile) {
        if (auto * const core = GetCore())
            core->SetBackingData(std::move(holder), profile);
    }
    void SetBackingData(Kernel::Counted<Kernel::DelayLoadHolder> holder, std::nullptr_t profile);
    void SetHardwarePolicy(HardwareCachePolicy policy);
    void Scrub(bool * abort);
    void Deduplicate(BlockDeduplicationSupport & support, bool * abort);
    Kernel::RectT<int> GetAllocatedBoundingBox() const;
    Kernel::RectT<int> GetNonZeroBoundingBox() const;
    Kernel::RectT<int> GetNonFullBoundingBox() const;
    Kernel::RectT<int> GetAlphaBoundingBox() const;
    Kernel::RectT<int> GetInverseAlphaBoundingBox() const;
    Kernel::RectT<int> InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty);
    int GetLeftInflationTiles() const;
    int GetTopInflationTiles() const;
    MipmapMode GetMipmapMode() const;
    void InvalidateMipmaps();
    void InvalidateMipmaps(Kernel::RectT<int> changed);
    void UpdateMipmaps(int level, bool * abort) const;
    /// The level in a new wrapper, if it matches the image; else null.
    Kernel::Counted<DynamicBitmap> GetMipmap(int level);
    Kernel::Counted<DynamicBitmap const> GetMipmap(int level) const;

    static Kernel::ClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override;
    void Save(Kernel::OutSerialiser & serialiser) const override;
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
};

/// Writes the MD5 digest, 16 bytes, of a bitmap's size, format and tiles. A solid tile costs one byte, others are read
/// whole, with what lies beyond the bitmap's edges. The same pixels may give two digests, since solid tiles are known
/// as such only once they are scrubbed: scrub first where the digest is to stand for the content. A pending bitmap is
/// loaded. Null or no format: the digest of an empty picture.
RASTER_API void GetBitmapMD5Digest(unsigned char * digest, Kernel::Counted<DynamicBitmap const> bitmap);
}
