#include "kernel/ClassProperties.h"

#include "kernel/ClassRegistry.h"
#include "kernel/Serialisable.h"

namespace Kernel {
ClassPropertiesBase::ClassPropertiesBase(ClassUID uid, unsigned short version, CreateFunction createFunction) noexcept
    : classUID(uid), schemaVersion(version), create(createFunction) {}

void ClassPropertiesBase::Init() const { ClassRegistry::Register(*this); }

Counted<Serialisable> ClassPropertiesBase::CreateObject() const { return create ? create() : Counted<Serialisable>(); }
}
