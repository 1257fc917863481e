#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/CriticalSection.h"

#include <atomic>
#include <string>

namespace Kernel {
class OutStream;
}

namespace Raster {
class CompressedRasterData;

/// What every model of a picture in a file has: a size, and the word on whether it went wrong. The pixels of a file
/// are decoded once, by the first accessor; later ones share them.
/// Threads: any number may read one model; a model that is written belongs to one thread.
class RASTER_API FileModel : public Kernel::Countable {
public:
    ~FileModel() override;

    /// In pixels; files have no levels, so that the argument changes nothing. 0 if the header could not be read.
    int GetWidth(int = 0) const { return width; }
    int GetHeight(int = 0) const { return height; }

    /// Whether reading or writing has gone wrong for good. A failed reader has no pixels, or zeros in place of those
    /// that are lost.
    bool HasFailed() const { return hasFailed.load(std::memory_order_acquire); }
    /// What went wrong last, in words for the user; empty if nothing did.
    std::string GetFailure() const;
    /// Notes a failure and traces it.
    void SetFailure(std::string reason) const;

protected:
    FileModel() = default;

    /// What a new file, or the bytes of one in memory, is written through. Null, with the failure set, for a path that
    /// can't be opened; null for no data.
    Kernel::Counted<Kernel::OutStream> OpenForWriting(char const * path) const;
    static Kernel::Counted<Kernel::OutStream> OpenForWriting(Kernel::Counted<CompressedRasterData> data);

    int width = 0, height = 0;
    /// Guards the decoding, and what comes of it until it is done.
    mutable Kernel::CriticalSection lock{Kernel::LockRank::FileModel};

private:
    mutable std::atomic<bool> hasFailed{false};
    mutable std::string failure; // guarded by failureLock
    mutable Kernel::CriticalSection failureLock{Kernel::LockRank::Leaf};
};
}
