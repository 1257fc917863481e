#include "kernel/FileSystem.h"

#include "kernel/AppendFormat.h"
#include "kernel/File.h"
#include "kernel/Path.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace Kernel::FileSystem {
namespace {
std::filesystem::path ToPath(StringUtf8 const & path) { return path.GetCharacters(); }

StringUtf8 MakeUniqueText() {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
        number ^= static_cast<std::uint64_t>(getpid()) << 32; // the file itself is what makes the name unique
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    return text;
}

/// The error is 0 if the file is new and now there.
int MakeNewFile(StringUtf8 const & path) {
    File const file(open(path.GetCharacters(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.IsOpen() ? 0 : errno;
}
}

bool Delete(StringUtf8 const & path) { return std::remove(path.GetCharacters()) == 0; }

StringUtf8 GetUniqueTemporaryFilename(StringUtf8 const & pattern) {
    auto const directory = GetTemporaryDirectory();
    for (int attempt = 0; attempt < 100; ++attempt) {
        StringUtf8 name;
        AppendFormatVT(name, pattern.GetView(), MakeUniqueText());
        auto const path = PathTraitsDos::Append(directory, name);
        int const error = MakeNewFile(path);
        if (error == 0)
            return path;
        if (error != EEXIST && error != EINTR)
            break;
    }
    return {};
}

StringUtf8 GetTemporaryDirectory() {
    char const * const directory = std::getenv("TMPDIR");
    return directory && *directory ? directory : "/tmp";
}

bool Exists(StringUtf8 const & path) {
    std::error_code error;
    return std::filesystem::exists(ToPath(path), error);
}

bool IsFile(StringUtf8 const & path) {
    std::error_code error;
    return std::filesystem::is_regular_file(ToPath(path), error);
}

bool IsDirectory(StringUtf8 const & path) {
    std::error_code error;
    return std::filesystem::is_directory(ToPath(path), error);
}

std::optional<std::uint64_t> GetSize(StringUtf8 const & path) {
    std::error_code error;
    auto const size = std::filesystem::file_size(ToPath(path), error);
    return error ? std::nullopt : std::optional<std::uint64_t>(size);
}

bool CreateDirectory(StringUtf8 const & path) {
    std::error_code error;
    std::filesystem::create_directories(ToPath(path), error);
    return IsDirectory(path);
}

bool Rename(StringUtf8 const & from, StringUtf8 const & to) {
    return std::rename(from.GetCharacters(), to.GetCharacters()) == 0;
}
}
