// How a block goes into a document and comes out of it.
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreCompressionHint.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "kernel/ScopedLock.h"
#include "storage/Block.h"
#include "storage/BlockPin.h"
#include "storage/WritersDeadline.h"

#include <chrono>
#include <thread>

namespace Raster {
namespace {
constexpr Kernel::IDTag dataRectTag("Rect"), inverseRectTag("IRct"), dataTag("Data");
constexpr int compressionLevel = 1; // tiles are many, and users wait for a save
}

Kernel::ClassProperties const & Block::GetClassProperties() {
    static Kernel::ClassProperties const properties("Blck", /*version=*/1,
                                                    [] { return Kernel::Counted<Kernel::Serialisable>(new Block); });
    return properties;
}

// Who saves has a reference to the block, so new sessions of its tile write into a copy: once those that are open now
// have ended, the bytes are those between two strokes, and stay. A session that never ends, say of this thread itself,
// must not hold up the save: the bytes are taken as they are then, and saved again the next time.
bool Block::WaitForWriters(Kernel::OutSerialiser const & serialiser) const {
    if (!HasMutableSession())
        return true;
    auto const * const ofBitmap = serialiser.GetStrategies().Find<WritersDeadline>();
    auto const end = ofBitmap ? ofBitmap->end : WritersDeadline().end;
    while (HasMutableSession()) {
        if (WritersDeadline::Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return true;
}

void Block::Save(Kernel::OutSerialiser & serialiser) const {
    bool const isQuiet = WaitForWriters(serialiser);
    ConstBlockPin const pin(*this);
    if (serialiser.IsFullSave() && isQuiet) {
        // Asking loads the bytes if the rect isn't known. What can't be loaded has no rect that is worth keeping.
        auto const dataRect = GetDataRect(), inverseRect = GetInverseDataRect();
        if (!IsPendingDelayLoad() || IsDataRectValid())
            serialiser.SaveType(dataRectTag, dataRect);
        if (!IsPendingDelayLoad() || IsInverseDataRectValid())
            serialiser.SaveType(inverseRectTag, inverseRect);
    }
    auto const holder = GetHolderForSave();
    if (!holder)
        return;
    auto const * const strategy = serialiser.GetStrategies().Find<Kernel::CompressionPredictorStrategy>();
    Kernel::FileStoreCompressionHintGeneral const hint(
        compressionLevel, strategy ? strategy->GetPredictor() : Kernel::CompressionPredictor::None,
        strategy ? strategy->GetStriping() : Kernel::CompressionStriping::None);
    serialiser.SaveDelayLoadObject(dataTag, holder.Get(), Kernel::FileStoreOutIndexedPathGenerator("", "d/"), &hint);
}

// The holder of what is to be saved, made now if there is none yet: null for an unallocated block.
//
// A holder of a document stands for what is stored there, and any number of blocks may have it: equal tiles are one
// item. So it is never what a save is given. A block that hasn't changed gives the stored item itself, whatever another
// block has done to the item that the holder keeps; one that has changed parts with the holder and has an item of its
// own.
Kernel::Counted<Kernel::DelayLoadHolder> Block::GetHolderForSave() const {
    Kernel::Counted<Kernel::DelayLoadHolder> present;
    Kernel::Counted<Data> held;
    {
        Kernel::ScopedLock const guard(bufferLock);
        present = Kernel::Counted<Kernel::DelayLoadHolder>(delayLoad.Get());
        held = Kernel::Counted<Data>(data.Get());
    }
    if (present) {
        // Not under `bufferLock`: another block that copies this one's item has the holder and waits for that lock.
        Kernel::ScopedLock const guard(*present);
        bool const isItsItem = present->GetItem().Get() == held.Get();
        bool const isStored = static_cast<bool>(present->GetSource());
        if (isStored && (!held || held->GetState().CanShare()))
            return Kernel::DelayLoadHolder::CreateFromSource(Data::GetItemType(), present->GetSource());
        if (!isStored && (!held || isItsItem))
            return present;
        if (isStored && isItsItem)
            present->AbandonItem();
    }
    if (!held)
        return nullptr;
    auto made = Kernel::DelayLoadHolder::Create(Data::GetItemType(), held);
    Kernel::ScopedLock const guard(bufferLock);
    if (delayLoad.Get() != present.Get()) // another save has been faster
        return Kernel::Counted<Kernel::DelayLoadHolder>(delayLoad.Get());
    delayLoad.Exchange(made);
    return made;
}

bool Block::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short) {
    Kernel::Counted<Kernel::DelayLoadHolder> holder;
    serialiser.LoadDelayLoadObject(dataTag, store, Data::GetItemType(), holder);
    if (!holder)
        return true;
    SetDelayLoad(holder);
    RectT<int> rect;
    if (serialiser.LoadType(dataRectTag, rect))
        SetLoadedRect(RectKind::Data, rect);
    if (serialiser.LoadType(inverseRectTag, rect))
        SetLoadedRect(RectKind::Inverse, rect);
    return true;
}

// A rect that no block can have is not known.
void Block::SetLoadedRect(RectKind kind, RectT<int> const & rect) {
    bool const isInside = rect.left >= 0 && rect.top >= 0 && rect.right <= Stride && rect.bottom <= Height;
    bool const isInOrder = rect.left <= rect.right && rect.top <= rect.bottom;
    if (!isInside || !isInOrder)
        return;
    Kernel::ScopedLock const guard(rectLock);
    rects[int(kind)] = {rect, version.load(std::memory_order_acquire)};
}
}
