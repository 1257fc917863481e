#include "kernel/InSerialiser.h"

#include "kernel/ClassRegistry.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStore.h"
#include "kernel/PropertyStream.h"
#include "kernel/SharedObjectReference.h"
#include "kernel/SharedSerialisable.h"

#include <algorithm>
#include <cstring>

namespace Kernel {
using PropertyStream::ReadAt;

namespace {
StringUtf8 MakeText(std::span<std::uint8_t const> bytes) {
    return StringUtf8::Create(bytes.size(), [&](char * dest) { std::memcpy(dest, bytes.data(), bytes.size()); });
}

// Takes a text off the bytes, its length before it; nothing if they don't hold it whole.
std::optional<StringUtf8> TakeText(std::span<std::uint8_t const> & bytes) {
    constexpr std::size_t lengthBytes = sizeof(std::uint32_t);
    if (bytes.size() < lengthBytes)
        return {};
    std::size_t const length = ReadAt<std::uint32_t>(bytes.data());
    if (length > bytes.size() - lengthBytes)
        return {};
    auto text = MakeText(bytes.subspan(lengthBytes, length));
    bytes = bytes.subspan(lengthBytes + length);
    return text;
}
}

std::optional<InSerialiser::Record> InSerialiser::Find(IDTag tag) const {
    auto rest = records;
    while (rest.size() >= PropertyStream::recordHeaderBytes) {
        auto const recordTag = ReadAt<std::uint32_t>(rest.data());
        auto const type = ReadAt<std::uint32_t>(rest.data() + 4);
        auto const length = ReadAt<std::uint64_t>(rest.data() + 8);
        rest = rest.subspan(PropertyStream::recordHeaderBytes);
        if (length > rest.size())
            return {};
        if (recordTag == tag.GetValue())
            return Record{type > 0xffff ? PropType::None : static_cast<PropType>(type),
                          rest.first(static_cast<std::size_t>(length))};
        rest = rest.subspan(static_cast<std::size_t>(length));
    }
    return {};
}

std::optional<InSerialiser::Record> InSerialiser::Find(IDTag tag, PropType type) const {
    auto const record = Find(tag);
    return record && record->type == type ? record : std::nullopt;
}

bool InSerialiser::LoadType(IDTag tag, StringUtf8 & text) const {
    auto const record = Find(tag, PropType::Utf8String);
    if (!record)
        return false;
    text = MakeText(record->bytes);
    return true;
}

bool InSerialiser::LoadType(IDTag tag, StringUtf16 & text) const {
    auto const record = Find(tag, PropType::Utf16String);
    if (!record || record->bytes.size() % 2 != 0)
        return false;
    std::size_t const length = record->bytes.size() / 2;
    text = StringUtf16::Create(length, [&](char16_t * dest) {
        for (std::size_t i = 0; i < length; ++i)
            dest[i] = static_cast<char16_t>(ReadAt<std::uint16_t>(record->bytes.data() + 2 * i));
    });
    return true;
}

bool InSerialiser::LoadType(IDTag tag, TextMap & texts) const {
    auto const record = Find(tag, PropType::Texts);
    if (!record)
        return false;
    TextMap loaded;
    for (auto rest = record->bytes; !rest.empty();) {
        auto key = TakeText(rest);
        auto text = key ? TakeText(rest) : std::nullopt;
        if (!text)
            return false;
        loaded.emplace(*std::move(key), *std::move(text)); // the first of one key counts
    }
    texts = std::move(loaded);
    return true;
}

bool InSerialiser::LoadTypeI(IDTag tag, PropType type, void * value, std::uint64_t size) const {
    auto const record = Find(tag, type);
    if (!record || record->bytes.size() != size)
        return false;
    std::copy(record->bytes.begin(), record->bytes.end(), static_cast<std::uint8_t *>(value));
    return true;
}

bool InSerialiser::LoadTypeArrayI(IDTag tag, PropType type, std::uint64_t size,
                                  std::vector<std::uint8_t> & values) const {
    auto const record = Find(tag, type);
    if (!record || size == 0 || record->bytes.size() % size != 0)
        return false;
    values.assign(record->bytes.begin(), record->bytes.end());
    return true;
}

bool InSerialiser::LoadEnumI(IDTag tag, EnumSerialiser const & serialiser, int & value) const {
    auto const record = Find(tag, PropType::Enum);
    if (!record || record->bytes.size() != 8)
        return false;
    auto const loaded =
        serialiser.Load({ReadAt<std::uint32_t>(record->bytes.data()), ReadAt<std::uint32_t>(record->bytes.data() + 4)});
    if (!loaded)
        return false;
    value = *loaded;
    return true;
}

bool InSerialiser::LoadRawData(IDTag tag, std::span<std::uint8_t const> & bytes) const {
    auto const record = Find(tag, PropType::RawData);
    if (!record)
        return false;
    bytes = record->bytes;
    return true;
}

bool InSerialiser::LoadRawData(IDTag tag, RawDataT<Countable, AllocatorNew> & data) const {
    std::span<std::uint8_t const> bytes;
    if (!LoadRawData(tag, bytes))
        return false;
    data = RawDataT<Countable, AllocatorNew>::CreateCopy(bytes.data(), bytes.size());
    return true;
}

std::optional<InSerialiser::Nested> InSerialiser::OpenObject(Bytes content) {
    if (content.size() < PropertyStream::objectHeaderBytes)
        return {};
    return Nested{ClassUID::FromValue(ReadAt<std::uint32_t>(content.data())), ReadAt<std::uint16_t>(content.data() + 4),
                  content.subspan(PropertyStream::objectHeaderBytes)};
}

std::optional<InSerialiser::Nested> InSerialiser::OpenClass(IDTag tag, ClassUID uid) const {
    auto const record = Find(tag, PropType::Class);
    if (!record || depth >= PropertyStream::deepest)
        return {};
    auto const nested = OpenObject(record->bytes);
    return nested && nested->uid == uid ? nested : std::nullopt;
}

Counted<Serialisable> InSerialiser::LoadContent(Bytes content, FileStore & store,
                                                ClassPropertiesBase const * expected) const {
    auto const nested = OpenObject(content);
    if (!nested || depth >= PropertyStream::deepest || (expected && nested->uid != expected->GetClassUID()))
        return {};
    auto const * const properties = ClassRegistry::Find(nested->uid);
    auto object = properties ? properties->CreateObject() : Counted<Serialisable>();
    if (!object || !object->Load(InSerialiser(nested->records, depth + 1), store, nested->version))
        return {};
    return object;
}

bool InSerialiser::LoadObjectI(IDTag tag, FileStore & store, Counted<Serialisable> & object) const {
    auto const record = Find(tag, PropType::Object);
    auto loaded = record ? LoadContent(record->bytes, store) : Counted<Serialisable>();
    if (!loaded)
        return false;
    object = std::move(loaded);
    return true;
}

bool InSerialiser::LoadObjectsI(IDTag tag, FileStore & store, std::vector<Counted<Serialisable>> & objects,
                                ClassPropertiesBase const * expected) const {
    auto const record = Find(tag, PropType::ObjectArray);
    if (!record || record->bytes.size() < sizeof(std::uint64_t))
        return false;
    auto const count = ReadAt<std::uint64_t>(record->bytes.data());
    auto rest = record->bytes.subspan(sizeof(std::uint64_t));
    if (count > rest.size() / (sizeof(std::uint64_t) + PropertyStream::objectHeaderBytes))
        return false; // it claims more objects than can be there
    std::vector<Counted<Serialisable>> loaded;
    loaded.reserve(static_cast<std::size_t>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        if (rest.size() < sizeof(std::uint64_t))
            return false;
        auto const length = ReadAt<std::uint64_t>(rest.data());
        rest = rest.subspan(sizeof(std::uint64_t));
        if (length > rest.size())
            return false;
        loaded.push_back(LoadContent(rest.first(static_cast<std::size_t>(length)), store, expected));
        rest = rest.subspan(static_cast<std::size_t>(length));
    }
    objects = std::move(loaded);
    return true;
}

std::optional<ItemID> InSerialiser::FindReference(IDTag tag, PropType type) const {
    auto const record = Find(tag, type);
    if (!record || record->bytes.size() != 16)
        return {};
    return ItemID{ReadAt<std::uint64_t>(record->bytes.data()), ReadAt<std::uint64_t>(record->bytes.data() + 8)};
}

bool InSerialiser::LoadSharedObjectI(IDTag tag, FileStore & store, ClassPropertiesBase const & expected,
                                     Counted<SharedSerialisable> & object) const {
    auto const id = FindReference(tag, PropType::SharedObject);
    if (!id || depth >= PropertyStream::deepest)
        return false;
    auto loaded = store.LoadSharedObject(*id, depth + 1);
    if (!loaded || loaded->GetObjectClassProperties().GetClassUID() != expected.GetClassUID())
        return false;
    object = std::move(loaded);
    return true;
}

bool InSerialiser::LoadSharedObjectI(IDTag tag, FileStore & store, ClassPropertiesBase const & expected,
                                     Counted<SharedSerialisable> & object, SharedObjectReference & unread) const {
    unread.Reset();
    auto const id = FindReference(tag, PropType::SharedObject);
    if (!id)
        return false;
    SharedObjectReference reference;
    auto loaded = store.LoadReferredObject(*id, depth + 1, reference);
    if (!loaded || depth >= PropertyStream::deepest ||
        loaded->GetObjectClassProperties().GetClassUID() != expected.GetClassUID()) {
        unread = std::move(reference);
        return false;
    }
    object = std::move(loaded);
    return true;
}

bool InSerialiser::LoadDelayLoadObject(IDTag tag, FileStore & store, FileStoreItemType const & type,
                                       Counted<DelayLoadHolder> & holder) const {
    auto const id = FindReference(tag, PropType::DelayLoadObject);
    auto found = id ? store.GetHolder(*id, type) : Counted<DelayLoadHolder>();
    if (!found)
        return false;
    holder = std::move(found);
    return true;
}
}
