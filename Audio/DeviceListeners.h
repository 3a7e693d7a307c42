// The listeners that tell a running engine its chain no longer fits the
// output: the default output device changed, the current default device's
// sample rate moved away from the rate the chain was built for, or (for an
// engine that plays through an OutputEngine) that output reported a
// configuration change while the default device differs from the one at
// start. A listener that decides a rebuild is needed logs one line and
// hands the engine's onConfigurationChange to the main thread; the engine
// never rebuilds itself.
//
// Threads: install(), remove() and destruction on the main thread. The device
// and rate handlers run on a serial queue "com.sorva.app.listeners" that each
// installation creates; the output's observer only posts to the main
// executor, where the decision is taken. Handlers work on copies taken at
// installation and never touch this object or the engine, which may be gone
// by the time a queued handler runs. The hardware, the executor and the
// output must outlive the listeners.
#pragma once

#include "Platform/AudioHardware.h"
#include "Platform/MainExecutor.h"
#include "Platform/MonotonicClock.h"
#include "Platform/OutputEngine.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace sorva {

class DeviceListeners {
public:
    // What a default-device change in the first settleNanoseconds after
    // start does. An engine that plays through the device it was built on
    // ignores it: that is the switch belonging to its own start, and it is
    // dropped, not postponed. An engine whose output follows the default
    // device at once has to rebuild at once too.
    enum class EarlyDeviceChange { ignored, rebuilds };

    // Output configuration changes (and, with EarlyDeviceChange::ignored,
    // default-device changes) this soon after start are dropped.
    static constexpr uint64_t settleNanoseconds = 3'000'000'000ull;

    // clock: monotonic nanoseconds for the settle deadline (empty =
    // monotonicNanoseconds). output: the engine's pull-model output whose
    // configuration changes are observed too, or nullptr when it has none.
    DeviceListeners(AudioHardware& hardware, MainExecutor& mainExecutor, NanosecondClock clock,
                    EarlyDeviceChange earlyDeviceChange, OutputEngine* output = nullptr);
    ~DeviceListeners();
    DeviceListeners(const DeviceListeners&) = delete;
    DeviceListeners& operator=(const DeviceListeners&) = delete;

    // Notes the default output device a start begins with, and when.
    void recordStart(AudioObjectID device);
    // Installs the listeners, the rate listener on device, for the chain of
    // the recorded start built at startedRate (Hz). The callback is copied:
    // later changes to the engine's own do not reach the installed handlers.
    void install(AudioObjectID device, double startedRate, const std::function<void()>& onConfigurationChange);
    // Removes whatever is installed, exactly as it was registered. Safe when
    // nothing is; work a handler already posted still runs.
    void remove();

    // The device the rate listener is installed on; 0 = none.
    AudioObjectID currentListenerDevice() const { return listenerDevice; }
    // The default output device of the last recorded start; 0 = none yet.
    AudioObjectID deviceAtStart() const { return startedDeviceID; }

    // The current default output device, or 0 when it cannot be read.
    static AudioObjectID currentDefaultDevice(AudioHardware& hardware);

private:
    AudioHardware& hardware;
    MainExecutor& mainExecutor;
    NanosecondClock clock;
    const EarlyDeviceChange earlyDeviceChange;
    OutputEngine* output;

    std::optional<uint64_t> engineObserver;
    AudioObjectID listenerDevice = kAudioObjectUnknown;
    AudioObjectID startedDeviceID = kAudioObjectUnknown;
    uint64_t startedAt = 0; // clock nanoseconds; 0 = the distant past
    std::optional<AudioPropertyListenerRegistration> rateListener;
    std::optional<AudioPropertyListenerRegistration> deviceListener;
};

} // namespace sorva
