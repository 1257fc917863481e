#include "pixel/transfer/TransferManaged.h"

#include "colour/ICCManager.h"
#include "pixel/Conversion.h"
#include "pixel/FormatFunctions.h"
#include "pixel/transfer/Layer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace Raster {
namespace {
constexpr std::size_t longestRow = TileGrid::rowBytes; ///< pixels, of one-byte samples

using Rows = std::array<void *, 5>;
using ConstRows = std::array<void const *, 5>;

template<class Sample>
void Interleave(void * pixels, ConstRows const & rows, int channels, std::size_t count) {
    auto * const out = static_cast<Sample *>(pixels);
    for (int channel = 0; channel < channels; ++channel) {
        auto const * const row = static_cast<Sample const *>(rows[std::size_t(channel)]);
        for (std::size_t i = 0; i < count; ++i)
            out[i * std::size_t(channels) + std::size_t(channel)] = row[i];
    }
}

// All channels but alpha, which comes by another way.
template<class Sample>
void DeinterleaveColours(void const * pixels, Rows const & rows, int channels, std::size_t count) {
    auto const * const in = static_cast<Sample const *>(pixels);
    for (int channel = 0; channel + 1 < channels; ++channel) {
        auto * const row = static_cast<Sample *>(rows[std::size_t(channel)]);
        for (std::size_t i = 0; i < count; ++i)
            row[i] = in[i * std::size_t(channels) + std::size_t(channel)];
    }
}

template<class Function>
void VisitSample(SampleType type, Function && function) {
    if (type == SampleType::Integer8)
        function(std::uint8_t());
    else if (type == SampleType::Integer16)
        function(std::uint16_t());
    else
        function(float());
}

class ManagedTile {
public:
    ManagedTile(BitmapCore & destBitmap, BitmapCore const & sourceBitmap, bool readsAsEmpty, void * colourTransform)
        : dest(destBitmap), source(sourceBitmap), isEmpty(readsAsEmpty), tiles(sourceBitmap),
          transform(colourTransform), convert(GetConvertRows(dest.GetLayout().format, source.GetLayout().format)),
          convertAlpha(GetConvertRows(GetCompatibleMaskFormat(dest.GetLayout().format),
                                      GetCompatibleMaskFormat(source.GetLayout().format))) {}

    void Run(TileTask const & task) {
        DestTile tile(dest, task.rect);
        int const sourceWidth = tiles.GetGrid().tileWidth;
        for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
            for (int x = task.rect.left; x < task.rect.right;) {
                int const end = x + std::min(sourceWidth - x % sourceWidth, task.rect.right - x);
                RunPiece(tile, x, y, static_cast<std::size_t>(end - x));
                x = end;
            }
            task.ReportRow(y);
        }
    }

private:
    void RunPiece(DestTile & tile, int x, int y, std::size_t count) {
        if (isEmpty || tiles.IsTransparent(x / tiles.GetGrid().tileWidth, y / TileGrid::tileHeight))
            Clear(tile, x, y, count);
        else if (transform)
            Transform(tile.GetRows(x, y), tiles.GetRows(x, y), count);
        else
            convert(tile.GetRows(x, y).data(), tiles.GetRows(x, y).data(), count);
    }

    void Clear(DestTile & tile, int x, int y, std::size_t count) {
        auto const & layout = dest.GetLayout();
        auto const & grid = dest.GetGrid();
        if (!tile.IsOpen() && SourceTiles(dest).IsTransparent(x / grid.tileWidth, y / TileGrid::tileHeight))
            return;
        auto const rows = tile.GetRows(x, y);
        for (int channel = 0; channel < layout.channelCount; ++channel)
            std::memset(rows[std::size_t(channel)], 0, count * static_cast<std::size_t>(layout.sampleSize));
    }

    void Transform(Rows const & to, ConstRows const & from, std::size_t count) {
        auto const & in = source.GetLayout();
        auto const & out = dest.GetLayout();
        VisitSample(in.sampleType,
                    [&](auto sample) { Interleave<decltype(sample)>(sourcePixels, from, in.channelCount, count); });
        ICCManager::DoTransform(transform, sourcePixels, destPixels, static_cast<int>(count));
        VisitSample(out.sampleType, [&](auto sample) {
            DeinterleaveColours<decltype(sample)>(destPixels, to, out.channelCount, count);
        });
        convertAlpha(&to[std::size_t(out.channelCount - 1)], &from[std::size_t(in.channelCount - 1)], count);
    }

    BitmapCore & dest;
    BitmapCore const & source;
    bool const isEmpty; ///< whatever its tiles hold
    SourceTiles tiles;
    void * const transform;
    ConvertRows const convert, convertAlpha;
    alignas(64) unsigned char sourcePixels[longestRow * 5 * sizeof(float)];
    alignas(64) unsigned char destPixels[longestRow * 5 * sizeof(float)];
};
}

void TransferManaged(DynamicBitmap & dest, DynamicBitmap const & source, void * transform,
                     TransferParams const * params) {
    BitmapCore * const to = dest.GetCore();
    BitmapCore const * from = source.GetCore();
    bool * const abort = params ? params->abort : nullptr;
    if (!to || !from)
        return;
    to->ForceDelayLoad(abort);
    if (to->IsPendingDelayLoad() || Kernel::IsAborted(abort))
        return;
    bool const isEmpty = params && params->sourceMayStayUnloaded && from->IsPendingDelayLoad();
    if (!isEmpty && !LoadSource(*from, params))
        return;
    Kernel::Counted<BitmapCore const> const before(AreEntangled(*to, *from) ? from->CloneTiles().release() : nullptr);
    if (before)
        from = before.Get();
    auto const rect = GetWorkRect(to->GetBounds(), params).Intersect(from->GetBounds());
    ForEachTile(*to, rect, params, [&](TileTask const & task) {
        std::make_unique<ManagedTile>(*to, *from, isEmpty, transform)
            ->Run(task); // too large for the stack of a helper thread
    });
    to->RecordWrite(rect, abort);
}
}
