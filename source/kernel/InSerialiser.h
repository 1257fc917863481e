#pragma once

#include "kernel/Consolidated.h"
#include "kernel/Counted.h"
#include "kernel/EnumSerialiser.h"
#include "kernel/IDTag.h"
#include "kernel/ItemID.h"
#include "kernel/PropertyValue.h"
#include "kernel/RawData.h"
#include "kernel/String.h"
#include "kernel/TextMap.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace Kernel {
class ClassPropertiesBase;
class DelayLoadHolder;
class FileStore;
class FileStoreItemType;
class Serialisable;
class SharedObjectReference;
class SharedSerialisable;

/// Reads the properties of one object; see kernel/PropertyStream.h for the form. Each `Load...` tells whether the
/// property was there, and leaves its target alone if not. A property of another type or length than is asked for
/// counts as absent; of two with one tag the first counts. All bytes may be hostile.
/// Threads: any number may read one serialiser.
class RASTER_API InSerialiser {
public:
    InSerialiser(InSerialiser const &) = delete;
    InSerialiser & operator=(InSerialiser const &) = delete;

    bool HasProperty(IDTag tag) const { return Find(tag).has_value(); }

    template<PropertyValue T>
    bool LoadType(IDTag tag, T & value) const {
        auto const record = Find(tag, propTypeOf<T>);
        if (!record || record->bytes.size() != propertyBytes<T>)
            return false;
        value = FromPropertyBytes<T>(record->bytes.data());
        return true;
    }
    bool LoadType(IDTag tag, StringUtf8 & text) const;
    bool LoadType(IDTag tag, StringUtf16 & text) const;
    bool LoadType(IDTag tag, TextMap & texts) const;
    /// A value of `size` bytes, which stay in file order.
    bool LoadTypeI(IDTag tag, PropType type, void * value, std::uint64_t size) const;
    /// Values of `size` bytes each, which stay in file order: as many as there are whole ones, with none left over.
    bool LoadTypeArrayI(IDTag tag, PropType type, std::uint64_t size, std::vector<std::uint8_t> & values) const;
    bool LoadEnumI(IDTag tag, EnumSerialiser const & serialiser, int & value) const;
    bool LoadRawData(IDTag tag, RawDataT<Countable, AllocatorNew> & data) const;
    /// The bytes where they lie, valid while the serialiser lives.
    bool LoadRawData(IDTag tag, std::span<std::uint8_t const> & bytes) const;

    /// Calls `load(InSerialiser const &, unsigned short version)` with the value of class type, if it is of this class.
    template<class Load>
    bool LoadClassI(IDTag tag, ClassUID uid, Load && load) const {
        auto const nested = OpenClass(tag, uid);
        if (!nested)
            return false;
        load(InSerialiser(nested->records, depth + 1), nested->version);
        return true;
    }
    /// An object of whatever class it is. One of a class that is not registered, or whose `Load` gives up, is absent.
    bool LoadObjectI(IDTag tag, FileStore & store, Counted<Serialisable> & object) const;
    /// The objects of an array in their order, null in place of those that can't be loaded.
    /// @param expected  null, or the one class whose objects are loaded. Where one is known it should be given: a few
    ///                  bytes of another class may make an object that takes any amount of memory.
    bool LoadObjectsI(IDTag tag, FileStore & store, std::vector<Counted<Serialisable>> & objects,
                      ClassPropertiesBase const * expected = nullptr) const;
    /// An object that the store keeps once, if it is of this class.
    bool LoadSharedObjectI(IDTag tag, FileStore & store, ClassPropertiesBase const & expected,
                           Counted<SharedSerialisable> & object) const;
    template<class T>
    bool LoadSharedObject(IDTag tag, FileStore & store, Consolidated<T> & object) const {
        Counted<SharedSerialisable> loaded;
        return LoadSharedObjectI(tag, store, T::GetClassProperties(), loaded) && Consolidate(loaded, object);
    }
    /// The same for a class that doesn't lose an object which can't be loaded: it keeps the reference, and passes it to
    /// `SaveSharedObject`.
    /// @param unread  receives the reference if it is there and its object can't be loaded; else it is reset.
    bool LoadSharedObjectI(IDTag tag, FileStore & store, ClassPropertiesBase const & expected,
                           Counted<SharedSerialisable> & object, SharedObjectReference & unread) const;
    template<class T>
    bool LoadSharedObject(IDTag tag, FileStore & store, Consolidated<T> & object,
                          SharedObjectReference & unread) const {
        Counted<SharedSerialisable> loaded;
        return LoadSharedObjectI(tag, store, T::GetClassProperties(), loaded, unread) && Consolidate(loaded, object);
    }
    /// The holder of an item of this type, which is not loaded by that.
    bool LoadDelayLoadObject(IDTag tag, FileStore & store, FileStoreItemType const & type,
                             Counted<DelayLoadHolder> & holder) const;

protected:
    using Bytes = std::span<std::uint8_t const>;

    /// @param objectRecords  whole records; bytes behind the last whole one are ignored. Not owned.
    /// @param objectDepth  how many objects and items this one stands in.
    InSerialiser(Bytes objectRecords, int objectDepth) noexcept : records(objectRecords), depth(objectDepth) {}
    ~InSerialiser() = default;

    Bytes records;
    int depth;

private:
    struct Record {
        PropType type;
        Bytes bytes;
    };
    struct Nested {
        ClassUID uid;
        unsigned short version;
        Bytes records;
    };

    template<class T>
    static bool Consolidate(Counted<SharedSerialisable> const & loaded, Consolidated<T> & object) {
        auto typed = DynamicCast<T>(loaded);
        if (!typed)
            return false;
        object = Consolidated<T>::ConsolidateObjectSacrifice(std::move(typed));
        return true;
    }
    std::optional<Record> Find(IDTag tag) const;
    std::optional<Record> Find(IDTag tag, PropType type) const;
    std::optional<Nested> OpenClass(IDTag tag, ClassUID uid) const;
    std::optional<ItemID> FindReference(IDTag tag, PropType type) const;
    Counted<Serialisable> LoadContent(Bytes content, FileStore & store,
                                      ClassPropertiesBase const * expected = nullptr) const;
    static std::optional<Nested> OpenObject(Bytes content);
};
}
