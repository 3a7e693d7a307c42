#include "Audio/SilenceGate.h"

#include <algorithm>

namespace sorva {

bool SilenceGate::observe(bool blockIsSilent, int64_t frames, int64_t limitFrames) noexcept
{
    if (!blockIsSilent) {
        silentFrames = 0;
        gated = false;
        return false;
    }
    const int64_t silent = silentFrames + std::max<int64_t>(frames, 0);
    silentFrames = std::min(silent, limitFrames);
    if (silent >= limitFrames) {
        gated = true;
        return true;
    }
    return gated;
}

} // namespace sorva
