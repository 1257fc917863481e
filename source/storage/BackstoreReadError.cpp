#include "storage/BackstoreReadError.h"

#include <string>
#include <system_error>

namespace Raster {
namespace {
std::string Describe(int error) {
    return "The backstore can't be read: " +
           (error ? std::generic_category().message(error) : std::string("the file ends early"));
}
}

BackstoreReadError::BackstoreReadError(int errorNumber)
    : std::runtime_error(Describe(errorNumber)), error(errorNumber) {}

BackstoreReadError::BackstoreReadError(BackstoreReadError const &) noexcept = default;

BackstoreReadError::~BackstoreReadError() = default;
}
