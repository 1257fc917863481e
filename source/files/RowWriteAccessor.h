/// How a file model is written: row by row from the top.
#pragma once

#include "pixel/Accessor.h"
#include "pixel/Pixel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>

namespace Raster {
/// The mutable accessor of a file model. There is one in a model's life. It opens the encoder when it is made; then for
/// each row from the top `SetToXY(0, y)`, and `Write` and `Increment` for each pixel. `SetToXY` with a y above 0
/// encodes the row that was held; rows can't be skipped and the number is not checked. Pixels outside the model are
/// ignored and rows below its last are dropped. `Finish` encodes the last row and completes the file.
///
/// Errors of codec and stream are thrown by the members; the destructor finishes if nobody has, and throws, too,
/// unless it runs because something else was thrown: then the file stays unfinished and the model has failed.
///
/// `Model` provides
/// - `void BeginEncoding()`, `void EncodeRow()` which takes the held row, and `void FinishEncoding()`, called once
///   after the last `EncodeRow`; all may throw;
/// - `void AbandonEncoding() noexcept`: the file stays unfinished, the model has failed;
/// - `void Put(int x, PixelType & pixel)`: stores into the held row; may change the pixel;
/// - `void PutRow(int x, std::size_t count, void const * const * rows)`: the same for a run of samples per channel.
template<class Model>
class RowWriteAccessor {
public:
    using Tuple = typename Model::Tuple;
    using PixelType = PixelOf<Tuple>;

    explicit RowWriteAccessor(Model * writeModel, AllChannels::Params * channels = nullptr, bool nonPipeline = false)
        : model(*writeModel) {
        static_cast<void>(channels);
        static_cast<void>(nonPipeline);
        model.BeginEncoding();
    }
    RowWriteAccessor(RowWriteAccessor const &) = delete;
    RowWriteAccessor & operator=(RowWriteAccessor const &) = delete;
    ~RowWriteAccessor() noexcept(false) {
        if (isFinished)
            return;
        if (std::uncaught_exceptions() > exceptionsBefore)
            model.AbandonEncoding();
        else
            Finish();
    }

    void SetToXY(int newX, int newY) {
        if (newY > 0)
            EncodeHeldRow();
        x = newX;
        y = newY;
    }
    void Write(PixelType & pixel) {
        if (x >= 0 && x < model.GetWidth() && y >= 0 && y < model.GetHeight())
            model.Put(static_cast<int>(x), pixel);
    }
    void Increment() { ++x; }

    /// Stores a run of samples, one row for each channel, from the position to the right, which ends just past them.
    /// What does not fit the row is ignored.
    void WriteRow(std::size_t count, void const * const * rows) {
        if (x >= 0 && y >= 0 && y < model.GetHeight() && x < model.GetWidth())
            model.PutRow(static_cast<int>(x), std::min(count, static_cast<std::size_t>(model.GetWidth() - x)), rows);
        x += static_cast<std::int64_t>(count);
    }

    /// Encodes the last row and completes the file. Throws what codec or stream throw; the model has failed then.
    void Finish() {
        isFinished = true;
        try {
            EncodeHeldRow();
            model.FinishEncoding();
        } catch (...) {
            model.AbandonEncoding();
            throw;
        }
    }
    /// Leaves the file unfinished, as after an abort.
    void Abandon() noexcept {
        isFinished = true;
        model.AbandonEncoding();
    }

    // A row goes one way only.
    void Read(PixelType &) {}
    void Advance(int) {}
    void Flush() {}
    void IncrementRow() {}
    void Rewind(int) {}
    void RewindRow(int) {}

private:
    void EncodeHeldRow() {
        if (encodedRows >= model.GetHeight())
            return;
        ++encodedRows;
        model.EncodeRow();
    }

    Model & model;
    std::int64_t x = 0; // so that no walk overflows
    int y = 0;
    int encodedRows = 0;
    bool isFinished = false;
    int const exceptionsBefore = std::uncaught_exceptions();
};
}
