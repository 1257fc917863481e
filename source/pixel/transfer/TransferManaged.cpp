#include "pixel/transfer/TransferManaged.h"

#include "colour/ICCManager.h"
#include "pixel/Conversion.h"
#include "pixel/FormatFunctions.h"
#include "pixel/kernels/Interleave.h"
#include "pixel/transfer/Layer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <type_traits>

namespace Raster {
namespace {
constexpr std::size_t longestRow = TileGrid::rowBytes; ///< pixels, of one-byte samples

using Rows = std::array<void *, 5>;
using ConstRows = std::array<void const *, 5>;

void InterleaveRows(SampleType type, void * pixels, ConstRows const & rows, int channels, std::size_t count) {
    auto const typed = [&](auto interleave, auto * sample) {
        using Sample = std::remove_pointer_t<decltype(sample)>;
        Sample const * from[5]{};
        for (std::size_t channel = 0; channel < std::size_t(channels); ++channel)
            from[channel] = static_cast<Sample const *>(rows[channel]);
        interleave(static_cast<Sample *>(pixels), from, channels, count);
    };
    if (type == SampleType::Integer8)
        typed(Interleave8, static_cast<std::uint8_t *>(nullptr));
    else if (type == SampleType::Integer16)
        typed(Interleave16, static_cast<std::uint16_t *>(nullptr));
    else
        typed(InterleaveFloat, static_cast<float *>(nullptr));
}

// All channels but alpha, which comes by another way.
void DeinterleaveRows(SampleType type, Rows const & rows, void const * pixels, int channels, std::size_t count) {
    auto const typed = [&](auto deinterleave, auto * sample) {
        using Sample = std::remove_pointer_t<decltype(sample)>;
        Sample * to[5]{};
        for (std::size_t channel = 0; channel < std::size_t(channels); ++channel)
            to[channel] = static_cast<Sample *>(rows[channel]);
        deinterleave(to, static_cast<Sample const *>(pixels), channels, count);
    };
    if (type == SampleType::Integer8)
        typed(DeinterleaveColours8, static_cast<std::uint8_t *>(nullptr));
    else if (type == SampleType::Integer16)
        typed(DeinterleaveColours16, static_cast<std::uint16_t *>(nullptr));
    else
        typed(DeinterleaveColoursFloat, static_cast<float *>(nullptr));
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
        InterleaveRows(in.sampleType, sourcePixels, from, in.channelCount, count);
        ICCManager::DoTransform(transform, sourcePixels, destPixels, static_cast<int>(count));
        DeinterleaveRows(out.sampleType, to, destPixels, out.channelCount, count);
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
    bool const isEmpty = ReadsAsEmpty(*from, params);
    if (!isEmpty && !LoadSource(*from, params))
        return;
    Kernel::Counted<BitmapCore const> const before(AreEntangled(*to, *from) ? from->CloneTiles().release() : nullptr);
    if (before)
        from = before.Get();
    auto const rect = GetWorkRect(to->GetBounds(), params).Intersect(from->GetBounds());
    WriteRecorded(*to, rect, abort, [&] {
        ForEachTile(*to, rect, params, [&](TileTask const & task) {
            std::make_unique<ManagedTile>(*to, *from, isEmpty, transform)
                ->Run(task); // too large for the stack of a helper thread
        });
    });
}
}
