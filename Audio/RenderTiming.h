// Measures each IO callback: how long it worked, how long the gap since the
// previous one was, and how many callbacks came late (their gap exceeded one
// and a half expected periods, reckoned at 48 frames per millisecond).
//
// Threads: record() on the audio thread as the callback's last step,
// snapshot() on the main thread. The fields are guarded by lock, held for a
// few loads, stores and arithmetic operations.
#pragma once

#include "Platform/HostClock.h"
#include "Platform/HotPath.h"
#include "Platform/UnfairLock.h"

#include <cstdint>

namespace sorva {

class RenderTiming {
public:
    struct Snapshot {
        int64_t callbacks = 0;
        int64_t lateCallbacks = 0;
        double maxGapMs = 0.0;
        double maxWorkMs = 0.0;
    };

    RenderTiming();

    // Host-clock ticks at the callback's start and end, its frame count and
    // whether it handed the device anything but silence. A clock that ever
    // ran backwards counts as no time having passed.
    SORVA_HOT void record(uint64_t began, uint64_t ended, int64_t frames, bool sounding = true) noexcept;

    // The figures since the previous snapshot; all four start again from 0.
    // The end of the last callback is kept, so the next gap is still measured.
    Snapshot snapshot() noexcept;
    // The stream was paused or suspended: the next callback starts a new
    // baseline instead of counting the pause as its gap. Audio thread.
    SORVA_HOT void forgetLastCallback() noexcept;

    // Host ticks at the end of the first sounding callback (the first
    // processed block with sound handed to the device), or 0 before it.
    // Snapshots keep it.
    uint64_t firstSoundEnd() noexcept;

private:
    double milliseconds(uint64_t from, uint64_t to) const noexcept;

    UnfairLock lock;
    HostTimebase timebase;
    uint64_t lastCallbackEnd = 0; // host ticks; 0 before the first callback
    uint64_t firstSound = 0; // host ticks; 0 before the first sounding callback
    double maxGapMs = 0.0;
    double maxWorkMs = 0.0;
    int64_t lateCallbacks = 0;
    int64_t callbacks = 0;
};

} // namespace sorva
