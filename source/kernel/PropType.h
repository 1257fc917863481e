#pragma once

#include <cstdint>

namespace Kernel {
/// The type code of a stored value. The codes are part of the file format: never renumber one, never give one anew.
enum class PropType : std::uint16_t {
    None = 0,
    UInt8 = 1,
    UInt16 = 2,
    UInt32 = 3,
    UInt64 = 4,
    Int8 = 5,
    Int16 = 6,
    Int32 = 7,
    Int64 = 8,
    Float = 9,
    Double = 10,
    Bool = 11,
    Utf8String = 12,
    Utf16String = 13,
    Enum = 14, ///< The number of entries of the newest table and the index in it, two 32-bit values.
    RawData = 15,
    Object = 16,
    ObjectArray = 17,
    SharedObject = 18,
    DelayLoadObject = 19,
    Class = 20, ///< A value whose properties stand inside its owner's.
    PointInt32 = 21,
    SizeInt32 = 22,
    RectInt32 = 23, ///< Left, top, right, bottom: 16 bytes.
    Texts = 24,     ///< For each entry the length of its key in 4 bytes, the key, and its text likewise.
    PointDouble = 36,
};
}
