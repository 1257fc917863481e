#pragma once

#include "kernel/Countable.h"

#include <cstdint>
#include <string>

namespace Kernel {
/// Gives the items of one kind their names in a store.
class RASTER_API FileStoreOutPathGenerator : public virtual Countable {
public:
    ~FileStoreOutPathGenerator() override;
    /// @param index  runs from 0 within one save.
    virtual std::string GetPath(std::uint64_t index) const = 0;
};

/// Names such as "d/0", "d/1": a prefix, a folder and the running number.
class RASTER_API FileStoreOutIndexedPathGenerator final : public FileStoreOutPathGenerator {
public:
    FileStoreOutIndexedPathGenerator(std::string pathPrefix, std::string pathFolder);
    std::string GetPath(std::uint64_t index) const override;

private:
    std::string prefix, folder;
};
}
