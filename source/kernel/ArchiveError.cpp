#include "kernel/ArchiveError.h"

namespace Kernel {
ArchiveError::ArchiveError(Kind errorKind, std::string const & what) : std::runtime_error(what), kind(errorKind) {}

ArchiveError::~ArchiveError() = default;
}
