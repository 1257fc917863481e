#include "storage/kernels/ScanRect.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "storage/kernels/ScanRect.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
using Rect = Kernel::RectT<int>;
constexpr int stride = 256;

// Each test leaves bits in the samples of interest, and none elsewhere.
struct NonZero {
    using Sample = std::uint8_t;
    template<class Tag, class Vector>
    HWY_INLINE Vector operator()(Tag, Vector bytes) const {
        return bytes;
    }
};

struct BelowFull {
    using Sample = std::uint8_t;
    template<class Tag, class Vector>
    HWY_INLINE Vector operator()(Tag tag, Vector bytes) const {
        return hn::Xor(bytes, hn::Set(tag, 255));
    }
};

struct BelowOne {
    using Sample = std::uint32_t;
    template<class Tag, class Vector>
    HWY_INLINE Vector operator()(Tag tag, Vector words) const {
        hn::RebindToFloat<Tag> const floats;
        auto const below = hn::Lt(hn::BitCast(floats, words), hn::Set(floats, 1.0f));
        return hn::BitCast(tag, hn::VecFromMask(floats, below));
    }
};

template<class Test>
class Scan {
public:
    Scan(void const * bytes, int scanWidth, int scanHeight)
        : buffer(static_cast<std::uint8_t const *>(bytes)), width(scanWidth), height(scanHeight) {
        // A sample that begins inside counts as a whole.
        constexpr int sampleBytes = sizeof(typename Test::Sample);
        auto const inside = (scanWidth + sampleBytes - 1) / sampleBytes * sampleBytes;
        std::memset(window, 255, static_cast<std::size_t>(inside));
        std::memset(window + inside, 0, static_cast<std::size_t>(stride - inside));
    }

    HWY_INLINE Rect Run() {
        int const top = FindTop();
        if (top == height)
            return {};
        int const bottom = FindBottom(top);
        FindColumns(top, bottom);
        auto const left = std::find_if(columns, columns + width, [](std::uint8_t hit) { return hit != 0; }) - columns;
        int right = width;
        while (columns[right - 1] == 0)
            --right;
        return {static_cast<int>(left), top, right, bottom};
    }

private:
    using Sample = typename Test::Sample;
    using Tag = hn::CappedTag<Sample, 64 / sizeof(Sample)>;
    HWY_INLINE static int Step() { return static_cast<int>(hn::Lanes(Tag()) * sizeof(Sample)); }

    static Sample const * At(std::uint8_t const * bytes) { return reinterpret_cast<Sample const *>(bytes); }

    HWY_INLINE static auto Look(Tag tag, std::uint8_t const * bytes) { return Test()(tag, hn::LoadU(tag, At(bytes))); }

    // The samples of interest in a few rows, at the same columns.
    HWY_INLINE auto LookAtRows(Tag tag, int x, int y, int rows) const {
        auto hits = hn::Zero(tag);
        for (int i = 0; i < rows; ++i)
            hits = hn::Or(hits, Look(tag, buffer + (y + i) * stride + x));
        return hn::And(hits, hn::Load(tag, At(window + x)));
    }

    HWY_INLINE bool HasHit(int y, int rows) const {
        Tag const tag;
        auto hits = hn::Zero(tag);
        for (int x = 0; x < stride; x += Step())
            hits = hn::Or(hits, LookAtRows(tag, x, y, rows));
        return !hn::AllFalse(tag, hn::Ne(hits, hn::Zero(tag)));
    }

    HWY_INLINE int FindTop() const {
        int y = 0;
        while (y + 4 <= height && !HasHit(y, 4))
            y += 4;
        while (y < height && !HasHit(y, 1))
            ++y;
        return y;
    }

    HWY_INLINE int FindBottom(int top) const {
        int y = height;
        while (y - 4 > top && !HasHit(y - 4, 4))
            y -= 4;
        while (y - 1 > top && !HasHit(y - 1, 1))
            --y;
        return y;
    }

    HWY_INLINE void FindColumns(int top, int bottom) {
        std::memset(columns, 0, sizeof columns);
        // Memory is read in order where four vectors make a row; else in pieces that one page of it holds.
        int const chunkRows = 4 * Step() == stride ? 16 : 2;
        for (int y = top; y < bottom; y += chunkRows) {
            int const rows = HWY_MIN(chunkRows, bottom - y);
            for (int x = 0; x < stride; x += 4 * Step())
                AddColumns(x, y, rows);
            if (columns[0] != 0 && columns[width - 1] != 0)
                return; // as wide as can be
        }
    }

    // Four vectors of columns stay in registers from row to row.
    HWY_INLINE void AddColumns(int x, int y, int rows) {
        Tag const tag;
        auto hits0 = hn::Zero(tag), hits1 = hits0, hits2 = hits0, hits3 = hits0;
        auto bytes = buffer + y * stride + x;
        for (int i = 0; i < rows; ++i, bytes += stride) {
            hits0 = hn::Or(hits0, Look(tag, bytes));
            hits1 = hn::Or(hits1, Look(tag, bytes + Step()));
            hits2 = hn::Or(hits2, Look(tag, bytes + 2 * Step()));
            hits3 = hn::Or(hits3, Look(tag, bytes + 3 * Step()));
        }
        StoreHits(x, hits0);
        StoreHits(x + Step(), hits1);
        StoreHits(x + 2 * Step(), hits2);
        StoreHits(x + 3 * Step(), hits3);
    }

    template<class Vector>
    HWY_INLINE void StoreHits(int x, Vector hits) {
        Tag const tag;
        auto const inside = hn::And(hits, hn::Load(tag, At(window + x)));
        auto const place = reinterpret_cast<Sample *>(columns + x);
        hn::Store(hn::Or(inside, hn::Load(tag, place)), tag, place);
    }

    alignas(64) std::uint8_t window[stride];  // 255 where a hit counts
    alignas(64) std::uint8_t columns[stride]; // not 0 where any row has a hit
    std::uint8_t const * buffer;
    int width, height;
};

Rect ScanNonZeroRect(void const * buffer, int width, int height) { return Scan<NonZero>(buffer, width, height).Run(); }

Rect ScanBelowFullRect(void const * buffer, int width, int height) {
    return Scan<BelowFull>(buffer, width, height).Run();
}

Rect ScanBelowOneRect(void const * buffer, int width, int height) {
    return Scan<BelowOne>(buffer, width, height).Run();
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE // below: compiled once, for the baseline
namespace Raster {
namespace {
using Kernel::RectT;

// Hits are looked for eight bytes at a time; a word without any equals `quietByte` throughout.
template<std::uint8_t quietByte>
class ByteScan {
public:
    ByteScan(void const * bytes, int scanWidth, int scanHeight)
        : buffer(static_cast<std::uint8_t const *>(bytes)), width(scanWidth), height(scanHeight) {}

    RectT<int> Run() const {
        int top = 0, left = none;
        for (; top < height; ++top)
            if ((left = FindFirst(top, 0, width)) != none)
                break;
        if (left == none)
            return {};
        RectT<int> rect{left, top, FindLast(top, left, width) + 1, top + 1};
        FindBottom(rect);
        for (int y = top + 1; y < rect.bottom - 1 && (rect.left > 0 || rect.right < width); ++y)
            WidenByMargins(rect, y);
        return rect;
    }

private:
    static constexpr int none = -1;
    static constexpr std::uint64_t quietWord = quietByte ? ~std::uint64_t(0) : 0;

    std::uint8_t const * Row(int y) const { return buffer + y * 256; }

    int FindFirst(int y, int from, int to) const {
        auto const row = Row(y);
        for (int x = from; x < to;) {
            std::uint64_t word;
            if (x + 8 <= to && (std::memcpy(&word, row + x, 8), word == quietWord))
                x += 8;
            else if (row[x] != quietByte)
                return x;
            else
                ++x;
        }
        return none;
    }

    int FindLast(int y, int from, int to) const {
        auto const row = Row(y);
        for (int x = to - 1; x >= from; --x)
            if (row[x] != quietByte)
                return x;
        return none;
    }

    void FindBottom(RectT<int> & rect) const {
        for (int y = height - 1; y > rect.top; --y)
            if (FindFirst(y, 0, width) != none) {
                rect.left = std::min(rect.left, FindFirst(y, 0, width));
                rect.right = std::max(rect.right, FindLast(y, 0, width) + 1);
                rect.bottom = y + 1;
                return;
            }
    }

    // Between top and bottom only what lies outside the rect so far can change it.
    void WidenByMargins(RectT<int> & rect, int y) const {
        if (int const x = FindFirst(y, 0, rect.left); x != none)
            rect.left = x;
        if (int const x = FindLast(y, rect.right, width); x != none)
            rect.right = x + 1;
    }

    std::uint8_t const * buffer;
    int width, height;
};
}

RectT<int> Scalar::ScanNonZeroRect(void const * buffer, int width, int height) {
    return ByteScan<0>(buffer, width, height).Run();
}

RectT<int> Scalar::ScanBelowFullRect(void const * buffer, int width, int height) {
    return ByteScan<255>(buffer, width, height).Run();
}

RectT<int> Scalar::ScanBelowOneRect(void const * buffer, int width, int height) {
    RectT<int> rect;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; x += 4) {
            float value;
            std::memcpy(&value, static_cast<std::uint8_t const *>(buffer) + y * 256 + x, 4);
            if (value < 1.0f)
                rect = rect.Unite({x, y, std::min(x + 4, width), y + 1});
        }
    return rect;
}

HWY_EXPORT(ScanNonZeroRect);
HWY_EXPORT(ScanBelowFullRect);
HWY_EXPORT(ScanBelowOneRect);

RectT<int> ScanNonZeroRect(void const * buffer, int width, int height) {
    return HWY_DYNAMIC_DISPATCH(ScanNonZeroRect)(buffer, width, height);
}

RectT<int> ScanBelowFullRect(void const * buffer, int width, int height) {
    return HWY_DYNAMIC_DISPATCH(ScanBelowFullRect)(buffer, width, height);
}

RectT<int> ScanBelowOneRect(void const * buffer, int width, int height) {
    return HWY_DYNAMIC_DISPATCH(ScanBelowOneRect)(buffer, width, height);
}
}
#endif
