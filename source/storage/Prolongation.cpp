#include "storage/Prolongation.h"

namespace Raster {
Prolongation::Prolongation(std::array<Entry, EntryCount> const & entries) {
    for (std::size_t i = 0; i < EntryCount; ++i) {
        counters[i] = entries[i].counter;
        semaphores[i] = entries[i].semaphore;
        objects[i] = entries[i].object;
    }
}

Prolongation::~Prolongation() {
    if (isDone)
        return;
    isDone = true;
    for (std::size_t i = 0; i < EntryCount; ++i) {
        if (!counters[i])
            continue;
        counters[i]->fetch_sub(1);
        if (semaphores[i])
            semaphores[i]->Signal();
    }
}
}
