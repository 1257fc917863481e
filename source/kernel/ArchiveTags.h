/// The types of items that a document has of its own.
#pragma once

#include "kernel/IDTag.h"

namespace Kernel::ArchiveTags {
inline constexpr IDTag stream("Strm");       ///< bytes under a name
inline constexpr IDTag sharedObject("ShOb"); ///< a stream of properties whose root is the object's class
}
