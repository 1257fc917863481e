#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace Fuzz {
using Bytes = std::vector<std::uint8_t>;

/// Takes the bytes of a run apart, low byte first. Behind their end everything is 0 and empty.
class Input {
public:
    Input(std::uint8_t const * data, std::size_t size) : rest(data, size) {}

    bool IsEmpty() const { return rest.empty(); }

    template<class T>
    T Take() {
        static_assert(std::is_unsigned_v<T>);
        T value = 0;
        auto const bytes = TakeSpan(sizeof(T));
        for (std::size_t i = 0; i < bytes.size(); ++i)
            value = static_cast<T>(value | T(bytes[i]) << 8 * i);
        return value;
    }
    Bytes TakeBytes(std::size_t size) {
        auto const bytes = TakeSpan(size);
        return {bytes.begin(), bytes.end()};
    }
    std::string TakeText(std::size_t size) {
        auto const bytes = TakeSpan(size);
        return {bytes.begin(), bytes.end()};
    }

private:
    std::span<std::uint8_t const> TakeSpan(std::size_t size) {
        auto const taken = rest.first(std::min(size, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }

    std::span<std::uint8_t const> rest;
};

/// Writes what `Input` takes apart: for seeds.
class Output {
public:
    template<class T>
    Output & Put(T value) {
        static_assert(std::is_unsigned_v<T>);
        for (std::size_t i = 0; i < sizeof(T); ++i)
            bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
        return *this;
    }
    template<class Range>
    Output & PutAll(Range const & range) {
        for (auto const byte : range)
            bytes.push_back(static_cast<std::uint8_t>(byte));
        return *this;
    }
    Bytes const & GetBytes() const { return bytes; }

private:
    Bytes bytes;
};
}
