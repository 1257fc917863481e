#pragma once

#include "kernel/LockOrder.h"

#include <mutex>

namespace Kernel {
/// Holds a section from construction to the end of the scope.
template<class Section>
class ScopedLock {
public:
    explicit ScopedLock(Section & lockedSection, LockNesting nesting = LockNesting::Forbidden)
        : section(&lockedSection) {
        section->AcquireLock(nesting);
    }
    /// Does not wait: tests false if somebody else is inside.
    ScopedLock(Section & lockedSection, std::try_to_lock_t)
        : section(lockedSection.TryAcquireLock() ? &lockedSection : nullptr) {}
    ScopedLock(ScopedLock const &) = delete;
    ScopedLock & operator=(ScopedLock const &) = delete;
    ~ScopedLock() { Release(); }

    /// Whether the section is held.
    explicit operator bool() const noexcept { return section != nullptr; }

    /// Leaves the section before the scope ends. Again: nothing.
    void Release() {
        if (section)
            section->ReleaseLock();
        section = nullptr;
    }

private:
    Section * section; // not owned; null once released
};
}
