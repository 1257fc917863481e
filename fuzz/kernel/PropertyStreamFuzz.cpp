// Reads a stream of properties of every kind. What comes out is written and must read the same again.
#include "FuzzTarget.h"
#include "kernel/Everything.h"

#include "kernel/FileStoreOut.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"

#include <map>

using namespace Kernel;
using Fuzz::Everything;
using Fuzz::Expect;

namespace {
using Bytes = std::vector<std::uint8_t>;

Counted<InSerialiserFile const> Parse(Bytes const & bytes, FileStore & store, bool acceptFuture, int depth = 0) {
    auto const stream = MakeCounted<MemoryInStream>(bytes.data(), bytes.size());
    return InSerialiserFile::ParseWithChecks(*stream, store, acceptFuture, 1, depth);
}

/// A store in which the stream itself is what every shared object reads from, so that it may refer to itself.
class SelfStore final : public FileStore {
public:
    explicit SelfStore(Bytes const & streamBytes) : bytes(streamBytes) {}

    Counted<DelayLoadHolder> GetHolder(ItemID id, FileStoreItemType const & type) override {
        Expect(&type == &Fuzz::Blob::GetType());
        auto & holder = holders[id];
        if (!holder)
            holder = DelayLoadHolder::Create(type, MakeCounted<Fuzz::Blob>());
        return holder;
    }
    Counted<SharedSerialisable> LoadSharedObject(ItemID id, int depth) override {
        auto const [place, isNew] = shared.try_emplace(id);
        if (!isNew)
            return place->second; // null while it is being loaded
        Counted<SharedSerialisable> object;
        if (id.number % 2 == 0)
            object = MakeCounted<Everything>();
        else
            object = MakeCounted<Fuzz::Label>();
        try {
            auto const parsed = Parse(bytes, *this, false, depth);
            if (object->Load(*parsed, *this, parsed->GetRootVersion()))
                shared[id] = object;
        } catch (std::runtime_error const &) {
        }
        return shared[id];
    }

private:
    Bytes const & bytes;
    std::map<ItemID, Counted<DelayLoadHolder>> holders;
    std::map<ItemID, Counted<SharedSerialisable>> shared;
};

/// Numbers what it is given.
class NumberingStore final : public FileStoreOut {
public:
    ItemID StoreItem(DelayLoadHolder & holder, FileStoreOutPathGenerator const &,
                     FileStoreCompressionHint const *) override {
        return {1, 2 * items.emplace(&holder, items.size() + 1).first->second};
    }
    ItemID StoreSharedObject(SharedSerialisable const & object) override {
        bool const isLabel = dynamic_cast<Fuzz::Label const *>(&object);
        return {2, 2 * items.emplace(&object, items.size() + 1).first->second + (isLabel ? 1 : 0)};
    }

private:
    std::map<void const *, std::uint64_t> items;
};

Bytes Write(Everything const & object) {
    auto const stream = MakeCounted<MemoryOutStream>();
    auto const store = MakeCounted<NumberingStore>();
    OutSerialiserFile serialiser(*stream, *store, "Root", 1);
    object.Save(serialiser);
    serialiser.Close();
    return stream->TakeData();
}

// Whatever its points are, a curve stays within their range.
void ExpectWithinRange(Geometry::Spline const & curve) {
    for (double const x : {-1.0, 0.0, 0.3, 0.7, 1.0, 1e9}) {
        double const y = curve.Interpolate(x);
        Expect(y >= -1e9 && y <= 1e9);
    }
}

// Reads what can be read; nothing comes of a stream that has no good form.
Counted<Everything> Read(Bytes const & bytes, bool acceptFuture) {
    auto const store = MakeCounted<SelfStore>(bytes);
    auto object = MakeCounted<Everything>();
    try {
        auto const parsed = Parse(bytes, *store, acceptFuture);
        if (!object->Load(*parsed, *store, parsed->GetRootVersion()))
            object.Reset();
    } catch (PropertyStreamError const &) {
        object.Reset();
    } catch (FutureVersionException const &) {
        Expect(!acceptFuture);
        object.Reset();
    }
    return object;
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Everything::Register();
    Bytes const bytes(data, data + size);
    bool const isPresent = static_cast<bool>(Read(bytes, false));
    auto const object = Read(bytes, true);
    Expect(object || !isPresent);
    if (!object)
        return 0;
    for (auto const & child : object->children)
        if (auto const curve = DynamicCast<Geometry::Spline>(child))
            ExpectWithinRange(*curve);
    Bytes const written = Write(*object);
    auto const again = Read(written, false);
    Expect(again && Write(*again) == written);
    return 0;
}
