#include "kernel/InStream.h"

#include "kernel/OutStream.h"

#include <algorithm>
#include <memory>

namespace Kernel {
namespace {
constexpr std::uint64_t copyBytes = 65536;

std::uint64_t CopyPieceByPiece(InStream & source, OutStream & dest, std::uint64_t size) {
    auto const buffer = std::make_unique_for_overwrite<std::uint8_t[]>(std::min(size, copyBytes));
    std::uint64_t copied = 0;
    while (copied < size) {
        auto const count = source.Read(buffer.get(), std::min(size - copied, copyBytes));
        if (count == 0)
            break;
        dest.WriteAll(buffer.get(), count);
        copied += count;
        source.SlowProgressInStream(copied);
        dest.SlowProgressOutStream(copied);
    }
    return copied;
}
}

InStream::~InStream() = default;

bool InStream::IsEndOfData() const { return Tell() >= GetSize(); }

std::uint64_t InStream::CopyToStream(OutStream & dest, std::uint64_t size) {
    if (WillDelegateCopyToStream(dest))
        return DelegateCopyToStream(dest, size);
    if (dest.WillDelegateCopyFromStream(*this))
        return dest.DelegateCopyFromStream(*this, size);
    return CopyPieceByPiece(*this, dest, size);
}

bool InStream::WillDelegateCopyToStream(OutStream const &) const { return false; }

std::uint64_t InStream::DelegateCopyToStream(OutStream & dest, std::uint64_t size) {
    return CopyPieceByPiece(*this, dest, size);
}

void InStream::SlowProgressInStream(std::uint64_t) {}

bool InStreamSeekable::SkipBlock(std::uint64_t size) {
    auto const left = GetSize() - std::min(Tell(), GetSize());
    auto const step = std::min({size, left, std::uint64_t(std::numeric_limits<std::int64_t>::max())});
    return Seek(SeekOrigin::Current, static_cast<std::int64_t>(step)) && step == size;
}
}
