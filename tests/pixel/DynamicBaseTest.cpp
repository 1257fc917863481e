#include "pixel/DynamicBase.inl"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Raster {
namespace {
int liveModels = 0;

/// A typed object of any tuple that only knows its size. Reaches Countable virtually or not, to see both casts.
template<class Tuple>
struct PlainModel : Kernel::Countable {
    PlainModel(int w, int h, bool full = true) : width(w), height(h), hasContent(full) { ++liveModels; }
    ~PlainModel() override { --liveModels; }
    PlainModel * Clone() const { return new PlainModel(width, height, hasContent); }
    PlainModel * CloneEmpty() const { return new PlainModel(width, height, false); }
    int GetWidth(int) const { return width; }
    int GetHeight(int) const { return height; }
    int width, height;
    bool hasContent;
};
struct SomethingElse {
    virtual ~SomethingElse() = default;
    int padding = 7;
};
template<class Tuple>
struct VirtualModel : SomethingElse, virtual Kernel::Countable {
    VirtualModel(int w, int h, bool full = true) : width(w), height(h), hasContent(full) { ++liveModels; }
    ~VirtualModel() override { --liveModels; }
    VirtualModel * Clone() const { return new VirtualModel(width, height, hasContent); }
    VirtualModel * CloneEmpty() const { return new VirtualModel(width, height, false); }
    int GetWidth(int) const { return width; }
    int GetHeight(int) const { return height; }
    int width, height;
    bool hasContent;
};
/// A file: it can't be copied.
template<class Tuple>
struct FileModel : Kernel::Countable {
    FileModel(int w, int) : width(w) {}
    FileModel * Clone() const { return nullptr; }
    FileModel * CloneEmpty() const { throw std::runtime_error("no"); }
    int GetWidth(int) const { return width; }
    int GetHeight(int) const { return 1; }
    int width;
};

template<class Self>
struct Wrapper : DynamicBase<Self> {
    void Create(int width, int height, Format format) {
        auto made = VisitFormat(format, [&](auto tuple) -> Kernel::Counted<Kernel::Countable> {
            using Typed = typename Self::template TypedOf<decltype(tuple)>;
            if constexpr (std::is_void_v<Typed>)
                return nullptr;
            else
                return new Typed(width, height);
        });
        this->SetTyped(format, std::move(made));
    }
    void Forget(Format format) { this->SetFormatOnly(format); }
};

struct DynamicPlain : Wrapper<DynamicPlain>, Kernel::Countable {
    template<class Tuple>
    using TypedOf = PlainModel<Tuple>;
};
struct DynamicVirtual : Wrapper<DynamicVirtual>, virtual Kernel::Countable {
    template<class Tuple>
    using TypedOf = VirtualModel<Tuple>;
};
struct DynamicFileLike : Wrapper<DynamicFileLike>, Kernel::Countable {
    template<class Tuple>
    using TypedOf = std::conditional_t<std::is_same_v<Tuple, RGBA8Tuple>, FileModel<Tuple>, void>;
};

template<class T>
struct DynamicBaseOf : testing::Test {
    ~DynamicBaseOf() override { EXPECT_EQ(0, liveModels) << "every typed object is released"; }
};
using Wrappers = testing::Types<DynamicPlain, DynamicVirtual>;
TYPED_TEST_SUITE(DynamicBaseOf, Wrappers);

bool HasPixels(std::uint32_t value) { return value < 11 && value != 8; }
Format ToFormat(std::uint32_t value) { return static_cast<Format>(value); }

template<class T>
Kernel::Counted<T> Own(T * object) {
    return Kernel::Counted<T>(object);
}
}

TYPED_TEST(DynamicBaseOf, EmptyWrapperAnswersEverythingWithNothing) {
    TypeParam const empty;
    EXPECT_EQ(NoFormat, empty.GetFormat());
    EXPECT_EQ(NoFormat, empty.GetCompatibleMaskFormat());
    EXPECT_EQ(0, empty.GetWidth());
    EXPECT_EQ(0, empty.GetHeight());
    EXPECT_TRUE(empty.GetChannelInfo().empty());
    EXPECT_EQ(nullptr, empty.template GetTyped<RGBA8Tuple>());
    EXPECT_EQ(nullptr, empty.template GetTyped<RGBAFTuple>());
}

TYPED_TEST(DynamicBaseOf, CloneOfEmptyWrapperIsANewEmptyWrapper) {
    TypeParam const empty;
    for (auto const & clone : {Own(empty.Clone()), Own(empty.CloneEmpty())}) {
        ASSERT_TRUE(clone);
        EXPECT_NE(&empty, clone.Get());
        EXPECT_EQ(NoFormat, clone->GetFormat());
        EXPECT_EQ(0, clone->GetWidth());
        EXPECT_EQ(1u, clone->GetCount());
    }
}

TYPED_TEST(DynamicBaseOf, EveryOperationHasAnArmForEachFormatThatCarriesPixelsAndNoneForTheRest) {
    for (std::uint32_t value = 0; value <= 20; ++value) {
        TypeParam wrapper;
        wrapper.Create(30, 40, ToFormat(value));
        EXPECT_EQ(value, wrapper.GetFormat());
        EXPECT_EQ(HasPixels(value) ? 30 : 0, wrapper.GetWidth()) << value;
        EXPECT_EQ(HasPixels(value) ? 40 : 0, wrapper.GetHeight()) << value;
        EXPECT_EQ(HasPixels(value) ? 5u : 0u, wrapper.GetChannelInfo().size()) << value;
        EXPECT_EQ(GetCompatibleMaskFormat(ToFormat(value)), wrapper.GetCompatibleMaskFormat()) << value;

        auto const clone = Own(wrapper.Clone());
        auto const cloneEmpty = Own(wrapper.CloneEmpty());
        EXPECT_EQ(HasPixels(value) ? value : 8u, clone->GetFormat()) << value;
        EXPECT_EQ(HasPixels(value) ? value : 8u, cloneEmpty->GetFormat()) << value;
        EXPECT_EQ(HasPixels(value) ? 30 : 0, clone->GetWidth()) << value;
        EXPECT_EQ(HasPixels(value) ? 40 : 0, cloneEmpty->GetHeight()) << value;
        auto const hasContent = [](auto const & typed) { return typed.hasContent; };
        EXPECT_EQ(HasPixels(value), clone->Dispatch(hasContent)) << value;
        EXPECT_FALSE(cloneEmpty->Dispatch(hasContent)) << value;
    }
}

TYPED_TEST(DynamicBaseOf, DispatchReachesTheObjectOfTheFormatAndNoOther) {
    TypeParam wrapper;
    wrapper.Create(3, 4, IA16);
    auto * const typed = wrapper.template GetTyped<IA16Tuple>();
    ASSERT_NE(nullptr, typed);
    EXPECT_EQ(nullptr, wrapper.template GetTyped<RGBA8Tuple>());
    int calls = 0;
    wrapper.Dispatch([&](auto & reached) {
        ++calls;
        EXPECT_EQ(static_cast<void *>(typed), static_cast<void *>(&reached));
        EXPECT_FALSE(std::is_const_v<std::remove_reference_t<decltype(reached)>>);
    });
    std::as_const(wrapper).Dispatch([&](auto & reached) {
        ++calls;
        EXPECT_TRUE(std::is_const_v<std::remove_reference_t<decltype(reached)>>);
    });
    EXPECT_EQ(2, calls);
}

TYPED_TEST(DynamicBaseOf, CopiesShareTheTypedObjectAndClonesDoNot) {
    TypeParam first;
    first.Create(3, 4, RGBA8);
    auto * const typed = first.template GetTyped<RGBA8Tuple>();
    EXPECT_EQ(1u, typed->GetCount());
    {
        TypeParam const second(first);
        EXPECT_EQ(typed, second.template GetTyped<RGBA8Tuple>());
        EXPECT_EQ(2u, typed->GetCount());
        TypeParam third;
        third.Create(1, 1, A8);
        third = second;
        EXPECT_EQ(RGBA8, third.GetFormat());
        EXPECT_EQ(3u, typed->GetCount());
        EXPECT_EQ(1, liveModels); // what the third held before is gone
        auto const clone = Own(third.Clone());
        EXPECT_NE(typed, clone->template GetTyped<RGBA8Tuple>());
        EXPECT_EQ(3u, typed->GetCount());
    }
    EXPECT_EQ(1u, typed->GetCount());
    auto & self = first;
    first = self;
    EXPECT_EQ(1u, typed->GetCount());
    EXPECT_EQ(3, first.GetWidth());
}

TYPED_TEST(DynamicBaseOf, MovedFromWrapperIsEmpty) {
    TypeParam first;
    first.Create(3, 4, RGBA8);
    TypeParam second(std::move(first));
    EXPECT_EQ(NoFormat, first.GetFormat());
    EXPECT_EQ(0, first.GetWidth());
    EXPECT_EQ(3, second.GetWidth());
    TypeParam third;
    third.Create(9, 9, AF);
    third = std::move(second);
    EXPECT_EQ(1, liveModels);
    EXPECT_EQ(NoFormat, second.GetFormat());
    EXPECT_EQ(RGBA8, third.GetFormat());
    EXPECT_EQ(3, third.GetWidth());
}

TYPED_TEST(DynamicBaseOf, FormatWithoutAnArmHidesWhateverIsHeld) {
    TypeParam wrapper;
    wrapper.Create(3, 4, RGBA8);
    wrapper.Forget(NoFormat);
    EXPECT_EQ(0, wrapper.GetWidth());
    EXPECT_EQ(nullptr, wrapper.template GetTyped<RGBA8Tuple>());
    EXPECT_EQ(NoFormat, Own(wrapper.Clone())->GetFormat());
}

TYPED_TEST(DynamicBaseOf, HardwareSeamIsInert) {
    TypeParam wrapper;
    wrapper.Create(3, 4, RGBA8);
    Kernel::RectT<int> rect{1, 2, 3, 4};
    Kernel::Interlocked * interlocked = nullptr;
    Kernel::Semaphore * semaphore = nullptr;
    Kernel::Counted<Kernel::Countable const> held;
    bool abort = false;
    wrapper.FlushHardware();
    wrapper.SyncHardwareCache(&wrapper, &rect, true, &abort);
    wrapper.SyncHostCache(&rect, true, &abort);
    EXPECT_EQ(nullptr,
              wrapper.RetainHardwareBuffer(&wrapper, true, true, &rect, &interlocked, &semaphore, &held, &abort));
    EXPECT_EQ((Kernel::RectT<int>{1, 2, 3, 4}), rect);
    EXPECT_EQ(nullptr, interlocked);
    EXPECT_EQ(nullptr, semaphore);
    EXPECT_FALSE(held);
    EXPECT_FALSE(abort);
}

TEST(DynamicBase, ObjectThatCannotBeClonedGivesAFormatWithoutAnObject) {
    DynamicFileLike file;
    file.Create(5, 1, RGBA8);
    EXPECT_EQ(5, file.GetWidth());
    auto const clone = Own(file.Clone());
    EXPECT_EQ(RGBA8, clone->GetFormat());
    EXPECT_EQ(0, clone->GetWidth());
    EXPECT_EQ(5u, clone->GetChannelInfo().size());
}

TEST(DynamicBase, ExceptionOfTheTypedObjectPassesThroughClone) {
    DynamicFileLike file;
    file.Create(5, 1, RGBA8);
    EXPECT_THROW(file.CloneEmpty(), std::runtime_error);
    EXPECT_EQ(5, file.GetWidth());
}

TEST(DynamicBase, FormatThatAWrapperNeverHoldsHasNoObject) {
    DynamicFileLike file;
    file.Create(5, 1, A8);
    EXPECT_EQ(A8, file.GetFormat());
    EXPECT_EQ(0, file.GetWidth());
    EXPECT_EQ(5u, file.GetChannelInfo().size());
}
}
