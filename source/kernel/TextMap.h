#pragma once

#include "kernel/String.h"

#include <map>

namespace Kernel {
/// Texts by key, as objects and files hold them: in the order of the keys' bytes.
using TextMap = std::map<StringUtf8, StringUtf8>;
}
