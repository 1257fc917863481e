#pragma once

#include "kernel/Countable.h"

namespace Kernel {
class FileStore;
class InSerialiser;
class OutSerialiser;

/// What a stored object tells about itself besides its content, such as a name and an author.
class RASTER_API MetadataInterface : public virtual Countable {
public:
    ~MetadataInterface() override;

    virtual void Save(OutSerialiser & serialiser) const = 0;
    /// @return false if nothing of use was there.
    virtual bool Load(InSerialiser const & serialiser, FileStore & store) = 0;
};
}
