#include "Audio/DeviceListeners.h"

#include "Audio/EQLog.h"
#include "Platform/SerialQueue.h"

#include <cmath>
#include <memory>
#include <utility>

namespace sorva {

namespace {

// Hands the callback to the main thread; it may be empty there too.
void postRebuild(MainExecutor& executor, const std::function<void()>& callback)
{
    executor.post([callback] {
        if (callback)
            callback();
    });
}

} // namespace

DeviceListeners::DeviceListeners(AudioHardware& audioHardware, MainExecutor& executor, NanosecondClock nanosecondClock,
                                 EarlyDeviceChange early, OutputEngine* outputEngine)
    : hardware(audioHardware)
    , mainExecutor(executor)
    , clock(nanosecondClock ? std::move(nanosecondClock) : NanosecondClock(monotonicNanoseconds))
    , earlyDeviceChange(early)
    , output(outputEngine)
{
}

DeviceListeners::~DeviceListeners()
{
    remove();
}

AudioObjectID DeviceListeners::currentDefaultDevice(AudioHardware& hardware)
{
    AudioObjectID device = kAudioObjectUnknown;
    if (hardware.defaultOutputDevice(device) != kAudioHardwareNoError)
        return kAudioObjectUnknown;
    return device;
}

void DeviceListeners::recordStart(AudioObjectID device)
{
    startedDeviceID = device;
    startedAt = clock();
}

void DeviceListeners::install(AudioObjectID device, double startedRate,
                              const std::function<void()>& onConfigurationChange)
{
    listenerDevice = device;
    const uint64_t deadline = startedAt + settleNanoseconds;

    // The handlers work on copies only: they never read the engine or this
    // object, which may be gone by the time a queued handler runs.
    AudioHardware* audioHardware = &hardware;
    MainExecutor* executor = &mainExecutor;
    const std::function<void()> callback = onConfigurationChange;
    const AudioObjectID started = startedDeviceID;
    const NanosecondClock now = clock;

    if (output != nullptr) {
        // The output's notification arrives on its own thread; the decision
        // is taken on the main thread, where the callback is called directly.
        engineObserver = output->addConfigurationObserver([audioHardware, executor, callback, deadline, started, now] {
            executor->post([audioHardware, callback, deadline, started, now] {
                if (now() <= deadline)
                    return;
                const AudioObjectID current = currentDefaultDevice(*audioHardware);
                if (current == kAudioObjectUnknown || current == started)
                    return;
                EQLog::trace("engine configuration changed — rebuilding");
                if (callback)
                    callback();
            });
        });
    }

    auto listenerQueue = std::make_shared<SerialQueue>("com.sorva.app.listeners");

    // The rate read is the current default device's, not listenerDevice's.
    auto rateHandler = [audioHardware, executor, callback, startedRate] {
        const AudioObjectID current = currentDefaultDevice(*audioHardware);
        if (current == kAudioObjectUnknown)
            return;
        double rate = 0.0;
        if (audioHardware->nominalSampleRate(current, rate) != kAudioHardwareNoError)
            return;
        if (rate > 0.0 && std::fabs(rate - startedRate) > 1.0) {
            EQLog::trace("output sample rate changed — rebuilding");
            postRebuild(*executor, callback);
        }
    };
    AudioPropertyListenerRegistration rateRegistration;
    if (hardware.addPropertyListener(device, { kAudioDevicePropertyNominalSampleRate }, listenerQueue, rateHandler,
                                     rateRegistration)
        == kAudioHardwareNoError)
        rateListener = rateRegistration;

    const bool dropEarly = earlyDeviceChange == EarlyDeviceChange::ignored;
    auto deviceHandler = [audioHardware, executor, callback, dropEarly, deadline, started, now] {
        if (dropEarly && now() <= deadline)
            return;
        const AudioObjectID current = currentDefaultDevice(*audioHardware);
        if (current == kAudioObjectUnknown || current == started)
            return;
        EQLog::trace("default output device changed — rebuilding");
        postRebuild(*executor, callback);
    };
    AudioPropertyListenerRegistration deviceRegistration;
    if (hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice },
                                     listenerQueue, deviceHandler, deviceRegistration)
        == kAudioHardwareNoError)
        deviceListener = deviceRegistration;
}

void DeviceListeners::remove()
{
    if (engineObserver) {
        output->removeConfigurationObserver(*engineObserver);
        engineObserver.reset();
    }
    if (rateListener && listenerDevice != kAudioObjectUnknown) {
        hardware.removePropertyListener(*rateListener);
        rateListener.reset();
    }
    if (deviceListener) {
        hardware.removePropertyListener(*deviceListener);
        deviceListener.reset();
    }
    listenerDevice = kAudioObjectUnknown;
}

} // namespace sorva
