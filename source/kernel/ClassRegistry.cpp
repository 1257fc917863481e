#include "kernel/ClassRegistry.h"

#include "kernel/ClassProperties.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"

#include <unordered_map>

namespace Kernel::ClassRegistry {
namespace {
struct Table {
    CriticalSectionSpin lock{LockRank::Leaf};
    std::unordered_map<ClassUID, ClassPropertiesBase const *> classes;
};

Table & GetTable() {
    static Table & table = *new Table; // outlives every static object
    return table;
}
}

ClassPropertiesBase const * Find(ClassUID uid) {
    auto & table = GetTable();
    ScopedLock const guard(table.lock);
    auto const found = table.classes.find(uid);
    return found == table.classes.end() ? nullptr : found->second;
}

void Register(ClassPropertiesBase const & properties) {
    auto & table = GetTable();
    bool isOther = false;
    {
        ScopedLock const guard(table.lock);
        auto const & kept = table.classes.emplace(properties.GetClassUID(), &properties).first->second;
        isOther = kept != &properties;
    }
    if (isOther)
        Trace("Two classes are named %1 in files; the second can't be loaded\n",
              properties.GetClassUID().GetText().data());
}
}
