#pragma once

#include "kernel/ClassProperties.h"
#include "kernel/Counted.h"
#include "kernel/EnumSerialiser.h"
#include "kernel/IDTag.h"
#include "kernel/ItemID.h"
#include "kernel/PropertyValue.h"
#include "kernel/RawData.h"
#include "kernel/SerialisationStrategy.h"
#include "kernel/String.h"
#include "kernel/TextMap.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Kernel {
class DelayLoadHolder;
class FileStoreCompressionHint;
class FileStoreOut;
class FileStoreOutPathGenerator;
class Serialisable;
class SharedObjectReference;
class SharedSerialisable;

/// Writes the properties of objects; see kernel/PropertyStream.h for the form. Belongs to one thread.
///
/// There are two kinds. A full save writes everything. One that only enumerates goes through the same calls and
/// writes no byte: it tells the store which items an object refers to, so that they stay with a copy of the object.
class RASTER_API OutSerialiser {
public:
    OutSerialiser(OutSerialiser const &) = delete;
    OutSerialiser & operator=(OutSerialiser const &) = delete;
    virtual ~OutSerialiser();

    bool IsFullSave() const noexcept { return kind == Kind::Full; }

    template<PropertyValue T>
    void SaveType(IDTag tag, T const & value) {
        auto const bytes = ToPropertyBytes(value);
        WriteRecord(tag, propTypeOf<T>, bytes.data(), bytes.size());
    }
    void SaveType(IDTag tag, StringUtf8 const & text);
    void SaveType(IDTag tag, StringUtf16 const & text);
    void SaveType(IDTag tag, TextMap const & texts);
    /// A value whose bytes are already in file order.
    void SaveTypeI(IDTag tag, PropType type, void const * value, std::uint64_t size);
    /// `count` values of `size` bytes each, in file order.
    void SaveTypeArrayI(IDTag tag, PropType type, void const * values, std::uint64_t size, std::uint64_t count);
    /// A value that the enum's newest table lacks writes nothing.
    void SaveEnumI(IDTag tag, EnumSerialiser const & serialiser, int value);
    void SaveRawData(IDTag tag, void const * bytes, std::uint64_t size);
    template<class Base, class Allocator>
    void SaveRawData(IDTag tag, RawDataT<Base, Allocator> const & data) {
        SaveRawData(tag, data.GetData(), data.GetSize());
    }

    /// An object with its class, as a property of the one that is being saved.
    void SaveObject(IDTag tag, Serialisable const & object);
    /// The next object of the array that was begun.
    void SaveObjectI(Serialisable const & object);
    /// The items of an object, without the object, also in a full save: they stay with the stream that is written.
    void SaveObjectEnumeratePathsOnlyI(Serialisable const & object);
    /// A reference to an object that the store keeps once. Null writes nothing.
    void SaveSharedObject(IDTag tag, SharedSerialisable const * object);
    /// The same for one that may not have been loaded: without an object the reference is written again, if there is
    /// one.
    void SaveSharedObject(IDTag tag, SharedSerialisable const * object, SharedObjectReference const & unread);
    /// A reference to an item of its own, which the store takes now. Null writes nothing.
    /// @param hint  null stores the item raw.
    void SaveDelayLoadObject(IDTag tag, DelayLoadHolder * holder, FileStoreOutPathGenerator const & path,
                             FileStoreCompressionHint const * hint);

    // A value of class type whose properties stand within its owner's: test, and if true begin, save, end.
    bool StartClassTestI(IDTag tag);
    void StartClassBeginI(ClassUID uid, unsigned short version);
    void EndPropClassI();
    // An array of objects: test, and if true begin, then `count` times SaveObjectI, which ends it.
    bool StartObjectArrayTestI(IDTag tag);
    void StartObjectArrayBeginI(std::uint64_t count);

    void PushStrategy(Counted<SerialisationStrategy const> strategy);
    void PopStrategy() noexcept;
    /// Those of the store, and on top of them what was pushed.
    SerialisationStrategyStack const & GetStrategies() const noexcept { return strategies; }

    /// To be called when a save ends because of an exception: nothing is written from now on.
    void MarkAsHandlingException() noexcept { isSilent = true; }
    /// Completes the stream. Throws what the stream throws, and `std::logic_error` if a value or an array that was
    /// begun lacks its end: it would be missing with all that came after it. After that nothing more may be saved.
    virtual void Close() = 0;

protected:
    enum class Kind { Full, PathsOnly };

    OutSerialiser(Kind serialiserKind, FileStoreOut & itemStore);

    void CheckAllIsEnded() const;
    /// Called with whole records of the root, in order.
    virtual void WriteOut(void const * bytes, std::uint64_t size) = 0;

private:
    struct Scope {
        std::size_t lengthAt;      // where in `pending` the length of its content stands
        std::uint64_t objectsLeft; // of an array; otherwise 0
        bool isArray;
    };

    bool IsWriting() const noexcept { return kind == Kind::Full && !isSilent; }
    void WriteRecord(IDTag tag, PropType type, void const * bytes, std::uint64_t size);
    void WriteRecordHeader(IDTag tag, PropType type, std::uint64_t size);
    void WriteItemReference(IDTag tag, PropType type, ItemID id);
    template<class T>
    void Append(T value);
    void Append(void const * bytes, std::uint64_t size);
    void Open(bool isArray, std::uint64_t count);
    void CloseScope();
    void FlushRoot();
    void SaveContent(Serialisable const & object);

    Kind const kind;
    FileStoreOut & store;
    bool isSilent = false;
    IDTag startedTag;                  // of the class or array that was tested for and not begun
    std::vector<std::uint8_t> pending; // the root's record that is not complete yet
    std::vector<Scope> scopes;
    SerialisationStrategyStack strategies;
};
}
