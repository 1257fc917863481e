/// The items that a stream of properties refers to, out of the bytes of a run:
///
///     size 4, the stream, then for each item: type 1, flags 1, codec 1, sample bytes 1, size 2, bytes
///
/// Items are numbered from 1.
#pragma once

#include "Input.h"

#include "colour/ICCProfile.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStore.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/ItemCodec.h"
#include "kernel/MemoryInStream.h"
#include "kernel/PropertyStream.h"
#include "storage/CompressedRasterData.h"
#include "storage/Data.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace Fuzz {
struct StoredItem {
    enum Type : std::uint8_t { Tile, File, Profile, typeCount };
    enum Flags : std::uint8_t { WholeTile = 1 }; ///< repeated to 65536 bytes

    std::uint8_t type = 0, flags = 0, codec = 0, sampleBytes = 0;
    Bytes stored;

    static StoredItem Take(Input & input) {
        StoredItem item;
        item.type = input.Take<std::uint8_t>() % typeCount;
        item.flags = input.Take<std::uint8_t>();
        item.codec = input.Take<std::uint8_t>();
        item.sampleBytes = input.Take<std::uint8_t>();
        item.stored = input.TakeBytes(input.Take<std::uint16_t>());
        return item;
    }
    void Put(Output & out) const {
        out.Put(type).Put(flags).Put(codec).Put(sampleBytes).Put(std::uint16_t(stored.size())).PutAll(stored);
    }

    std::optional<Bytes> Decode() const {
        if (flags & WholeTile) {
            Bytes raw(Raster::Data::ByteCount);
            for (std::size_t i = 0; !stored.empty() && i < raw.size(); ++i)
                raw[i] = stored[i % stored.size()];
            return raw;
        }
        bool const isCompressed = codec == 1;
        return Kernel::ItemCodec::Decode(static_cast<Kernel::ArchiveLayout::Codec>(codec), sampleBytes, stored,
                                         isCompressed && type == Tile ? Raster::Data::ByteCount : stored.size());
    }
};

/// A store of such items.
class BitmapStore final : public Kernel::FileStore {
public:
    explicit BitmapStore(Input & input) {
        while (!input.IsEmpty() && items.size() < 64)
            items.push_back(StoredItem::Take(input));
    }

    Kernel::Counted<Kernel::DelayLoadHolder> GetHolder(Kernel::ItemID id,
                                                       Kernel::FileStoreItemType const & type) override {
        auto const * const item = Find(id);
        bool const isTile = &type == &Raster::Data::GetItemType();
        if (!item || item->type != (isTile ? StoredItem::Tile : StoredItem::File))
            return {};
        auto & holder = holders[id];
        if (!holder)
            holder = Kernel::DelayLoadHolder::CreateFromSource(type, Kernel::MakeCounted<Source>(*item));
        return holder;
    }

    Kernel::Counted<Kernel::SharedSerialisable> LoadSharedObject(Kernel::ItemID id, int) override {
        auto const * const item = Find(id);
        if (!item || item->type != StoredItem::Profile)
            return {};
        auto const bytes = PutIntoProperty(item->stored);
        auto const stream = Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
        auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*stream, *this, false);
        auto profile =
            Kernel::DynamicCast<Kernel::SharedSerialisable>(Raster::ICCProfile::GetClassProperties().CreateObject());
        return profile->Load(*parsed, *this, 1) ? profile : nullptr;
    }

private:
    // A stream whose one property is the bytes of a profile.
    static Bytes PutIntoProperty(Bytes const & content) {
        using namespace Kernel::PropertyStream;
        constexpr std::size_t headerBytes = streamHeaderBytes + recordHeaderBytes;
        Bytes stream(headerBytes + content.size());
        WriteAt(stream.data(), magic);
        WriteAt(stream.data() + 4, version);
        auto * const record = stream.data() + streamHeaderBytes;
        WriteAt(record, Kernel::IDTag("Data").GetValue());
        WriteAt(record + 4, static_cast<std::uint32_t>(Kernel::PropType::RawData));
        WriteAt(record + 8, std::uint64_t(content.size()));
        std::copy(content.begin(), content.end(), stream.begin() + headerBytes);
        return stream;
    }

    class Source final : public Kernel::FileStoreItemSource {
    public:
        explicit Source(StoredItem storedItem) : item(std::move(storedItem)) {}
        Kernel::Counted<Kernel::FileStoreItem> LoadItem(Kernel::FileStoreItemType const & type,
                                                        std::string & why) const override {
            auto const raw = item.Decode();
            auto made = raw ? type.CreateObject() : nullptr;
            auto const none = Kernel::MakeCounted<Kernel::EmptyFileStore>();
            if (made && made->Load(*Kernel::MakeCounted<Kernel::MemoryInStream>(raw->data(), raw->size()), *none)) {
                made->GetState().MarkAsStored(made->GetState().GetDirtyGeneration());
                return made;
            }
            why = "an item of the run";
            return {};
        }

    private:
        StoredItem const item;
    };

    StoredItem const * Find(Kernel::ItemID id) const {
        return id.number == 0 || id.number > items.size() ? nullptr : &items[id.number - 1];
    }

    std::vector<StoredItem> items;
    std::map<Kernel::ItemID, Kernel::Counted<Kernel::DelayLoadHolder>> holders;
};
}
