#include "Audio/FadeRamp.h"

#include <algorithm>
#include <mutex>

namespace sorva {

void FadeRamp::start(int64_t frames, float newDirection) noexcept
{
    std::lock_guard guard(lock);
    remaining = std::max<int64_t>(frames, 0);
    total = std::max<int64_t>(frames, 1);
    direction = newDirection;
}

FadeRamp::Progress FadeRamp::advance(int64_t frames) noexcept
{
    std::lock_guard guard(lock);
    if (direction == 0.0f)
        return { 0.0f, 0, 0 };
    Progress progress { direction, remaining, total };
    remaining = std::max<int64_t>(remaining - frames, 0);
    return progress;
}

namespace {

// The gain of a frame with `left` (>= 1) ramp frames still to play of t.
inline float rampGain(float direction, int64_t left, int64_t t)
{
    const float p = static_cast<float>(t - left) / static_cast<float>(t);
    return direction > 0 ? p : 1.0f - p;
}

} // namespace

void FadeRamp::apply(float* buffer, int64_t frames, int64_t channels) noexcept
{
    if (frames <= 0 || channels <= 0)
        return;
    const Progress p = advance(frames);
    if (p.direction == 0.0f)
        return;
    if (p.direction < 0 && p.remaining == 0) {
        std::fill(buffer, buffer + frames * channels, 0.0f);
        return;
    }
    if (p.remaining < 1)
        return;
    for (int64_t i = 0; i < frames; ++i) {
        float* frame = buffer + i * channels;
        const int64_t left = p.remaining - i;
        if (left >= 1) {
            const float gain = rampGain(p.direction, left, p.total);
            for (int64_t c = 0; c < channels; ++c)
                frame[c] *= gain;
        } else if (p.direction < 0) {
            std::fill(frame, frame + channels, 0.0f);
        } else {
            return; // the fade-in ended inside this block: the rest passes at unity
        }
    }
}

void FadeRamp::applyPlanar(float* left, float* right, int64_t frames) noexcept
{
    if (frames <= 0)
        return;
    const Progress p = advance(frames);
    if (p.direction == 0.0f)
        return;
    for (int64_t i = 0; i < frames; ++i) {
        const int64_t framesLeft = p.remaining - i;
        if (framesLeft >= 1) {
            const float gain = rampGain(p.direction, framesLeft, p.total);
            left[i] *= gain;
            right[i] *= gain;
        } else if (p.direction < 0) {
            left[i] = 0.0f;
            right[i] = 0.0f;
        } else {
            return;
        }
    }
}

} // namespace sorva
