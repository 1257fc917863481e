#include "kernel/OutSerialiser.h"

#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreOut.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/PropertyStream.h"
#include "kernel/SharedObjectReference.h"
#include "kernel/SharedSerialisable.h"

#include <cassert>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Kernel {
namespace {
// A text with its length before it.
void PutText(std::vector<std::uint8_t> & dest, StringUtf8 const & text) {
    if (text.GetLength() > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("a text is too long to be stored");
    auto const length = ToStreamBytes(static_cast<std::uint32_t>(text.GetLength()));
    dest.insert(dest.end(), length.begin(), length.end());
    auto const * const first = reinterpret_cast<std::uint8_t const *>(text.GetCharacters());
    dest.insert(dest.end(), first, first + text.GetLength());
}
}

OutSerialiser::OutSerialiser(Kind serialiserKind, FileStoreOut & itemStore)
    : kind(serialiserKind), store(itemStore), strategies(itemStore.GetStrategies()) {}

OutSerialiser::~OutSerialiser() = default;

void OutSerialiser::SaveType(IDTag tag, StringUtf8 const & text) {
    WriteRecord(tag, PropType::Utf8String, text.GetCharacters(), text.GetLength());
}

void OutSerialiser::SaveType(IDTag tag, StringUtf16 const & text) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.GetLength() * 2);
    for (auto const unit : text.GetView()) {
        auto const unitBytes = ToStreamBytes(static_cast<std::uint16_t>(unit));
        bytes.insert(bytes.end(), unitBytes.begin(), unitBytes.end());
    }
    WriteRecord(tag, PropType::Utf16String, bytes.data(), bytes.size());
}

void OutSerialiser::SaveType(IDTag tag, TextMap const & texts) {
    std::vector<std::uint8_t> bytes;
    for (auto const & [key, text] : texts) {
        PutText(bytes, key);
        PutText(bytes, text);
    }
    WriteRecord(tag, PropType::Texts, bytes.data(), bytes.size());
}

void OutSerialiser::SaveTypeI(IDTag tag, PropType type, void const * value, std::uint64_t size) {
    WriteRecord(tag, type, value, size);
}

void OutSerialiser::SaveTypeArrayI(IDTag tag, PropType type, void const * values, std::uint64_t size,
                                   std::uint64_t count) {
    std::uint64_t total = 0;
    if (__builtin_mul_overflow(size, count, &total))
        throw std::length_error("an array of values has no 64-bit size");
    WriteRecord(tag, type, values, total);
}

void OutSerialiser::SaveEnumI(IDTag tag, EnumSerialiser const & serialiser, int value) {
    auto const stored = serialiser.Store(value);
    if (!stored)
        return;
    std::array<std::uint8_t, 8> bytes;
    PropertyStream::WriteAt(bytes.data(), stored->entryCount);
    PropertyStream::WriteAt(bytes.data() + 4, stored->index);
    WriteRecord(tag, PropType::Enum, bytes.data(), bytes.size());
}

void OutSerialiser::SaveRawData(IDTag tag, void const * bytes, std::uint64_t size) {
    WriteRecord(tag, PropType::RawData, bytes, size);
}

void OutSerialiser::SaveObject(IDTag tag, Serialisable const & object) {
    if (IsWriting()) {
        WriteRecordHeader(tag, PropType::Object, 0);
        Open(/*isArray=*/false, 0);
    }
    SaveContent(object);
    if (IsWriting())
        CloseScope();
}

void OutSerialiser::SaveObjectI(Serialisable const & object) {
    if (!IsWriting())
        return SaveContent(object);
    if (scopes.empty() || !scopes.back().isArray)
        throw std::logic_error("an object is saved outside of an array, or is one more than it was said to have");
    std::size_t const array = scopes.size() - 1;
    Append(std::uint64_t(0));
    Open(/*isArray=*/false, 0);
    SaveContent(object);
    if (!IsWriting())
        return;
    CloseScope();
    if (--scopes[array].objectsLeft == 0)
        CloseScope();
}

void OutSerialiser::SaveObjectEnumeratePathsOnlyI(Serialisable const & object) {
    if (isSilent)
        return;
    if (!IsFullSave())
        return object.Save(*this);
    OutSerialiserPaths paths(store);
    static_cast<OutSerialiser &>(paths).strategies = strategies;
    object.Save(paths);
}

// What comes after the length: the class, then the properties.
void OutSerialiser::SaveContent(Serialisable const & object) {
    if (isSilent)
        return;
    if (IsFullSave()) {
        auto const & properties = object.GetObjectClassProperties();
        Append(properties.GetClassUID().GetValue());
        Append(static_cast<std::uint16_t>(properties.GetSchemaVersion()));
        Append(std::uint16_t(0));
    }
    object.Save(*this);
}

void OutSerialiser::SaveSharedObject(IDTag tag, SharedSerialisable const * object) {
    if (object && !isSilent)
        WriteItemReference(tag, PropType::SharedObject, store.StoreSharedObject(*object));
}

void OutSerialiser::SaveSharedObject(IDTag tag, SharedSerialisable const * object,
                                     SharedObjectReference const & unread) {
    if (object || !unread)
        SaveSharedObject(tag, object);
    else if (!isSilent)
        WriteItemReference(tag, PropType::SharedObject, store.KeepReferredObject(unread));
}

void OutSerialiser::SaveDelayLoadObject(IDTag tag, DelayLoadHolder * holder, FileStoreOutPathGenerator const & path,
                                        FileStoreCompressionHint const * hint) {
    if (holder && !isSilent)
        WriteItemReference(tag, PropType::DelayLoadObject, store.StoreItem(*holder, path, hint));
}

void OutSerialiser::WriteItemReference(IDTag tag, PropType type, ItemID id) {
    std::array<std::uint8_t, 16> bytes;
    PropertyStream::WriteAt(bytes.data(), id.commit);
    PropertyStream::WriteAt(bytes.data() + 8, id.number);
    WriteRecord(tag, type, bytes.data(), bytes.size());
}

bool OutSerialiser::StartClassTestI(IDTag tag) {
    startedTag = tag;
    return IsWriting();
}

void OutSerialiser::StartClassBeginI(ClassUID uid, unsigned short version) {
    if (!IsWriting())
        return;
    WriteRecordHeader(startedTag, PropType::Class, 0);
    Open(/*isArray=*/false, 0);
    Append(uid.GetValue());
    Append(static_cast<std::uint16_t>(version));
    Append(std::uint16_t(0));
}

void OutSerialiser::EndPropClassI() {
    if (!IsWriting())
        return;
    if (scopes.empty() || scopes.back().isArray)
        throw std::logic_error("a value of class type is ended that was not begun");
    CloseScope();
}

void OutSerialiser::CheckAllIsEnded() const {
    if (IsWriting() && !scopes.empty())
        throw std::logic_error("an array or a value of class type was begun and not ended");
}

bool OutSerialiser::StartObjectArrayTestI(IDTag tag) {
    startedTag = tag;
    return IsWriting();
}

void OutSerialiser::StartObjectArrayBeginI(std::uint64_t count) {
    if (!IsWriting())
        return;
    WriteRecordHeader(startedTag, PropType::ObjectArray, 0);
    Open(/*isArray=*/true, count);
    Append(count);
    if (count == 0)
        CloseScope();
}

void OutSerialiser::PushStrategy(Counted<SerialisationStrategy const> strategy) {
    strategies.Push(std::move(strategy));
}

void OutSerialiser::PopStrategy() noexcept { strategies.Pop(); }

void OutSerialiser::WriteRecord(IDTag tag, PropType type, void const * bytes, std::uint64_t size) {
    if (!IsWriting())
        return;
    WriteRecordHeader(tag, type, size);
    if (scopes.empty()) {
        // Large values of the root go straight to the stream, without a copy.
        FlushRoot();
        if (size != 0)
            WriteOut(bytes, size);
        return;
    }
    Append(bytes, size);
}

void OutSerialiser::WriteRecordHeader(IDTag tag, PropType type, std::uint64_t size) {
    Append(tag.GetValue());
    Append(static_cast<std::uint32_t>(type));
    Append(size);
}

template<class T>
void OutSerialiser::Append(T value) {
    auto const bytes = ToStreamBytes(value);
    pending.insert(pending.end(), bytes.begin(), bytes.end());
}

void OutSerialiser::Append(void const * bytes, std::uint64_t size) {
    auto const * const first = static_cast<std::uint8_t const *>(bytes);
    pending.insert(pending.end(), first, first + size);
}

// The length of what follows was appended last.
void OutSerialiser::Open(bool isArray, std::uint64_t count) {
    if (scopes.size() >= PropertyStream::deepest)
        throw std::length_error("objects are nested too deeply to be saved");
    scopes.push_back({pending.size() - sizeof(std::uint64_t), count, isArray});
}

void OutSerialiser::CloseScope() {
    assert(!scopes.empty());
    std::size_t const contentAt = scopes.back().lengthAt + sizeof(std::uint64_t);
    PropertyStream::WriteAt(pending.data() + scopes.back().lengthAt, std::uint64_t(pending.size() - contentAt));
    scopes.pop_back();
    if (scopes.empty())
        FlushRoot();
}

void OutSerialiser::FlushRoot() {
    if (!pending.empty())
        WriteOut(pending.data(), pending.size());
    pending.clear();
}
}
