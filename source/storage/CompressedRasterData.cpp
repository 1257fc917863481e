#include "storage/CompressedRasterData.h"

#include "kernel/File.h"
#include "kernel/ScopedLock.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace Raster {
CompressedRasterData::CompressedRasterData() = default;

CompressedRasterData::~CompressedRasterData() { Account(0); }

CompressedRasterData::Bytes CompressedRasterData::Allocate(std::uint64_t byteCount) {
    // More than this no process can map. Refused here, since some allocators take an impossible size for a bug.
    constexpr std::uint64_t largestAllocation = std::uint64_t(1) << 47;
    PixelMemory::CheckFault();
    if (byteCount > largestAllocation)
        throw std::bad_alloc();
    return Bytes(Kernel::AllocatorNew::Allocate(byteCount));
}

void CompressedRasterData::Account(std::uint64_t byteCount) {
    auto & ledger = MemoryManager::Instance();
    ledger.DetachCompressed(accounted);
    accounted = byteCount;
    ledger.AttachCompressed(accounted);
}

void CompressedRasterData::Replace(Bytes bytes, std::uint64_t byteCount, std::uint64_t newSize) {
    data = std::move(bytes);
    capacity = filled = byteCount;
    size = newSize;
    Account(byteCount);
    Changed();
}

// The picture is that of other bytes, and so is what a document has stored.
void CompressedRasterData::Changed() {
    GetState().MarkAsDirty();
    Kernel::Counted<DynamicBitmap const> oldPicture; // these go after the lock
    Kernel::Consolidated<ICCProfile> oldProfile;
    DecodeProblems oldProblems;
    Kernel::ScopedLock const guard(cacheLock);
    std::swap(oldPicture, bitmapRepresentation);
    std::swap(oldProfile, profile);
    std::swap(oldProblems, problems);
}

void CompressedRasterData::SetInvert(bool inverted) {
    if (std::exchange(invert, inverted) != inverted)
        Changed();
}

void CompressedRasterData::CopyFrom(unsigned char const * bytes, std::uint64_t byteCount) {
    Bytes copy;
    if (byteCount != 0) {
        copy = Allocate(byteCount);
        std::memcpy(copy.get(), bytes, byteCount);
    }
    Replace(std::move(copy), byteCount, byteCount);
}

void CompressedRasterData::SetSize(std::uint64_t newSize) {
    if (newSize <= size) {
        if (std::exchange(size, newSize) != newSize)
            Changed();
        filled = newSize;
        Account(newSize);
        return;
    }
    Bytes grown = Allocate(newSize);
    auto const kept = std::min(filled, newSize);
    if (kept != 0)
        std::memcpy(grown.get(), data.get(), kept);
    std::memset(grown.get() + kept, 0, newSize - kept);
    Replace(std::move(grown), newSize, newSize);
}

// What is held beyond the size goes back to the system, if there is memory to do so.
void CompressedRasterData::Trim() {
    if (capacity == size)
        return;
    try {
        Bytes exact = size == 0 ? nullptr : Allocate(size);
        if (size != 0)
            std::memcpy(exact.get(), data.get(), size);
        data = std::move(exact);
        capacity = filled = size;
    } catch (std::bad_alloc const &) {
    }
}

bool CompressedRasterData::SetFromFile(char const * path) {
    Replace(nullptr, 0, 0);
    auto file = Kernel::File::Open(path, "rb");
    auto const fileSize = file.IsOpen() ? file.GetSize() : std::nullopt;
    if (!fileSize)
        return false;
    if (*fileSize != 0) {
        Bytes bytes = Allocate(*fileSize);
        auto const count = file.Read(bytes.get(), *fileSize);
        Replace(std::move(bytes), *fileSize, count);
        filled = count;
        Account(count);
    }
    return true;
}

bool CompressedRasterData::SetFromStream(Kernel::InStream & stream, std::uint64_t byteCount) {
    if (byteCount == 0)
        return false;
    Bytes bytes = Allocate(byteCount);
    auto const count = stream.Read(bytes.get(), byteCount);
    std::memset(bytes.get() + count, 0, byteCount - count);
    Replace(std::move(bytes), byteCount, std::min(size, byteCount));
    return count == byteCount;
}

bool CompressedRasterData::WriteToFile(char const * path) const {
    auto file = Kernel::File::Open(path, "wb");
    if (!file.IsOpen())
        return false;
    bool const isWritten = file.Write(data.get(), size) == size;
    return file.Close() && isWritten;
}

CompressedRasterData::Block CompressedRasterData::RelinquishOwnership() {
    Block block(data.release(), size);
    Replace(nullptr, 0, 0);
    return block;
}

CompressedRasterDataInStream::CompressedRasterDataInStream(Kernel::Counted<CompressedRasterData const> source)
    : item(std::move(source)) {}

CompressedRasterDataInStream::~CompressedRasterDataInStream() = default;

std::uint64_t CompressedRasterDataInStream::GetSize() const { return item ? item->GetSize() : 0; }

bool CompressedRasterDataInStream::Seek(Kernel::SeekOrigin origin, std::int64_t offset) {
    auto const target = Kernel::ResolveSeek(origin, offset, position, GetSize());
    position = target.value_or(position);
    return target.has_value();
}

std::uint64_t CompressedRasterDataInStream::ReadI(void * dest, std::uint64_t byteCount) {
    auto const count = std::min(byteCount, GetSize() - std::min(position, GetSize()));
    if (count != 0)
        std::memcpy(dest, item->GetData() + position, count);
    position += count;
    return count;
}

CompressedRasterDataOutStream::CompressedRasterDataOutStream(Kernel::Counted<CompressedRasterData> target)
    : item(std::move(target)) {}

CompressedRasterDataOutStream::~CompressedRasterDataOutStream() = default;

bool CompressedRasterDataOutStream::Seek(Kernel::SeekOrigin origin, std::int64_t offset) {
    constexpr std::uint64_t noLimit = std::numeric_limits<std::int64_t>::max();
    auto const base = origin == Kernel::SeekOrigin::End ? end : position;
    auto const from = origin == Kernel::SeekOrigin::Start ? origin : Kernel::SeekOrigin::Current;
    auto const target = Kernel::ResolveSeek(from, offset, base, noLimit);
    position = target.value_or(position);
    return target.has_value();
}

bool CompressedRasterDataOutStream::Grow(std::uint64_t needed) {
    if (needed <= item->GetSize())
        return true;
    try {
        item->SetSize(needed);
        return true;
    } catch (std::bad_alloc const &) {
        return false;
    }
}

void CompressedRasterDataOutStream::Reserve(std::uint64_t byteCount) {
    std::uint64_t needed = 0;
    if (!__builtin_add_overflow(position, byteCount, &needed))
        static_cast<void>(Grow(needed)); // a hint: the write itself will tell
}

bool CompressedRasterDataOutStream::Finish() {
    item->SetSize(end);
    item->Trim();
    return true;
}

std::uint64_t CompressedRasterDataOutStream::WriteI(void const * source, std::uint64_t byteCount) {
    std::uint64_t needed = 0;
    if (__builtin_add_overflow(position, byteCount, &needed))
        return 0;
    // Half as much again and a mebibyte, so that an encoder that writes in small pieces doesn't move the bytes often.
    bool const hasSlack = position < 0x3fffffffffffffff && needed < 0x3fffffffffffffff;
    if (needed > item->GetSize() && !(hasSlack && Grow(needed + 0x100000 + needed / 2)) && !Grow(needed))
        return 0;
    auto * const bytes = item->GetData();
    if (position > end)
        std::memset(bytes + end, 0, position - end);
    std::memcpy(bytes + position, source, byteCount);
    item->GetState().MarkAsDirty();
    position = needed;
    end = std::max(end, position);
    return byteCount;
}
}
