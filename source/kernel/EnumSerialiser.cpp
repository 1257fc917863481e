#include "kernel/EnumSerialiser.h"

#include <algorithm>

namespace Kernel {
EnumSerialiser::EnumSerialiser() = default;
EnumSerialiser::EnumSerialiser(EnumSerialiser const &) = default;
EnumSerialiser::EnumSerialiser(EnumSerialiser &&) noexcept = default;
EnumSerialiser & EnumSerialiser::operator=(EnumSerialiser const &) = default;
EnumSerialiser & EnumSerialiser::operator=(EnumSerialiser &&) noexcept = default;
EnumSerialiser::~EnumSerialiser() = default;

void EnumSerialiser::RegisterEnumSet(EnumEntry const * entries, std::size_t size) {
    tables.emplace_back(entries, entries + size);
}

std::optional<StoredEnum> EnumSerialiser::Store(int value) const {
    if (tables.empty())
        return std::nullopt;
    auto const & newest = tables.back();
    auto const found =
        std::find_if(newest.begin(), newest.end(), [&](EnumEntry const & entry) { return entry.value == value; });
    if (found == newest.end())
        return std::nullopt;
    return StoredEnum{static_cast<std::uint32_t>(newest.size()), static_cast<std::uint32_t>(found - newest.begin())};
}

std::optional<int> EnumSerialiser::Load(StoredEnum stored) const {
    auto const table = std::find_if(tables.rbegin(), tables.rend(),
                                    [&](auto const & entries) { return entries.size() == stored.entryCount; });
    if (table == tables.rend() || stored.index >= table->size())
        return std::nullopt;
    return (*table)[stored.index].value;
}
}
