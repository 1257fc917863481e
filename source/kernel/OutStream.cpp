#include "kernel/OutStream.h"

#include "kernel/InStream.h"

namespace Kernel {
OutStream::WriteException::WriteException() : std::runtime_error("a stream took less than it was given") {}

OutStream::WriteException::~WriteException() = default;

OutStream::~OutStream() = default;

void OutStream::WriteAll(void const * data, std::uint64_t size) {
    if (Write(data, size) != size)
        throw WriteException();
}

void OutStream::Reserve(std::uint64_t) {}

bool OutStream::ForceFlush() { return true; }

bool OutStream::Finish() { return ForceFlush(); }

std::uint64_t OutStream::CopyFromStream(InStream & source, std::uint64_t size) {
    return source.CopyToStream(*this, size);
}

bool OutStream::WillDelegateCopyFromStream(InStream const &) const { return false; }

std::uint64_t OutStream::DelegateCopyFromStream(InStream & source, std::uint64_t size) {
    return source.InStream::DelegateCopyToStream(*this, size); // the base's: piece by piece
}

void OutStream::SlowProgressOutStream(std::uint64_t) {}
}
