#include "kernel/Countable.h"

namespace Kernel {
Countable::~Countable() = default;
}
