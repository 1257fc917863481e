#include "kernel/DebugPath.h"

#include "kernel/AppendFormat.h"
#include "kernel/FileSystem.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <unistd.h>

namespace Kernel {
namespace {
bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           c == '_';
}
}

Path MakeDebugSavePath(StringUtf8 const & name) {
    static std::atomic<std::uint64_t> lastNumber{0};
    auto const number = lastNumber.fetch_add(1, std::memory_order_relaxed) + 1;
    std::string plain(name.GetView());
    std::replace_if(
        plain.begin(), plain.end(), [](char c) { return !IsPlain(c); }, '_');

    Path path(FileSystem::GetTemporaryDirectory());
    return path.Append(FormatString("raster-debug-%1-%2-%3", ::getpid(), number, plain));
}
}
