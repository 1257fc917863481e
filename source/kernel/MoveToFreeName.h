#pragma once

namespace Kernel {
/// By what a file gets a name that nothing else has. Not every file system can do the first two.
enum class FreeNameMeans {
    Rename, ///< in one step
    Link,   ///< by a second name, of which the first is taken away after that
    Look    ///< by looking first, so that another file may still come between
};

/// Gives a file another name unless there is something of that name.
/// @param first  what is tried first; where it can't be had, what comes after it is
/// @return false with errno set, and EEXIST if the name is taken. The file has its first name then.
bool MoveToFreeName(char const * from, char const * to, FreeNameMeans first = FreeNameMeans::Rename) noexcept;
}
