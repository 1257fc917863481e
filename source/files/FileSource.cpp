#include "files/FileSource.h"

#include "kernel/FastFileInStream.h"
#include "storage/CompressedRasterData.h"

#include <cerrno>
#include <system_error>
#include <utility>

namespace Raster {
namespace {
std::string DescribeOpenError(int error) {
    if (error == EISDIR)
        return "it is a directory";
    if (error == ESPIPE)
        return "it is not a regular file";
    return std::generic_category().message(error);
}
}

FileSource::FileSource() = default;
FileSource::FileSource(char const * givenPath) : path(givenPath ? givenPath : ""), hasPath(givenPath != nullptr) {}
FileSource::FileSource(Kernel::Counted<CompressedRasterData const> givenData) : data(std::move(givenData)) {}
FileSource::FileSource(Kernel::Counted<Kernel::InStreamSeekable> givenStream) : stream(std::move(givenStream)) {}
FileSource::FileSource(FileSource const &) = default;
FileSource & FileSource::operator=(FileSource const &) = default;
FileSource::~FileSource() = default;

Kernel::Counted<Kernel::InStreamSeekable> FileSource::Open(std::string & why) const {
    if (stream)
        return stream;
    if (data)
        return Kernel::Counted<Kernel::InStreamSeekable>(new CompressedRasterDataInStream(data));
    if (!hasPath) {
        why = "there is no file";
        return nullptr;
    }
    errno = 0;
    auto opened = Kernel::FastFileInStream::Open(path.c_str());
    if (!opened)
        why = "can't be opened: " + DescribeOpenError(errno);
    return opened;
}

char const * FileSource::GetPath() const { return hasPath ? path.c_str() : nullptr; }

Kernel::Counted<CompressedRasterData const> FileSource::GetData() const { return data; }
}
