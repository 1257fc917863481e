#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Kernel {
/// One enumerator of a stored enum.
struct EnumEntry {
    int value;
    char const * text; ///< Null for enums without names.
};

/// An enum in a file: how many entries its newest table had when it was stored, and the index in that table.
struct StoredEnum {
    std::uint32_t entryCount;
    std::uint32_t index;
    bool operator==(StoredEnum const &) const = default;
};

/// Maps the values of one enum to what files hold and back. Values may be renumbered, dropped and added between
/// versions: each version registers one more table, and no two tables are of one size.
class RASTER_API EnumSerialiser {
public:
    /// Adds the table of the next version. The entries are copied.
    void RegisterEnumSet(EnumEntry const * entries, std::size_t size);

    /// Nothing for a value that the newest table doesn't have.
    std::optional<StoredEnum> Store(int value) const;
    /// The value, by the table of that size; nothing if there is none or the index lies outside of it.
    std::optional<int> Load(StoredEnum stored) const;

protected:
    /// Derived classes register their tables in their constructors.
    EnumSerialiser();
    EnumSerialiser(EnumSerialiser const &);
    EnumSerialiser(EnumSerialiser &&) noexcept;
    EnumSerialiser & operator=(EnumSerialiser const &);
    EnumSerialiser & operator=(EnumSerialiser &&) noexcept;
    ~EnumSerialiser();

private:
    std::vector<std::vector<EnumEntry>> tables; // the newest last
};
}
