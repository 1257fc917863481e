/// A backing as a document would give it: an item that is loaded when it is asked for.
#pragma once

#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreItem.h"

namespace Raster {
/// An item that holds nothing.
class TestItem : public Kernel::FileStoreItem {
public:
    void Save(Kernel::OutStream &, Kernel::FileStoreOut &) const override {}
    bool Load(Kernel::InStream &, Kernel::FileStore &) override { return true; }
    static Kernel::FileStoreItemType const & GetType() {
        static Kernel::FileStoreItemType const type(
            "Test", Kernel::ItemNesting::NotNestable, Kernel::ItemRecovery::NotRecoverable,
            [] { return Kernel::Counted<Kernel::FileStoreItem>(new TestItem); });
        return type;
    }
    Kernel::FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
};

struct TestHolder {
    static Kernel::Counted<Kernel::DelayLoadHolder> Create() {
        return Kernel::DelayLoadHolder::Create(TestItem::GetType(), Kernel::MakeCounted<TestItem>());
    }
};
}
