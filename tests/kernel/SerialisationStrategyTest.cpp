#include "kernel/SerialisationStrategy.h"
#include "kernel/HashAccumulator.h"
#include "kernel/Serialisable.h"
#include "kernel/SharedSerialisable.h"

#include <gtest/gtest.h>

using namespace Kernel;

namespace {
struct First final : SerialisationStrategy {
    explicit First(int givenNumber) : number(givenNumber) {}
    int number;
};
struct Second final : SerialisationStrategy {};

struct Thing final : Serialisable {
    static ClassPropertiesBase const & GetProperties() {
        static ClassProperties const properties("Thng", 3, [] { return Counted<Serialisable>(new Thing); });
        return properties;
    }
    void Save(OutSerialiser &) const override {}
    bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetProperties(); }
};

struct Shared final : SharedSerialisable {
    explicit Shared(int givenValue) : value(givenValue) {}
    static ClassPropertiesBase const & GetProperties() {
        static SharedClassProperties const properties("Shrd", 1, [] { return Counted<Serialisable>(new Shared(0)); });
        return properties;
    }
    void Save(OutSerialiser &) const override {}
    bool Load(InSerialiser const &, FileStore &, unsigned short) override { return true; }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetProperties(); }
    void AccumulateHash(HashAccumulator & accumulator) const override { accumulator.AddToHash(value); }
    bool CompareMembers(Serialisable const & other) const override {
        return value == dynamic_cast<Shared const &>(other).value;
    }
    int value;
};
}

TEST(SharedSerialisable, IsConsolidatedByItsMembers) {
    auto const one = Consolidated<Shared>::ConsolidateObjectSacrifice(MakeCounted<Shared>(5));
    auto const equal = Consolidated<Shared>::ConsolidateObjectSacrifice(MakeCounted<Shared>(5));
    auto const other = Consolidated<Shared>::ConsolidateObjectSacrifice(MakeCounted<Shared>(6));
    EXPECT_EQ(one.Get(), equal.Get());
    EXPECT_NE(one.Get(), other.Get());
}

TEST(SerialisationStrategyStack, FindsTheTopmostOfAKind) {
    SerialisationStrategyStack stack;
    EXPECT_EQ(stack.Find<First>(), nullptr);
    stack.Push(MakeCounted<First>(1));
    stack.Push(MakeCounted<First>(2));
    EXPECT_EQ(stack.Find<Second>(), nullptr);
    stack.Push(MakeCounted<Second>());
    ASSERT_NE(stack.Find<First>(), nullptr);
    EXPECT_EQ(stack.Find<First>()->number, 2);
    stack.Pop();
    EXPECT_EQ(stack.Find<Second>(), nullptr);
    stack.Pop();
    EXPECT_EQ(stack.Find<First>()->number, 1);
    stack.Pop();
    stack.Pop(); // on an empty stack: nothing
    EXPECT_EQ(stack.GetCount(), 0u);
}

TEST(ClassProperties, NameAClassAndMakeItsObjects) {
    auto const thing = Thing::GetProperties().CreateObject();
    ASSERT_TRUE(thing);
    EXPECT_EQ(&thing->GetObjectClassProperties(), &Thing::GetProperties());
    EXPECT_EQ(Thing::GetProperties().GetClassUID(), ClassUID("Thng"));
    EXPECT_EQ(Thing::GetProperties().GetSchemaVersion(), 3);
}

TEST(Serialisable, ComparesEqualOnlyToItselfByDefault) {
    auto const one = MakeCounted<Thing>(), other = MakeCounted<Thing>();
    EXPECT_TRUE(one->CompareMembers(*one));
    EXPECT_FALSE(one->CompareMembers(*other));
}
