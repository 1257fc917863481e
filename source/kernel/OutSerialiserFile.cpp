#include "kernel/OutSerialiserFile.h"

#include "kernel/OutStream.h"
#include "kernel/PropertyStream.h"

namespace Kernel {
OutSerialiserFile::OutSerialiserFile(OutStream & outStream, FileStoreOut & itemStore, IDTag rootTag,
                                     unsigned short version)
    : OutSerialiser(Kind::Full, itemStore), stream(outStream) {
    std::array<std::uint8_t, PropertyStream::streamHeaderBytes> header{};
    PropertyStream::WriteAt(header.data(), PropertyStream::magic);
    PropertyStream::WriteAt(header.data() + 4, PropertyStream::version);
    PropertyStream::WriteAt(header.data() + 6, static_cast<std::uint16_t>(version));
    PropertyStream::WriteAt(header.data() + 8, rootTag.GetValue());
    stream.WriteAll(header.data(), header.size());
}

// Every record of the root went out when it was complete.
void OutSerialiserFile::Close() { CheckAllIsEnded(); }

void OutSerialiserFile::WriteOut(void const * bytes, std::uint64_t size) { stream.WriteAll(bytes, size); }
}
