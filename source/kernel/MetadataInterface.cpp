#include "kernel/MetadataInterface.h"

namespace Kernel {
MetadataInterface::~MetadataInterface() = default;
}
