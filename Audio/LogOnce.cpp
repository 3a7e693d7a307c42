#include "Audio/LogOnce.h"

namespace sorva {

bool LogOnce::claim() noexcept
{
    // The load keeps the common case (already fired) free of a locked
    // read-modify-write; exchange decides between racing first callers.
    return !fired.load(std::memory_order_relaxed) && !fired.exchange(true, std::memory_order_relaxed);
}

bool LogOnce::hasFired() const noexcept { return fired.load(std::memory_order_relaxed); }

} // namespace sorva
