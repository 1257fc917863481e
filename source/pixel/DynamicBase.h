/// The base of wrappers that hold one typed object of a format which is known at run time only.
#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/Rect.h"
#include "pixel/ChannelParams.h"
#include "pixel/ChannelTuple.h"
#include "pixel/FormatFunctions.h"

#include <type_traits>
#include <utility>
#include <vector>

namespace Kernel {
class Interlocked;
class Semaphore;
}

namespace Raster {
/// A `Format`, and a counted pointer to the typed object of that format. Copies share the object. A wrapper that was
/// never filled has `NoFormat` and no object, and answers everything with nothing.
///
/// T is the wrapper itself: `class DynamicThing : public DynamicBase<DynamicThing>, public Kernel::Countable`, default
/// constructible, with a public `template<class Tuple> using TypedOf` that names what it holds for each format: a model
/// under `Countable`, or void for a format that it never holds. Where `Countable` is reached along a second path,
/// through `Kernel::Serialisable` say, that path alone gives it to the wrapper. Instances are made by one file each,
/// which includes pixel/DynamicBase.inl.
///
/// Threads: a wrapper has no lock. Separate wrappers of one typed object may be used side by side as far as that object
/// allows.
template<class T>
class DynamicBase {
public:
    /// A new wrapper, of count 0, around a deep copy of the object; it is without a format if this one has no
    /// pixels. Where the object can't be copied, as a file, the result has the format and no object.
    T * Clone() const;
    /// The same with an object of the same size and no content.
    T * CloneEmpty() const;

    Format GetFormat() const noexcept { return heldFormat; }
    Format GetCompatibleMaskFormat() const noexcept { return Raster::GetCompatibleMaskFormat(heldFormat); }
    /// In pixels; 0 where there is no object.
    int GetWidth() const;
    int GetHeight() const;
    /// Five entries, one for each position of the format's tuple; none if there is no format.
    std::vector<ChannelParams> GetChannelInfo() const;

    // The seam for a graphics device. Nothing in the library supplies one; callers have to accept these answers.
    void FlushHardware() const {}
    void SyncHardwareCache(void *, Kernel::RectT<int> *, bool, bool *) const {}
    void SyncHostCache(Kernel::RectT<int> *, bool, bool *) const {}
    void * RetainHardwareBuffer(void *, bool, bool, Kernel::RectT<int> *, Kernel::Interlocked **, Kernel::Semaphore **,
                                Kernel::Counted<Kernel::Countable const> *, bool *) const {
        return nullptr;
    }

    /// The typed object, if it is one of this tuple; null otherwise. The wrapper keeps owning it.
    template<class Tuple>
    auto GetTyped() const noexcept {
        return GetTypedAs<typename T::template TypedOf<Tuple> const, Tuple>();
    }
    template<class Tuple>
    auto GetTyped() noexcept {
        return GetTypedAs<typename T::template TypedOf<Tuple>, Tuple>();
    }

    /// How every operation reaches the typed object: one switch on the format, then `function(typed)`. Without an
    /// object, and for formats without an arm, the result is what its type is by default.
    template<class Function>
    auto Dispatch(Function && function) const {
        using Result = decltype(function(std::declval<typename T::template TypedOf<RGBA8Tuple> const &>()));
        return DispatchTo<Result>(*this, function);
    }
    template<class Function>
    auto Dispatch(Function && function) {
        using Result = decltype(function(std::declval<typename T::template TypedOf<RGBA8Tuple> &>()));
        return DispatchTo<Result>(*this, function);
    }

protected:
    DynamicBase() noexcept = default;
    DynamicBase(DynamicBase const &) noexcept = default;
    DynamicBase & operator=(DynamicBase const &) noexcept = default;
    /// Leaves `other` without format and object.
    DynamicBase(DynamicBase && other) noexcept
        : heldFormat(std::exchange(other.heldFormat, NoFormat)), heldObject(std::move(other.heldObject)) {}
    DynamicBase & operator=(DynamicBase && other) noexcept {
        heldFormat = std::exchange(other.heldFormat, NoFormat);
        heldObject = std::move(other.heldObject);
        return *this;
    }
    ~DynamicBase() = default;

    /// Stores both together. `object` is null, or the typed object of `format`, which is made before this is called:
    /// a failure to make it leaves the wrapper as it was.
    void SetTyped(Format format, Kernel::Counted<Kernel::Countable> object) noexcept {
        heldFormat = format;
        heldObject = std::move(object);
    }
    /// For a format that has no object. The one from before stays held, out of reach.
    void SetFormatOnly(Format format) noexcept { heldFormat = format; }

private:
    template<class Typed, class Tuple>
    Typed * GetTypedAs() const noexcept {
        return heldFormat == formatOf<Tuple> && formatOf<Tuple> != NoFormat ? Cast<Typed>(heldObject.Get()) : nullptr;
    }

    // A static cast can't come down from a virtual base; then it is looked up, once an operation.
    template<class Typed>
    static Typed * Cast(Kernel::Countable * countable) noexcept {
        if constexpr (requires { static_cast<Typed *>(countable); })
            return static_cast<Typed *>(countable);
        else
            return dynamic_cast<Typed *>(countable);
    }

    template<class Result, class Self, class Function>
    static Result DispatchTo(Self & self, Function & function) {
        return VisitFormat(self.heldFormat, [&](auto tuple) -> Result {
            using Typed = typename T::template TypedOf<decltype(tuple)>;
            if constexpr (!std::is_void_v<Typed>)
                if (auto * const typed = self.template GetTyped<decltype(tuple)>())
                    return function(*typed);
            return Result();
        });
    }

    template<class Copy>
    T * CloneWith(Copy && copy) const;

    Format heldFormat = NoFormat;
    // The typed object of that format. After SetFormatOnly it is of another; the format has no arm then.
    Kernel::Counted<Kernel::Countable> heldObject;
};
}
