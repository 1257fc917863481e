#include "pixel/transfer/BitmapTransfer.h"

#include "pixel/transfer/Layer.h"
#include "pixel/transfer/TileTransfer.h"

#include <algorithm>
#include <cmath>

namespace Raster {
namespace {
using Matrix = Kernel::AffineTransform::Params;

bool IsFinite(Matrix const & matrix) {
    auto const entries = matrix.ToArray();
    return std::all_of(entries.begin(), entries.end(), [](double entry) { return std::isfinite(entry); });
}

// The level whose scale lies between one and two times the destination's. The smaller of the two scales decides, so
// that a picture squeezed in one direction only keeps its detail in the other.
int ChooseLevel(Matrix const & matrix) {
    double const down = std::sqrt(matrix.b * matrix.b + matrix.e * matrix.e);
    double const across = std::sqrt(matrix.a * matrix.a + matrix.d * matrix.d);
    double scale = std::min(down, across);
    int level = 0;
    for (int const deepest = 31; scale > 2.0 && level < deepest; scale *= 0.5)
        ++level;
    return level;
}

Matrix ScaleToLevel(Matrix const & matrix, int level) {
    double const factor = 1.0 / std::pow(2.0, level);
    return {matrix.a * factor, matrix.b * factor, matrix.c * factor,
            matrix.d * factor, matrix.e * factor, matrix.f * factor};
}

bool IsWhole(double value) { return std::fabs(value) <= 16777216.0 && value == std::floor(value); }

bool IsWholeTranslation(Matrix const & matrix) {
    return matrix.a == 1.0 && matrix.b == 0.0 && matrix.d == 0.0 && matrix.e == 1.0 && IsWhole(matrix.c) &&
           IsWhole(matrix.f);
}

void ChooseWork(TransferJob & job) {
    auto const & from = job.source->GetLayout();
    auto const & to = job.dest->GetLayout();
    job.convert = from.format == to.format ? nullptr : GetConvertRows(to.format, from.format);
    job.blend = GetBlendRows(to.sampleType);
    job.isDirect = IsWholeTranslation(job.matrix);
    if (job.isDirect) {
        job.offsetX = static_cast<int>(job.matrix.c);
        job.offsetY = static_cast<int>(job.matrix.f);
    } else {
        job.premultiply = GetPremultiplyRow(from.sampleType);
        job.sample = GetSampleRow(from.sampleType);
    }
}
}

void Transfer(BitmapCore & dest, BitmapCore const & source, TransferParams const * params, float const * opacity,
              double const * matrix) {
    TransferParams const own = params ? *params : TransferParams();
    if (dest.GetLayout().format == NoFormat || source.GetLayout().format == NoFormat || dest.IsPendingDelayLoad())
        return;
    TransferJob job;
    job.dest = &dest;
    job.opacity = ClampOpacity(opacity);
    if (matrix)
        job.matrix = Matrix::FromArray(matrix);
    if (!IsFinite(job.matrix))
        return;

    Kernel::Counted<BitmapCore const> holder; // the caller holds the source itself, perhaps without counting
    job.source = &source;
    if (int const level = ChooseLevel(job.matrix)) {
        if (source.GetMipmapMode() == MipmapModeOnDemand || source.GetMipmapMode() == MipmapModeOnDemandDefault)
            source.UpdateMipmaps(level, own.abort);
        holder = source.GetMipmapTable().GetValid(level);
        if (holder) {
            job.source = holder.Get();
            job.matrix = ScaleToLevel(job.matrix, level);
        }
    }
    if (!holder && !LoadSource(source, params))
        return;

    auto const rect = GetWorkRect(dest.GetBounds(), &own);
    if (rect.IsEmpty() || Kernel::IsAborted(own.abort))
        return;
    if (AreEntangled(dest, source) || AreEntangled(dest, *job.source)) { // take the pixels as they are before we write
        holder = Kernel::Counted<BitmapCore const>(job.source->CloneTiles().release());
        job.source = holder.Get();
    }
    ChooseWork(job);
    ForEachTile(dest, rect, &own, [&job](TileTask const & task) { TransferTile(job, task); });
}

void Transfer(DynamicBitmap & dest, DynamicBitmap const & source, TransferParams const * params, float const * opacity,
              double const * matrix) {
    BitmapCore * const to = dest.GetCore();
    BitmapCore const * const from = source.GetCore();
    if (!to || !from)
        return;
    bool * const abort = params ? params->abort : nullptr;
    if (to->IsPendingDelayLoad()) {
        to->ForceDelayLoad(abort);
        if (Kernel::IsAborted(abort) || to->IsPendingDelayLoad())
            return;
    }
    WriteRecorded(*to, GetWorkRect(to->GetBounds(), params), abort,
                  [&] { Transfer(*to, *from, params, opacity, matrix); });
}
}
