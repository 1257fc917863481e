#include "pixel/transfer/TileTransfer.h"

#include "pixel/transfer/Coverage.h"
#include "pixel/transfer/TransferTiles.h"
#include "pixel/transfer/UprightSampler.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

// The longest run that is converted or sampled at once: a tile row of bytes.
constexpr std::size_t longestRun = TileGrid::rowBytes;
// Rows that fill their tiles from side to side lie one after the other, and are blended several at a time.
constexpr int rowsAtOnce = 16;
// More pixels than this are not premultiplied for one block: a matrix that spreads them so far meets few of them.
constexpr std::int64_t largestWindow = 64 * 1024;

// Samples of up to five channels, aligned for any type.
struct SampleRows {
    alignas(64) std::byte samples[5][longestRun * sizeof(float)];

    std::array<void *, 5> Get() { return {samples[0], samples[1], samples[2], samples[3], samples[4]}; }
};

// Planes of floats that grow as they must, and forget what they held.
class Lanes {
public:
    float * Get(std::size_t count) {
        if (count > size) {
            floats = std::make_unique_for_overwrite<float[]>(count + count / 4);
            size = count + count / 4;
        }
        return floats.get();
    }

private:
    std::unique_ptr<float[]> floats;
    std::size_t size = 0;
};

// What the work on one tile takes place in.
struct Memory {
    SampleRows converted, sampled;
    SamplePositions positions;
    UprightSampler::Memory upright;
    Lanes window[2];
};

// Too large for the stack of a helper thread, and to be got anew for each tile: each thread keeps one of at most some 2
// MiB for the next. It is taken away while in use, since a callback may begin a transfer inside a transfer.
class MemoryLease {
public:
    MemoryLease() : memory(std::move(spare)) {
        if (!memory)
            memory = std::make_unique_for_overwrite<Memory>();
    }
    ~MemoryLease() { spare = std::move(memory); }
    MemoryLease(MemoryLease const &) = delete;
    MemoryLease & operator=(MemoryLease const &) = delete;
    Memory & Get() const { return *memory; }

private:
    static thread_local std::unique_ptr<Memory> spare;
    std::unique_ptr<Memory> memory;
};
thread_local std::unique_ptr<Memory> MemoryLease::spare;

std::array<void const *, 5> AsConst(std::array<void *, 5> const & rows) {
    return {rows[0], rows[1], rows[2], rows[3], rows[4]};
}

// The last tile of a very long side ends beyond the range of `int`; so far no picture reaches.
int GetTileEnd(int index, int length) {
    return static_cast<int>(std::min<std::int64_t>((std::int64_t(index) + 1) * length, INT32_MAX));
}

Rect GetTileRect(TileGrid const & grid, int column, int row) {
    return {column * grid.tileWidth, row * TileGrid::tileHeight, GetTileEnd(column, grid.tileWidth),
            GetTileEnd(row, TileGrid::tileHeight)};
}

class TileTransfer {
public:
    TileTransfer(TransferJob const & transferJob, TileTask const & tileTask)
        : job(transferJob), task(tileTask), source(*job.source), dest(*job.dest, task.rect),
          sourceColours(job.source->GetLayout().channelCount - 1), destColours(job.dest->GetLayout().channelCount - 1),
          converted(memory.Get().converted), sampled(memory.Get().sampled),
          upright(memory.Get().upright, source, job.source->GetLayout()), positions(memory.Get().positions) {}

    void RunDirect();
    void RunSampled();

private:
    void ReportRows(int top, int bottom) const {
        for (int y = top; y < bottom && !task.IsAborted(); ++y)
            task.ReportRow(y);
    }
    void CopyFromSourceRow(int sourceTileRow, Rect const & work);
    bool ShareWholeTile(Rect const & work);
    void LayRun(int x, int y, std::array<void const *, 5> samples, std::size_t count);
    void LayConverted(int x, int y, std::array<void const *, 5> const & samples, std::size_t count);
    void ConvertRow(std::vector<Rect> const & pieces, int y);

    void RunUpright();
    void SampleBand(int top, int rows);
    void SampleBlock(Rect const & block);
    void FillWindow(SampleBounds const & bounds);
    void FillWindowRow(SampleBounds const & bounds, int y);
    bool IsNothingThere(SampleBounds const & bounds) const;

    TransferJob const & job;
    TileTask const & task;
    SourceTiles source;
    DestTile dest;
    int const sourceColours, destColours;
    MemoryLease const memory;
    SampleRows & converted;
    SampleRows & sampled;

    UprightSampler upright;
    // Of the band of rows being sampled: where it begins, and the position of each row's next pixel.
    int bandLeft = 0, bandTop = 0;
    float nextU[sampleBlockSize], nextV[sampleBlockSize];
    SamplePositions & positions;
    SampleWindow window{};
};

// Lays one run of source pixels on the destination.
void TileTransfer::LayRun(int x, int y, std::array<void const *, 5> samples, std::size_t count) {
    if (!job.convert) {
        LayConverted(x, y, samples, count);
    } else if (HasCoverage(job.source->GetLayout().sampleType, samples[std::size_t(sourceColours)], count, 1.0f)) {
        auto const rows = converted.Get();
        job.convert(rows.data(), samples.data(), count);
        LayConverted(x, y, AsConst(rows), count);
    }
}

// Where nothing would show, the destination's tile stays as it is.
void TileTransfer::LayConverted(int x, int y, std::array<void const *, 5> const & samples, std::size_t count) {
    auto const & layout = job.dest->GetLayout();
    if (dest.IsOpen() || HasCoverage(layout.sampleType, samples[std::size_t(destColours)], count, job.opacity))
        job.blend(dest.GetRows(x, y).data(), samples.data(), destColours, count, job.opacity);
}

// One row of the source from tile to tile. The tiles of a source with larger samples are narrower: pieces that lie side
// by side are put together and laid at once.
void TileTransfer::ConvertRow(std::vector<Rect> const & pieces, int y) {
    auto const sampleType = job.source->GetLayout().sampleType;
    auto const sampleSize = static_cast<std::size_t>(job.dest->GetLayout().sampleSize);
    auto const rows = converted.Get();
    int begin = 0, end = 0; // what stands converted, in source pixels
    auto const lay = [&] {
        if (begin < end)
            LayConverted(begin - job.offsetX, y - job.offsetY, AsConst(rows), static_cast<std::size_t>(end - begin));
    };
    for (auto const & piece : pieces) {
        auto const samples = source.GetRows(piece.left, y);
        auto const count = static_cast<std::size_t>(piece.GetWidth());
        if (!HasCoverage(sampleType, samples[std::size_t(sourceColours)], count, 1.0f))
            continue;
        if (piece.left != end) {
            lay();
            begin = piece.left;
        }
        auto at = rows;
        for (auto & row : at)
            row = static_cast<std::byte *>(row) + static_cast<std::size_t>(piece.left - begin) * sampleSize;
        job.convert(at.data(), samples.data(), count);
        end = piece.right;
    }
    lay();
}

// The same format, the same place in the grid, all opaque, and nothing cut off: the tile may as well be shared.
bool TileTransfer::ShareWholeTile(Rect const & work) {
    if (job.convert || job.opacity != 1.0f)
        return false;
    auto const & grid = source.GetGrid();
    bool const whole = work.GetWidth() == grid.tileWidth && work.GetHeight() == TileGrid::tileHeight;
    if (!whole || work.left % grid.tileWidth != 0 || work.top % TileGrid::tileHeight != 0)
        return false;
    int const column = work.left / grid.tileWidth, row = work.top / TileGrid::tileHeight;
    if (!source.IsOpaque(column, row))
        return false;
    dest.ShareFrom(*job.source, column, row);
    return true;
}

void TileTransfer::RunDirect() {
    auto const shift = [](int value, int offset) {
        return static_cast<int>(std::clamp<std::int64_t>(std::int64_t(value) + offset, -1, INT32_MAX));
    };
    Rect const work = Rect{shift(task.rect.left, job.offsetX), shift(task.rect.top, job.offsetY),
                           shift(task.rect.right, job.offsetX), shift(task.rect.bottom, job.offsetY)}
                          .Intersect(source.GetGrid().GetBounds());
    if (work.IsEmpty() || ShareWholeTile(work)) {
        ReportRows(task.rect.top, task.rect.bottom);
        return;
    }
    ReportRows(task.rect.top, work.top - job.offsetY);
    for (int row = work.top / TileGrid::tileHeight; row <= (work.bottom - 1) / TileGrid::tileHeight; ++row)
        CopyFromSourceRow(row, work);
    ReportRows(work.bottom - job.offsetY, task.rect.bottom);
}

// One row of source tiles. `work` is in source pixels.
void TileTransfer::CopyFromSourceRow(int sourceTileRow, Rect const & work) {
    auto const & grid = source.GetGrid();
    std::vector<Rect> pieces;
    for (int column = work.left / grid.tileWidth; column <= (work.right - 1) / grid.tileWidth; ++column)
        if (!source.IsTransparent(column, sourceTileRow))
            pieces.push_back(GetTileRect(grid, column, sourceTileRow).Intersect(work));
    if (pieces.empty()) {
        auto const rows = GetTileRect(grid, work.left / grid.tileWidth, sourceTileRow).Intersect(work);
        ReportRows(rows.top - job.offsetY, rows.bottom - job.offsetY);
        return;
    }
    auto const & destGrid = job.dest->GetGrid();
    bool const fillsRows = !job.convert && pieces.size() == 1 && pieces[0].GetWidth() == grid.tileWidth &&
                           (pieces[0].left - job.offsetX) % destGrid.tileWidth == 0;
    int const bottom = pieces[0].bottom;
    for (int y = pieces[0].top; y < bottom && !task.IsAborted();) {
        int const rows = fillsRows ? std::min(rowsAtOnce, bottom - y) : 1;
        if (job.convert)
            ConvertRow(pieces, y);
        else
            for (auto const & piece : pieces)
                LayRun(piece.left - job.offsetX, y - job.offsetY, source.GetRows(piece.left, y),
                       static_cast<std::size_t>(piece.GetWidth()) * static_cast<std::size_t>(rows));
        ReportRows(y - job.offsetY, y + rows - job.offsetY);
        y += rows;
    }
}

void TileTransfer::RunSampled() {
    if (upright.Begin(job.matrix, task.rect)) {
        RunUpright();
        return;
    }
    int const height = task.rect.GetHeight();
    for (int done = 0; done < height && !task.IsAborted(); done += sampleBlockSize) {
        int const top = task.rect.top + done, rows = std::min(sampleBlockSize, height - done);
        SampleBand(top, rows);
        ReportRows(top, top + rows);
    }
}

void TileTransfer::RunUpright() {
    auto const rows = sampled.Get();
    auto const count = static_cast<std::size_t>(task.rect.GetWidth());
    auto const destBytes = count * static_cast<std::size_t>(job.dest->GetLayout().sampleSize);
    for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
        if (dest.IsOpen())
            PrefetchRows<PrefetchFor::Writing>(dest.GetRows(task.rect.left, y), destColours + 1, 0, destBytes);
        if (upright.SampleRow(y, rows.data()))
            LayRun(task.rect.left, y, AsConst(rows), count);
        ReportRows(y, y + 1);
    }
}

// Positions of each row begin at the left edge of the task and are stepped from there.
void TileTransfer::SampleBand(int top, int rows) {
    auto const step = GetSampleStep(job.matrix);
    for (int row = 0; row < sampleBlockSize; ++row) { // rows past the last are stepped too, and not looked at
        auto const start = job.matrix.Apply({task.rect.left + 0.5, double(top) + row + 0.5});
        nextU[row] = ToSamplePosition(start.x);
        nextV[row] = ToSamplePosition(start.y);
    }
    bandTop = top;
    int const width = task.rect.GetWidth();
    for (int done = 0; done < width; done += sampleBlockSize) {
        int const columns = std::min(sampleBlockSize, width - done);
        bandLeft = task.rect.left + done;
        StepPositions(positions, nextU, nextV, step.x, step.y, rows, columns);
        SampleBlock({0, 0, columns, rows});
    }
}

// Samples a part of the block whose positions stand ready. A part that meets too much of the source is halved.
void TileTransfer::SampleBlock(Rect const & block) {
    auto const bounds = FindSampleBounds(positions, block);
    if (bounds.left == bounds.right || IsNothingThere(bounds))
        return;
    auto const size = (std::int64_t(bounds.right) - bounds.left) * (std::int64_t(bounds.bottom) - bounds.top);
    if (size > largestWindow) {
        if (block.GetHeight() > 1) {
            int const middle = (block.top + block.bottom) / 2;
            SampleBlock({block.left, block.top, block.right, middle});
            SampleBlock({block.left, middle, block.right, block.bottom});
        } else {
            int const middle = (block.left + block.right) / 2;
            SampleBlock({block.left, block.top, middle, block.bottom});
            SampleBlock({middle, block.top, block.right, block.bottom});
        }
        return;
    }
    FillWindow(bounds);
    auto const rows = sampled.Get();
    auto const count = static_cast<std::size_t>(block.GetWidth());
    for (int row = block.top; row < block.bottom; ++row) {
        job.sample(rows.data(), window, positions.u[row] + block.left, positions.v[row] + block.left, sourceColours,
                   count);
        LayRun(bandLeft + block.left, bandTop + row, AsConst(rows), count);
    }
}

// Whether all tiles that the cells touch are known to be transparent; what lies outside the source is.
bool TileTransfer::IsNothingThere(SampleBounds const & bounds) const {
    auto const & grid = source.GetGrid();
    Rect const inside = Rect{bounds.left, bounds.top, bounds.right, bounds.bottom}.Intersect(grid.GetBounds());
    if (inside.IsEmpty())
        return true;
    for (int row = inside.top / TileGrid::tileHeight; row <= (inside.bottom - 1) / TileGrid::tileHeight; ++row)
        for (int column = inside.left / grid.tileWidth; column <= (inside.right - 1) / grid.tileWidth; ++column)
            if (!source.IsTransparent(column, row))
                return false;
    return true;
}

void TileTransfer::FillWindow(SampleBounds const & bounds) {
    auto const width = static_cast<std::size_t>(bounds.right - bounds.left);
    auto const height = static_cast<std::size_t>(bounds.bottom - bounds.top);
    window = {bounds, static_cast<std::ptrdiff_t>(width * 4), {}};
    for (int group = 0; group < (sourceColours == 4 ? 2 : 1); ++group)
        window.groups[group] = memory.Get().window[group].Get(width * height * 4);
    for (int y = bounds.top; y < bounds.bottom; ++y)
        FillWindowRow(bounds, y);
}

void TileTransfer::FillWindowRow(SampleBounds const & bounds, int y) {
    auto const & grid = source.GetGrid();
    float * groups[2]{};
    auto const seek = [&](int x) {
        for (int group = 0; group < 2; ++group)
            if (window.groups[group])
                groups[group] = window.groups[group] + (y - bounds.top) * window.stride + (x - bounds.left) * 4;
    };
    auto const clear = [&](int left, int right) {
        seek(left);
        for (float * const lanes : groups)
            if (lanes && right > left)
                std::fill_n(lanes, static_cast<std::size_t>(right - left) * 4, 0.0f);
    };

    int const left = std::clamp(bounds.left, 0, grid.width), right = std::clamp(bounds.right, 0, grid.width);
    if (y < 0 || y >= grid.height || left >= right) {
        clear(bounds.left, bounds.right);
        return;
    }
    clear(bounds.left, left);
    for (int x = left; x < right;) {
        int const column = x / grid.tileWidth;
        int const end = std::min(GetTileEnd(column, grid.tileWidth), right);
        if (source.IsTransparent(column, y / TileGrid::tileHeight)) {
            clear(x, end);
        } else {
            seek(x);
            job.premultiply(groups, source.GetRows(x, y).data(), sourceColours, static_cast<std::size_t>(end - x));
        }
        x = end;
    }
    clear(right, bounds.right);
}
}

void TransferTile(TransferJob const & job, TileTask const & task) {
    TileTransfer transfer(job, task);
    if (job.isDirect)
        transfer.RunDirect();
    else
        transfer.RunSampled();
}
}
