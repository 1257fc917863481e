#include "kernel/FutureVersionException.h"

namespace Kernel {
FutureVersionException::FutureVersionException() : std::runtime_error("the file is of a later version") {}

FutureVersionException::~FutureVersionException() = default;
}
