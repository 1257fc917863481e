#include "kernel/DelayLoadHolder.h"
#include "kernel/ScopedLock.h"
#include "kernel/TraceCapture.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace Kernel;

namespace {
class Item final : public FileStoreItem {
public:
    static FileStoreItemType const & GetType() {
        static FileStoreItemType const type("Test", ItemNesting::NotNestable, ItemRecovery::Recoverable,
                                            [] { return Counted<FileStoreItem>(new Item); });
        return type;
    }
    void Save(OutStream &, FileStoreOut &) const override {}
    bool Load(InStream &, FileStore &) override { return true; }
    FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
};

/// Of an item that stays once it is loaded.
FileStoreItemType const & GetLastingType() {
    static FileStoreItemType const type("Last", ItemNesting::NotNestable, ItemRecovery::NotRecoverable,
                                        [] { return Counted<FileStoreItem>(new Item); });
    return type;
}

/// A holder whose store fails as often as it is told.
class StoredHolder final : public DelayLoadHolder {
public:
    explicit StoredHolder(int failureCount = 0, FileStoreItemType const & type = GetLastingType())
        : DelayLoadHolder(type), failuresLeft(failureCount) {}

    bool LoadItemI() override {
        if (GetItem())
            return true;
        ++loads; // guarded by the holder's lock: a report of the thread sanitizer shows if it isn't
        if (failuresLeft-- > 0)
            return false;
        auto item = GetItemType().CreateObject();
        item->GetState().MarkAsStored(item->GetState().GetDirtyGeneration());
        SetItem(item);
        return true;
    }
    bool CanReload() const override { return true; }

    int loads = 0;
    int failuresLeft;
};
}

TEST(FileStoreItemType, MakesItemsOfItsKind) {
    auto const item = Item::GetType().CreateObject();
    ASSERT_TRUE(item);
    EXPECT_EQ(&item->GetObjectFileStoreItemType(), &Item::GetType());
    EXPECT_EQ(Item::GetType().GetTag(), IDTag("Test"));
    EXPECT_FALSE(Item::GetType().IsNestable());
    EXPECT_TRUE(Item::GetType().IsRecoverable());
}

TEST(DelayLoadHolder, CreatedAroundAnItemIsLoadedAndNeverDropsIt) {
    Counted<FileStoreItem> const item = MakeCounted<Item>();
    auto const holder = DelayLoadHolder::Create(Item::GetType(), item);
    EXPECT_TRUE(holder->IsLoaded());
    ScopedLock const lock(*holder);
    EXPECT_TRUE(holder->LoadItemI());
    EXPECT_EQ(holder->GetItem(), item);
    item->GetState().MarkAsStored(item->GetState().GetDirtyGeneration());
    EXPECT_FALSE(holder->DropItem()) << "nothing could bring it back";
}

TEST(DelayLoadHolder, WithNothingToLoadStaysUnloaded) {
    auto const holder = DelayLoadHolder::Create(Item::GetType(), nullptr);
    EXPECT_FALSE(holder->IsLoaded());
    DelayLoadHolder::TempLoadItem const temp(holder);
    EXPECT_EQ(temp.GetItem(), nullptr);
}

TEST(DelayLoadHolder, LoadsOnceForAllThreads) {
    auto const holder = MakeCounted<StoredHolder>();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            DelayLoadHolder::TempLoadItem const temp(holder.Get());
            EXPECT_NE(temp.GetItemAs<Item>(), nullptr);
            EXPECT_TRUE(holder->IsLoaded());
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(holder->loads, 1);
}

TEST(DelayLoadHolder, TriesAgainAfterAFailure) {
    auto const holder = MakeCounted<StoredHolder>(2);
    for (bool const expected : {false, false, true, true}) {
        DelayLoadHolder::TempLoadItem const temp(holder.Get());
        EXPECT_EQ(temp.GetItem() != nullptr, expected);
        EXPECT_EQ(holder->IsLoaded(), expected);
    }
    EXPECT_EQ(holder->loads, 3);
}

TEST(DelayLoadHolder, DropsOnlyWhatTheStoreStillHas) {
    auto const holder = MakeCounted<StoredHolder>();
    DelayLoadHolder::TempLoadItem const temp(holder.Get());
    {
        ScopedLock const lock(*holder);
        EXPECT_TRUE(holder->DropItem());
        EXPECT_FALSE(holder->IsLoaded());
        EXPECT_TRUE(holder->DropItem()) << "again: nothing";
    }
    EXPECT_NE(temp.GetItem(), nullptr) << "a temporary reference keeps the item alive";
    DelayLoadHolder::TempLoadItem const second(holder.Get());
    second.GetItem()->GetState().MarkAsDirty();
    ScopedLock const lock(*holder);
    EXPECT_FALSE(holder->DropItem()) << "a changed item would be lost";
    EXPECT_TRUE(holder->IsLoaded());
}

TEST(DelayLoadHolder, LetsGoOfARecoverableItemAfterAScope) {
    auto const holder = MakeCounted<StoredHolder>(0, Item::GetType());
    Counted<FileStoreItem> kept;
    {
        DelayLoadHolder::TempLoadItem const temp(holder.Get());
        EXPECT_TRUE(holder->IsLoaded());
    }
    EXPECT_FALSE(holder->IsLoaded());
    {
        DelayLoadHolder::TempLoadItem const temp(holder.Get());
        kept = temp.GetItem();
    }
    EXPECT_TRUE(holder->IsLoaded()) << "somebody else uses it";
    {
        DelayLoadHolder::TempLoadItem const temp(holder.Get());
        kept.Reset();
        temp.GetItem()->GetState().MarkAsDirty();
    }
    EXPECT_TRUE(holder->IsLoaded()) << "a changed item would be lost";
}

TEST(DelayLoadHolder, LoadsTheStoredItemBesideAChangedOne) {
    auto const holder = MakeCounted<StoredHolder>();
    ScopedLock const lock(*holder);
    ASSERT_TRUE(holder->LoadItemI());
    auto const kept = holder->GetItem();
    kept->GetState().MarkAsDirty();
    auto const stored = holder->LoadStoredItem();
    ASSERT_TRUE(stored);
    EXPECT_NE(stored, kept);
    EXPECT_TRUE(stored->GetState().CanShare());
    EXPECT_EQ(holder->GetItem(), kept);
    holder->failuresLeft = 1;
    EXPECT_FALSE(holder->LoadStoredItem());
    EXPECT_EQ(holder->GetItem(), kept) << "also when the store fails";
    EXPECT_TRUE(holder->IsLoaded());
}

TEST(DelayLoadHolder, AbandonsWhatIsStoredAlsoIfItHasChanged) {
    auto const holder = MakeCounted<StoredHolder>();
    ScopedLock lock(*holder);
    ASSERT_TRUE(holder->LoadItemI());
    auto const changed = holder->GetItem();
    changed->GetState().MarkAsDirty();
    EXPECT_TRUE(holder->AbandonItem());
    EXPECT_FALSE(holder->IsLoaded());
    ASSERT_TRUE(holder->LoadItemI());
    EXPECT_NE(holder->GetItem(), changed);
    lock.Release();
    auto const onlyHere = DelayLoadHolder::Create(Item::GetType(), MakeCounted<Item>());
    ScopedLock const another(*onlyHere);
    EXPECT_FALSE(onlyHere->AbandonItem());
    EXPECT_TRUE(onlyHere->IsLoaded());
}

TEST(DelayLoadHolder, HasNoStoredItemWithoutAStore) {
    auto const holder = DelayLoadHolder::Create(Item::GetType(), MakeCounted<Item>());
    ScopedLock const lock(*holder);
    EXPECT_FALSE(holder->LoadStoredItem());
    EXPECT_TRUE(holder->IsLoaded());
}

TEST(DelayLoadHolder, GivesNoItemForANullHolder) {
    DelayLoadHolder::TempLoadItem const temp(Counted<DelayLoadHolder>{});
    EXPECT_EQ(temp.GetItem(), nullptr);
}

TEST(DelayLoadHolder, HoldsNoLockWhileATemporaryItemIsInUse) {
    auto const holder = MakeCounted<StoredHolder>();
    DelayLoadHolder::TempLoadItem const temp(holder.Get());
    EXPECT_EQ(LockOrder::GetHeldCount(), 0u);
}

TEST(FileStoreItemType, IsKnownByItsTagOnceItWasInitialised) {
    static FileStoreItemType const type("Knwn", ItemNesting::Nestable, ItemRecovery::Recoverable, nullptr);
    static FileStoreItemType const other("Knwn", ItemNesting::NotNestable, ItemRecovery::NotRecoverable, nullptr);
    Raster::TraceCapture trace;
    EXPECT_EQ(FileStoreItemType::Find("Knwn"), nullptr);
    type.Init();
    type.Init();
    EXPECT_EQ(FileStoreItemType::Find("Knwn"), &type);
    EXPECT_TRUE(trace.Take().empty());
    other.Init();
    EXPECT_EQ(FileStoreItemType::Find("Knwn"), &type);
    EXPECT_EQ(trace.Take().size(), 1u);
}
