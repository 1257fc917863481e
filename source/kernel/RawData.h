#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Kernel {
/// Bytes that end with `delete[]`.
struct AllocatorNew {
    static std::uint8_t * Allocate(std::size_t size) { return new std::uint8_t[size]; }
    static void Free(std::uint8_t * data) noexcept { delete[] data; }
};

/// Bytes that end with `free`, as C libraries give and take them.
struct AllocatorMalloc {
    static std::uint8_t * Allocate(std::size_t size) {
        auto * const data = static_cast<std::uint8_t *>(std::malloc(size ? size : 1));
        if (!data)
            throw std::bad_alloc();
        return data;
    }
    static void Free(std::uint8_t * data) noexcept { std::free(data); }
};

/// An owner of a run of bytes. With `Countable` as the base it can be shared.
template<class Base, class Allocator>
class RawDataT : public Base {
public:
    RawDataT() noexcept = default; ///< No bytes; allocates nothing.
    /// `byteCount` zeros.
    explicit RawDataT(std::size_t byteCount) : RawDataT(Allocate(byteCount), byteCount) {
        if (byteCount != 0)
            std::memset(data, 0, byteCount);
    }
    /// Takes over bytes that came from the allocator.
    RawDataT(std::uint8_t * ownedData, std::size_t byteCount) noexcept : data(ownedData), size(byteCount) {}
    RawDataT(RawDataT && other) noexcept
        : Base(), data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0)) {}
    RawDataT & operator=(RawDataT && other) noexcept {
        if (this != &other) {
            Allocator::Free(data);
            data = std::exchange(other.data, nullptr);
            size = std::exchange(other.size, 0);
        }
        return *this;
    }
    ~RawDataT() { Allocator::Free(data); }

    static RawDataT CreateCopy(void const * source, std::size_t byteCount) {
        RawDataT result(Allocate(byteCount), byteCount);
        if (byteCount != 0)
            std::memcpy(result.data, source, byteCount);
        return result;
    }

    /// Null if there are no bytes.
    std::uint8_t * GetData() noexcept { return data; }
    std::uint8_t const * GetData() const noexcept { return data; }
    std::size_t GetSize() const noexcept { return size; }

    /// Hands the bytes to the caller, who frees them the allocator's way, and is empty then.
    std::uint8_t * RelinquishOwnership() noexcept {
        size = 0;
        return std::exchange(data, nullptr);
    }

private:
    static std::uint8_t * Allocate(std::size_t byteCount) {
        return byteCount == 0 ? nullptr : Allocator::Allocate(byteCount);
    }

    std::uint8_t * data = nullptr; // owned
    std::size_t size = 0;
};
}
