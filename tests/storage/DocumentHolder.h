/// A stand-in for an item of a document that holds the bytes of a tile.
#pragma once

#include "kernel/DelayLoadHolder.h"
#include "storage/Data.h"

#include <cstring>
#include <vector>

namespace Raster {
class DocumentHolder final : public Kernel::DelayLoadHolder {
public:
    explicit DocumentHolder(std::vector<unsigned char> stored)
        : DelayLoadHolder(Data::GetItemType()), content(stored) {}

    bool LoadItemI() override {
        if (IsLoaded())
            return true;
        ++loads;
        if (isBroken)
            return false;
        auto item = Kernel::MakeCounted<Data>();
        std::memcpy(item->GetBuffer(), content.data(), Data::ByteCount);
        item->GetState().MarkAsStored(item->GetState().GetDirtyGeneration());
        SetItem(std::move(item));
        return true;
    }

    bool isBroken = false;
    int loads = 0;

protected:
    bool CanReload() const override { return true; }

private:
    std::vector<unsigned char> const content;
};
}
