#pragma once

#include "kernel/Countable.h"
#include "kernel/TextMap.h"

namespace Kernel {
class FileStore;
class InSerialiser;
class OutSerialiser;

/// Base of stored objects that carry texts beside their content, such as a name and an author: a map of text to text,
/// which is a property of its own in the object. A derived class calls `Save` and `Load` from within its own.
class RASTER_API MetadataInterface : public virtual Countable {
public:
    MetadataInterface() noexcept = default;
    MetadataInterface(MetadataInterface const & other) : Countable(other), metadata(other.metadata) {}
    MetadataInterface & operator=(MetadataInterface const & other) {
        metadata = other.metadata;
        return *this;
    }
    ~MetadataInterface() override;

    TextMap const & GetMetadata() const noexcept { return metadata; }
    /// The text under a key; empty if there is none.
    StringUtf8 GetMetadataText(StringUtf8 const & key) const;
    /// An empty text takes the key out.
    void SetMetadataText(StringUtf8 const & key, StringUtf8 const & text);

    /// Writes nothing if there are no texts.
    void Save(OutSerialiser & serialiser) const;
    /// @return false, with the texts as they were, if the object has none.
    bool Load(InSerialiser const & serialiser, FileStore & store);

private:
    TextMap metadata;
};
}
