/// Abort flags: plain bools of the caller, set by one thread while others work.
#pragma once

namespace Kernel {
/// Whether a flag is set. Null never is. A relaxed atomic load: it orders nothing, and costs what a plain one does.
inline bool IsAborted(bool const * abort) noexcept { return abort && __atomic_load_n(abort, __ATOMIC_RELAXED); }

/// Sets a flag that another thread may be reading.
inline void RequestAbort(bool * abort) noexcept {
    if (abort)
        __atomic_store_n(abort, true, __ATOMIC_RELAXED);
}
}
