#include "Audio/LogOnce.h"

namespace sorva {

bool LogOnce::claim()
{
    std::lock_guard guard(lock);
    if (fired)
        return false;
    fired = true;
    return true;
}

bool LogOnce::hasFired()
{
    std::lock_guard guard(lock);
    return fired;
}

} // namespace sorva
