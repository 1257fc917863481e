/// Accessors: what pixel code touches. A model supplies a cursor; position, edge policy, transform, steps and spans are
/// here, once for every model.
#pragma once

#include "kernel/Rect.h"
#include "pixel/Extend.h"
#include "pixel/Pixel.h"
#include "pixel/SafeRect.h"
#include "pixel/Span.h"
#include "pixel/Transform.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Raster {
// A cursor is the part of an accessor that knows how its model keeps pixels. The coordinates that reach it always lie
// inside the model. The constructor, and `Read` or `Write` or both, have to be there; the rest is optional, and what
// is absent costs nothing. None of it is virtual.
//
//   Cursor(Model const *, bool * abort, bool nonPipeline)     of a const accessor
//   Cursor(Model *, bool nonPipeline)                         of a mutable accessor
//   void Read(int x, int y, Pixel &)
//   void Write(int x, int y, Pixel const &)
//   RectT<int> Seek(int x, int y)               goes to where (x, y) is kept (pins its tile) and answers the rectangle
//                                               around it in which pixels may be asked for until the next `Seek` or
//                                               `Reset`; the accessor clips it to the model. Without it that is the
//                                               whole model.
//   void ReadSpan(int x, int y, Span &)         for each shape on its own: 32 pixels to the right, all of them within
//   void WriteSpan(int x, int y, Span const &)  that rectangle
//   std::size_t GetRow(int left, int y)         a number by which the cursor finds a row of that rectangle again, from
//                                               x = left on
//   void ReadInRow(std::size_t row, std::size_t column, Pixel &)         `Read` at (left + column, y), and
//   void WriteInRow(std::size_t row, std::size_t column, Pixel const &)  `Write`: what walks along a row do fast
//   RectT<int> GetBounds()                      where the pixels are, if not (0, 0, width, height): empty if a decoder
//                                               failed and there is nothing to read
//   void Reset()                                lets go of what is pinned; a `Seek` comes before anything else
//   void Flush()                                passes on what was written so far

template<class Cursor, class Tuple>
concept ReadableCursor = requires(Cursor & cursor, PixelOf<Tuple> & pixel) {
    cursor.Read(0, 0, pixel);
};

/// The bounds of a model whose pixels are computed: every coordinate but the very last.
inline constexpr Kernel::RectT<int> unboundedRect{std::numeric_limits<int>::min(), std::numeric_limits<int>::min(),
                                                  std::numeric_limits<int>::max(), std::numeric_limits<int>::max()};

/// What const and mutable accessors have in common. An accessor belongs to one thread, lives on the stack, and must
/// not outlive its model nor an operation that replaces the model's memory. Coordinates raise nothing and overflow
/// nothing: positions are 64-bit, so a walk may leave the range of `int` and come back.
///
/// A position is resolved while it lies in the window, the rectangle that the cursor sought last. Steps only move the
/// position; the next read or write of an unresolved one seeks. A step and a read together are one increment and one
/// comparison: x is kept as the column of the window, and `reach` is the window's width, or 0 while y lies above or
/// below it.
template<class Tuple, class Cursor, class Extend, class Transform>
class AccessorCore {
public:
    using PixelType = PixelOf<Tuple>;
    using FloatPixelType = FloatPixelOf<Tuple>;
    using InterleavedSpan = InterleavedPixelSpanOf<Tuple>;
    using PlanarSpan = PlanarPixelSpanOf<Tuple>;

    AccessorCore(AccessorCore const &) = delete;
    AccessorCore & operator=(AccessorCore const &) = delete;

    void SetToXY(int newX, int newY) {
        SetX(newX);
        MoveToRow(newY);
    }
    void Increment() { ++column; }
    void Decrement() { --column; }
    void IncrementRow() {
        ++y;
        if (reach != 0)
            EnterRow();
    }
    void DecrementRow() {
        --y;
        if (reach != 0)
            EnterRow();
    }
    /// `n` steps to the right at once; a negative number goes left. `Rewind` is the opposite.
    void Advance(int n) { column += n; }
    void Rewind(int n) { column -= n; }
    /// `n` steps down at once; a negative number goes up. `RewindRow` is the opposite.
    void AdvanceRow(int n) { MoveToRow(y + n); }
    void RewindRow(int n) { MoveToRow(y - n); }

    // Moving touches no pixels, so there is nothing that the unsafe forms could leave out.
    void UnsafeSetToXY(int newX, int newY) { SetToXY(newX, newY); }
    void UnsafeIncrement() { Increment(); }
    void UnsafeDecrement() { Decrement(); }
    void UnsafeIncrementRow() { IncrementRow(); }
    void UnsafeDecrementRow() { DecrementRow(); }

    /// The pixel at the position, by the edge policy and the transform. The position does not move.
    void Read(PixelType & pixel) requires ReadableCursor<Cursor, Tuple> {
        if (!IsResolved()) [[unlikely]]
            pixel = ReadUnresolved(); // a value: the caller's pixel may stay in a register
        else if constexpr (requires { cursor.ReadInRow(row, std::size_t(), pixel); })
            cursor.ReadInRow(row, static_cast<std::size_t>(column), pixel);
        else
            cursor.Read(GetX(), GetY(), pixel);
    }

    /// `Read`, each channel then as a float that is not scaled.
    void ReadFloat(FloatPixelType & pixel) requires ReadableCursor<Cursor, Tuple> &&
        (Tuple::sampleType != SampleType::ComplexFloat) {
        PixelType raw;
        Read(raw);
        for (int channel = 0; channel < Tuple::channelCount; ++channel)
            pixel.channels[channel] = SampleToFloat(raw.channels[channel]);
    }

    /// Reads 32 pixels to the right. The position ends on the last of them, 31 on.
    void SpanRead(InterleavedSpan & span) requires ReadableCursor<Cursor, Tuple> {
        if (ResolveRun()) [[likely]] {
            ReadRun(span);
            column += spanLength - 1;
        } else
            ReadPixelByPixel(span, &AccessorCore::Increment);
    }
    void SpanRead(PlanarSpan & span) requires ReadableCursor<Cursor, Tuple> {
        if constexpr (requires { cursor.ReadSpan(0, 0, span); }) {
            if (ResolveRun()) [[likely]] {
                cursor.ReadSpan(GetX(), GetY(), span);
                column += spanLength - 1;
                return;
            }
        }
        InterleavedSpan pixels;
        SpanRead(pixels);
        Deinterleave(pixels, span);
    }

    /// Reads 32 pixels downward. The position ends on the last of them, 31 below.
    void SpanReadColumn(InterleavedSpan & span) requires ReadableCursor<Cursor, Tuple> {
        ReadPixelByPixel(span, &AccessorCore::IncrementRow);
    }
    void SpanReadColumn(PlanarSpan & span) requires ReadableCursor<Cursor, Tuple> {
        InterleavedSpan pixels;
        SpanReadColumn(pixels);
        Deinterleave(pixels, span);
    }

    /// The positions whose pixels are the model's own, which `Safe` may read: the model's rectangle seen through the
    /// transform. The zero rectangle if there are none.
    Kernel::RectT<int> GetSafeRect() const {
        if constexpr (isIdentity)
            return bounds.IsEmpty() ? Kernel::RectT<int>{} : bounds;
        else
            return FindSafeRect(
                bounds, [this](double centre) { return Transform::MapX(transform, centre); },
                [this](double centre) { return Transform::MapY(transform, centre); });
    }

    /// Lets go of everything that is pinned. The position stays; the next read or write resolves it anew.
    void Reset() {
        if constexpr (requires { cursor.Reset(); })
            cursor.Reset();
        SetWindow({});
    }

protected:
    static constexpr bool isIdentity = std::same_as<Transform, IdentityTransform>;

    template<class Model, class... Arguments>
    AccessorCore(Model * model, typename Transform::Params const * given, Arguments... arguments)
        : cursor(model, arguments...), bounds(BoundsOf(*model, cursor)) {
        if (given)
            transform = *given;
    }
    ~AccessorCore() = default;

    /// Whether the cursor may be asked for the pixel at the position as things stand.
    bool IsResolved() const {
        if constexpr (isIdentity)
            return static_cast<std::uint64_t>(column) < reach;
        else
            return false;
    }

    /// The pixel of the model that the position stands for, the cursor being made ready to answer for it.
    /// @return false if there is none: the position reads as zeros.
    bool Resolve(int & modelX, int & modelY) {
        if (!Locate(modelX, modelY))
            return false;
        if (!window.Contains(modelX, modelY))
            SeekWindow(modelX, modelY);
        EnterRow();
        return true;
    }

    /// Whether 32 pixels from the position to the right lie in one window, the cursor being there.
    bool ResolveRun() {
        if constexpr (isIdentity) {
            if (!IsResolved() && !ResolveHere())
                return false;
            return static_cast<std::uint64_t>(column) + (spanLength - 1) < reach;
        } else
            return false;
    }

    // Of a position that is resolved, so that both lie in the model.
    int GetX() const { return static_cast<int>(window.left + column); }
    int GetY() const { return static_cast<int>(y); }

    Cursor cursor;
    std::int64_t column = 0; ///< x of the position, counted from the left edge of the window
    std::size_t row = 0;     ///< what the cursor calls the row of the position, if that is resolved

private:
    template<class Model>
    static Kernel::RectT<int> BoundsOf(Model const & model, Cursor & cursor) {
        if constexpr (requires { cursor.GetBounds(); })
            return cursor.GetBounds();
        else if constexpr (Model::isUnbounded)
            return unboundedRect;
        else
            return {0, 0, model.GetWidth(0), model.GetHeight(0)};
    }

    void SetX(std::int64_t newX) { column = newX - window.left; }

    void MoveToRow(std::int64_t newY) {
        y = newY;
        EnterRow();
    }

    /// Finds out if the window has the row of the position, and where.
    void EnterRow() {
        bool const isInside = y >= window.top && y < window.bottom;
        reach = isInside ? static_cast<std::uint64_t>(std::int64_t(window.right) - window.left) : 0;
        if constexpr (requires { cursor.GetRow(0, 0); })
            if (isInside)
                row = cursor.GetRow(window.left, GetY());
    }

    void SetWindow(Kernel::RectT<int> const & newWindow) {
        column += std::int64_t(window.left) - newWindow.left;
        window = newWindow;
        reach = 0;
    }

    bool Locate(int & modelX, int & modelY) const {
        std::int64_t const x = window.left + column;
        if constexpr (isIdentity)
            return Extend::Resolve(x, bounds.left, bounds.right, modelX) &
                   Extend::Resolve(y, bounds.top, bounds.bottom, modelY);
        else
            return Extend::Resolve(Transform::MapX(transform, CentreOf(x)), bounds.left, bounds.right, modelX) &
                   Extend::Resolve(Transform::MapY(transform, CentreOf(y)), bounds.top, bounds.bottom, modelY);
    }

    void SeekWindow(int modelX, int modelY) {
        SetWindow({}); // the old one is gone before `Seek` can throw
        if constexpr (requires { cursor.Seek(modelX, modelY); })
            SetWindow(cursor.Seek(modelX, modelY).Intersect(bounds));
        else
            SetWindow(bounds);
    }

    /// Resolves a position that lies in the model itself; an edge policy's stand-in does not count.
    [[gnu::noinline]] bool ResolveHere() {
        int modelX = 0, modelY = 0;
        return Resolve(modelX, modelY) && IsResolved();
    }

    [[gnu::noinline]] PixelType ReadUnresolved() requires ReadableCursor<Cursor, Tuple> {
        PixelType pixel{};
        int modelX = 0, modelY = 0;
        if (Resolve(modelX, modelY))
            cursor.Read(modelX, modelY, pixel);
        return pixel;
    }

    void ReadRun(InterleavedSpan & span) requires ReadableCursor<Cursor, Tuple> {
        if constexpr (requires { cursor.ReadSpan(0, 0, span); })
            cursor.ReadSpan(GetX(), GetY(), span);
        else
            for (int i = 0; i < spanLength; ++i)
                cursor.Read(GetX() + i, GetY(), span.pixels[i]);
    }

    // One copy for rows and columns: this is for where a span can't be had in one piece, and code size counts more.
    [[gnu::noinline]] void ReadPixelByPixel(InterleavedSpan & span,
                                            void (AccessorCore::*step)()) requires ReadableCursor<Cursor, Tuple> {
        for (int i = 0; i < spanLength - 1; ++i, (this->*step)())
            Read(span.pixels[i]);
        Read(span.pixels[spanLength - 1]);
    }

    std::uint64_t reach = 0;
    std::int64_t y = 0;
    Kernel::RectT<int> window; ///< where the cursor may be asked without seeking
    Kernel::RectT<int> const bounds;
    [[no_unique_address]] typename Transform::Params transform;
};

/// Reads a model. `Extend` says what is read outside it, `Transform` which pixel a position stands for.
template<class Model, class Extend, class Transform>
class ModelConstAccessor : public AccessorCore<typename Model::Tuple, typename Model::ConstCursor, Extend, Transform> {
    using Core = AccessorCore<typename Model::Tuple, typename Model::ConstCursor, Extend, Transform>;

public:
    using Params = typename Transform::Params;

    /// @param params  copied; null stands for the transform that changes nothing.
    /// @param abort  null, or a flag that stops a model which decodes its pixels now, at the next row.
    /// @param nonPipeline  a hint to the model that this reader is no part of a transfer.
    explicit ModelConstAccessor(Model const * model, Params const * params = nullptr, bool * abort = nullptr,
                                bool nonPipeline = false)
        : Core(model, params, abort, nonPipeline) {}
};

/// The selection of channels that a mutable accessor works on: all of them.
struct AllChannels {
    struct Params {};
};

/// Reads and writes a model, each position being a pixel of it. Outside the model reads give zeros and writes go
/// nowhere. Two on one model must keep to disjoint tiles, or rows where the model has no tiles.
template<class Model>
class ModelAccessor : public AccessorCore<typename Model::Tuple, typename Model::Cursor, Zero, IdentityTransform> {
    using Core = AccessorCore<typename Model::Tuple, typename Model::Cursor, Zero, IdentityTransform>;

public:
    using typename Core::InterleavedSpan;
    using typename Core::PixelType;
    using typename Core::PlanarSpan;

    /// @param channels  may be null.
    explicit ModelAccessor(Model * model, AllChannels::Params * channels = nullptr, bool nonPipeline = false)
        : Core(model, nullptr, nonPipeline) {
        static_cast<void>(channels);
    }

    /// The position does not move.
    void Write(PixelType const & pixel) {
        if (!this->IsResolved()) [[unlikely]]
            WriteUnresolved(pixel);
        else if constexpr (requires { cursor.WriteInRow(row, std::size_t(), pixel); })
            cursor.WriteInRow(row, static_cast<std::size_t>(column), pixel);
        else
            cursor.Write(this->GetX(), this->GetY(), pixel);
    }

    /// Writes 32 pixels to the right. The position ends on the last of them, 31 on.
    void SpanWrite(InterleavedSpan const & span) {
        if (this->ResolveRun()) [[likely]] {
            WriteRun(span);
            column += spanLength - 1;
        } else
            WritePixelByPixel(span, &ModelAccessor::Increment);
    }
    void SpanWrite(PlanarSpan const & span) {
        if constexpr (requires { cursor.WriteSpan(0, 0, span); }) {
            if (this->ResolveRun()) [[likely]] {
                cursor.WriteSpan(this->GetX(), this->GetY(), span);
                column += spanLength - 1;
                return;
            }
        }
        InterleavedSpan pixels;
        Interleave(span, pixels);
        SpanWrite(pixels);
    }

    /// Writes 32 pixels downward. The position ends on the last of them, 31 below.
    void SpanWriteColumn(InterleavedSpan const & span) { WritePixelByPixel(span, &ModelAccessor::IncrementRow); }
    void SpanWriteColumn(PlanarSpan const & span) {
        InterleavedSpan pixels;
        Interleave(span, pixels);
        SpanWriteColumn(pixels);
    }

    /// Makes a model that passes on what it is given (a file writer) do so now. Others have nothing to do.
    void Flush() {
        if constexpr (requires { cursor.Flush(); })
            cursor.Flush();
    }

private:
    /// Takes a value, so that the caller's pixel may stay in a register.
    [[gnu::noinline]] void WriteUnresolved(PixelType pixel) {
        int modelX = 0, modelY = 0;
        if (this->Resolve(modelX, modelY))
            cursor.Write(modelX, modelY, pixel);
    }

    void WriteRun(InterleavedSpan const & span) {
        if constexpr (requires { cursor.WriteSpan(0, 0, span); })
            cursor.WriteSpan(this->GetX(), this->GetY(), span);
        else
            for (int i = 0; i < spanLength; ++i)
                cursor.Write(this->GetX() + i, this->GetY(), span.pixels[i]);
    }

    [[gnu::noinline]] void WritePixelByPixel(InterleavedSpan const & span, void (Core::*step)()) {
        for (int i = 0; i < spanLength - 1; ++i, (this->*step)())
            Write(span.pixels[i]);
        Write(span.pixels[spanLength - 1]);
    }

    using Core::column;
    using Core::cursor;
    using Core::row;
};
}
