#include "kernel/MetadataInterface.h"

#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"

namespace Kernel {
namespace {
constexpr IDTag metadataTag("Meta");
}

MetadataInterface::~MetadataInterface() = default;

StringUtf8 MetadataInterface::GetMetadataText(StringUtf8 const & key) const {
    auto const found = metadata.find(key);
    return found == metadata.end() ? StringUtf8() : found->second;
}

void MetadataInterface::SetMetadataText(StringUtf8 const & key, StringUtf8 const & text) {
    if (text.IsEmpty())
        metadata.erase(key);
    else
        metadata[key] = text;
}

void MetadataInterface::Save(OutSerialiser & serialiser) const {
    if (!metadata.empty())
        serialiser.SaveType(metadataTag, metadata);
}

bool MetadataInterface::Load(InSerialiser const & serialiser, FileStore &) {
    return serialiser.LoadType(metadataTag, metadata);
}
}
