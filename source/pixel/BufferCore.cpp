#include "pixel/BufferCore.h"

#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <algorithm>
#include <cstring>

namespace Raster {
namespace {
/// Bytes that are accounted for as long as this holds them.
class Account {
public:
    explicit Account(std::uint64_t accountedBytes) : bytes(accountedBytes) {}
    ~Account() {
        if (bytes)
            MemoryManager::Instance().DetachInterleaved(bytes);
    }
    /// May evict. Bytes count before that, so they are given back even if the eviction throws.
    void Attach() { MemoryManager::Instance().AttachInterleaved(bytes); }
    Account(Account const &) = delete;
    Account & operator=(Account const &) = delete;
    void Keep() { bytes = 0; }

private:
    std::uint64_t bytes;
};

unsigned char * AllocateAccounted(std::uint64_t bytes) {
    Account account(bytes);
    account.Attach(); // first, so that room is made before memory is taken
    unsigned char * const data = PixelMemory::Allocate(bytes, PixelMemory::Content::Uninitialised);
    account.Keep();
    return data;
}

/// The alpha samples of interleaved pixels, seen as bytes: a sample counts if one of its bytes is not 0.
template<class Sample>
class AlphaScan {
public:
    AlphaScan(BufferCore const & core, TupleLayout const & layout)
        : alpha(core.data + std::size_t(layout.alphaIndex - 1) * sizeof(Sample)), width(core.width),
          height(core.height), pixelSize(layout.GetPixelSize()) {}

    Kernel::RectT<int> FindBox() const {
        int top = 0;
        while (top < height && FindFirst(top, 0, width) == width)
            ++top;
        if (top == height)
            return {};
        int bottom = height;
        while (FindFirst(bottom - 1, 0, width) == width)
            --bottom;
        // Each row is searched only where it could widen the box.
        int left = width, right = 0;
        for (int y = top; y < bottom; ++y) {
            left = FindFirst(y, 0, left);
            right = FindEnd(y, right, width);
        }
        return {left, top, right, bottom};
    }

private:
    bool IsSet(int x, int y) const {
        Sample sample;
        std::memcpy(&sample, alpha + (std::size_t(y) * std::size_t(width) + std::size_t(x)) * pixelSize,
                    sizeof(sample));
        return sample != 0;
    }
    /// The first hit in [begin, end) of a row, or `end`.
    int FindFirst(int y, int begin, int end) const {
        while (begin < end && !IsSet(begin, y))
            ++begin;
        return begin;
    }
    /// One past the last hit in [begin, end) of a row, or `begin`.
    int FindEnd(int y, int begin, int end) const {
        while (end > begin && !IsSet(end - 1, y))
            --end;
        return end;
    }

    unsigned char const * alpha;
    int width, height;
    std::size_t pixelSize;
};
}

BufferCore::BufferCore(int givenWidth, int givenHeight, unsigned char * givenData, TupleLayout const & layout)
    : data(givenData), owning(givenData == nullptr), width(std::max(givenWidth, 0)), height(std::max(givenHeight, 0)) {
    auto const bytes = PixelMemory::GetSize(width, height, layout.GetPixelSize());
    if (owning)
        data = AllocateAccounted(bytes);
}

void BufferCore::Release(TupleLayout const & layout) noexcept {
    if (!owning)
        return;
    PixelMemory::Free(data);
    MemoryManager::Instance().DetachInterleaved(GetSize(layout));
    owning = false;
    data = nullptr;
}

void BufferCore::Clear(TupleLayout const & layout) {
    if (auto const bytes = GetSize(layout))
        std::memset(data, 0, bytes);
}

void BufferCore::ClearRect(Kernel::RectT<int> const & rect, TupleLayout const & layout) {
    auto const pixelSize = layout.GetPixelSize();
    ClearRows(data, width, height, std::uint64_t(width) * pixelSize, pixelSize, rect);
}

void BufferCore::CopyFrom(BufferCore const & source, TupleLayout const & layout) {
    if (auto const bytes = GetSize(layout))
        std::memcpy(data, source.data, bytes);
}

Kernel::RectT<int> BufferCore::GetAlphaBoundingBox(TupleLayout const & layout) const {
    if (layout.alphaIndex == 0 || GetSize(layout) == 0)
        return {};
    switch (layout.sampleSize) {
    case 1:
        return AlphaScan<std::uint8_t>(*this, layout).FindBox();
    case 2:
        return AlphaScan<std::uint16_t>(*this, layout).FindBox();
    case 4:
        return AlphaScan<std::uint32_t>(*this, layout).FindBox();
    default:
        return AlphaScan<std::uint64_t>(*this, layout).FindBox();
    }
}

void ClearRows(unsigned char * data, int width, int height, std::uint64_t stride, std::uint64_t pixelSize,
               Kernel::RectT<int> const & rect) {
    auto const clipped = rect.Intersect({0, 0, width, height});
    auto const rowBytes = std::uint64_t(clipped.GetWidth()) * pixelSize;
    for (int y = clipped.top; y < clipped.bottom; ++y)
        std::memset(data + std::uint64_t(y) * stride + std::uint64_t(clipped.left) * pixelSize, 0, rowBytes);
}
}
