#include "kernel/ClassRegistry.h"

#include "kernel/ClassProperties.h"
#include "kernel/TagRegistry.h"
#include "kernel/Trace.h"

namespace Kernel::ClassRegistry {
namespace {
TagRegistry<ClassPropertiesBase> & GetClasses() {
    static auto & classes = *new TagRegistry<ClassPropertiesBase>; // outlives every static object
    return classes;
}
}

ClassPropertiesBase const * Find(ClassUID uid) { return GetClasses().Find(uid); }

void Register(ClassPropertiesBase const & properties) {
    if (!GetClasses().Add(properties.GetClassUID(), properties))
        Trace("Two classes are named %1 in files; the second can't be loaded\n",
              properties.GetClassUID().GetText().data());
}
}
