#include "kernel/FileStoreOutPathGenerator.h"

#include <utility>

namespace Kernel {
FileStoreOutPathGenerator::~FileStoreOutPathGenerator() = default;

FileStoreOutIndexedPathGenerator::FileStoreOutIndexedPathGenerator(std::string pathPrefix, std::string pathFolder)
    : prefix(std::move(pathPrefix)), folder(std::move(pathFolder)) {}

std::string FileStoreOutIndexedPathGenerator::GetPath(std::uint64_t index) const {
    return prefix + folder + std::to_string(index);
}
}
