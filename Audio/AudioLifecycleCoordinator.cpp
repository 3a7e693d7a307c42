#include "Audio/AudioLifecycleCoordinator.h"

#include "Audio/EQLog.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <string>
#include <type_traits>

namespace sorva {

namespace {

std::string boolText(bool value) { return value ? "true" : "false"; }

std::string stateText(AudioLifecycleState state) { return std::string(rawValue(state)); }

} // namespace

// Shared with every job posted to the main thread, so that a job that runs
// after the coordinator is gone finds out and does nothing.
struct AudioLifecycleCoordinator::Lifeline {
    std::mutex lock;
    std::condition_variable changed;
    bool alive = true;
};

AudioLifecycleCoordinator::Sleeper AudioLifecycleCoordinator::defaultSleeper()
{
    return [](uint64_t nanoseconds, std::stop_token interruption) {
        // steady_clock::now() + a duration near the 64-bit limit overflows;
        // no wait of a day or more is meant literally.
        constexpr uint64_t longest = 24ull * 3600 * 1'000'000'000ull;
        std::mutex sleepLock;
        std::condition_variable_any wakeUp;
        std::unique_lock guard(sleepLock);
        wakeUp.wait_for(guard, interruption, std::chrono::nanoseconds(std::min(nanoseconds, longest)),
                        [] { return false; });
    };
}

AudioLifecycleCoordinator::AudioLifecycleCoordinator(MainExecutor& mainExecutor, StartOperation startOperation,
                                                     StopOperation stopOperation, PublishState publishState,
                                                     Sleeper sleeper, NanosecondClock clock)
    : mainExecutor(mainExecutor)
    , clock(clock ? std::move(clock) : NanosecondClock(monotonicNanoseconds))
    , lifeline(std::make_shared<Lifeline>())
    , startOperation(std::move(startOperation))
    , stopOperation(std::move(stopOperation))
    , publishState(std::move(publishState))
    , sleeper(sleeper ? std::move(sleeper) : defaultSleeper())
    , executor(std::make_unique<SerialQueue>("com.sorva.app.lifecycle"))
    , stepQueue(std::make_unique<SerialQueue>("com.sorva.app.lifecycle.steps"))
{
}

AudioLifecycleCoordinator::~AudioLifecycleCoordinator()
{
    // Order matters: first release a step waiting for the main thread (the
    // destructor may itself be running on the main thread) or sleeping, then
    // stop immediate parts from queueing more steps, then let the step thread
    // finish (its steps still hop onto the executor), and the executor last.
    {
        std::lock_guard guard(lifeline->lock);
        lifeline->alive = false;
    }
    lifeline->changed.notify_all();
    interruption.request_stop();
    executor->sync([this] { closed = true; });
    stepQueue.reset();
    executor.reset();
}

AudioLifecycleState AudioLifecycleCoordinator::currentState() const { return state.load(); }

// --- Public requests: the immediate parts ----------------------------------

std::future<void> AudioLifecycleCoordinator::submit(std::function<void(Completion)> immediatePart)
{
    auto completion = std::make_shared<std::promise<void>>();
    std::future<void> result = completion->get_future();
    executor->async([this, immediatePart = std::move(immediatePart), completion] {
        if (closed) {
            completion->set_value();
            return;
        }
        immediatePart(completion);
    });
    return result;
}

std::future<void> AudioLifecycleCoordinator::setUserEnabled(bool enabled)
{
    return submit([this, enabled](Completion completion) {
        EQLog::trace([&] {
            return "actor: setUserEnabled(" + boolText(enabled) + ") entered, state=" + stateText(state.load());
        });
        userEnabled = enabled;
        recoveryGeneration += 1;
        if (!enabled) {
            recoveryActive = false;
            resetFailureBudget();
        }
        enqueue([this, enabled] { performSetUserEnabled(enabled); }, std::move(completion));
    });
}

std::future<void> AudioLifecycleCoordinator::sleep()
{
    return submit([this](Completion completion) {
        recoveryGeneration += 1;
        // Cleared at once so that a wake queued behind this sleep can start a
        // new recovery while the outdated loop is still in its delay.
        recoveryActive = false;
        enqueue([this] { performSleep(); }, std::move(completion));
    });
}

std::future<void> AudioLifecycleCoordinator::wake()
{
    return submit([this](Completion completion) { enqueue([this] { performWake(); }, std::move(completion)); });
}

std::future<void> AudioLifecycleCoordinator::restart(AudioLifecycleTrigger trigger)
{
    return submit([this, trigger](Completion completion) {
        enqueue([this, trigger] { performRestart(trigger); }, std::move(completion));
    });
}

std::future<void> AudioLifecycleCoordinator::shutdown()
{
    // Shutting down is switching off for good: the same bookkeeping, the same
    // queued step and the same trace as the user switching off.
    return setUserEnabled(false);
}

// --- The request chain -------------------------------------------------------

void AudioLifecycleCoordinator::enqueue(std::function<void()> operation, Completion completion)
{
    // Runs on the executor without interruption from reading serialTail to
    // storing the new task, so the chain is strictly first-in first-out.
    // A plain shared_future (invalid when there is no predecessor) rather than
    // a copy of the optional: GCC 12 at -O3 warns falsely that the optional's
    // copy may be used uninitialized, which broke Release builds.
    std::shared_future<void> previous;
    if (serialTail)
        previous = *serialTail;
    EQLog::trace("actor: enqueue called, hasPrevious=" + boolText(previous.valid()));

    auto finished = std::make_shared<std::promise<void>>();
    std::shared_future<void> task = finished->get_future().share();
    stepQueue->async([this, previous, operation = std::move(operation), finished, completion] {
        // The step thread already runs tasks in queue order; waiting for the
        // predecessor keeps the chain correct on its own terms.
        if (previous.valid())
            previous.wait();
        EQLog::trace("actor: enqueue running operation");
        bool alive;
        {
            std::lock_guard guard(lifeline->lock);
            alive = lifeline->alive;
        }
        if (alive) {
            try {
                operation();
            } catch (const Abandoned&) {
                // The coordinator is going away; the step ends here.
            }
        }
        EQLog::trace("actor: enqueue operation done");
        finished->set_value();
        executor->async([completion] {
            EQLog::trace("actor: enqueue returning");
            completion->set_value();
        });
    });
    serialTail = task;
}

template <typename Body>
auto AudioLifecycleCoordinator::isolated(Body&& body) -> decltype(body())
{
    using Result = decltype(body());
    if constexpr (std::is_void_v<Result>) {
        executor->sync([&] { body(); });
    } else {
        std::optional<Result> result;
        executor->sync([&] { result.emplace(body()); });
        return std::move(*result);
    }
}

std::exception_ptr AudioLifecycleCoordinator::runOnMain(const std::function<void()>& operation)
{
    struct Call {
        bool done = false;
        std::exception_ptr error;
    };
    auto call = std::make_shared<Call>();
    mainExecutor.post([lifeline = lifeline, call, operation] {
        {
            std::lock_guard guard(lifeline->lock);
            if (!lifeline->alive)
                return;
        }
        std::exception_ptr error;
        try {
            operation();
        } catch (...) {
            error = std::current_exception();
        }
        {
            std::lock_guard guard(lifeline->lock);
            call->done = true;
            call->error = error;
        }
        lifeline->changed.notify_all();
    });
    std::unique_lock guard(lifeline->lock);
    lifeline->changed.wait(guard, [&] { return call->done || !lifeline->alive; });
    if (!call->done)
        throw Abandoned {};
    return call->error;
}

void AudioLifecycleCoordinator::throwIfAbandoned() const
{
    std::lock_guard guard(lifeline->lock);
    if (!lifeline->alive)
        throw Abandoned {};
}

// --- Queued steps (step thread; field access through isolated) ------------

void AudioLifecycleCoordinator::performSetUserEnabled(bool enabled)
{
    enum class Next { nothing, stop, start };
    Next next = isolated([&] {
        EQLog::trace([&] {
            return "actor: performSetUserEnabled(" + boolText(enabled) + ") entered, userEnabled="
                + boolText(userEnabled) + ", state=" + stateText(state.load());
        });
        if (enabled != userEnabled)
            return Next::nothing; // a later request changed the wish; its own step acts
        if (!enabled)
            return Next::stop;
        switch (state.load()) {
        case AudioLifecycleState::starting:
        case AudioLifecycleState::running:
        case AudioLifecycleState::sleeping:
            return Next::nothing;
        default:
            return Next::start;
        }
    });
    if (next == Next::stop)
        stopIfNeeded(AudioLifecycleTrigger::userDisabled);
    else if (next == Next::start)
        startOnce(AudioLifecycleTrigger::userEnabled);
}

void AudioLifecycleCoordinator::performSleep()
{
    enum class Next { nothing, disable, stop };
    Next next = isolated([&] {
        EQLog::trace([&] { return "actor: performSleep entered, state=" + stateText(state.load()); });
        if (!userEnabled)
            return Next::disable;
        switch (state.load()) {
        case AudioLifecycleState::inactive:
            transition(AudioLifecycleState::sleeping);
            return Next::nothing;
        case AudioLifecycleState::sleeping:
            return Next::nothing;
        default:
            transition(AudioLifecycleState::stopping);
            return Next::stop;
        }
    });
    if (next == Next::disable) {
        stopIfNeeded(AudioLifecycleTrigger::sleep);
    } else if (next == Next::stop) {
        runOnMain(stopOperation);
        isolated([&] { transition(AudioLifecycleState::sleeping); });
    }
}

void AudioLifecycleCoordinator::performWake()
{
    bool proceed = isolated([&] {
        AudioLifecycleState current = state.load();
        EQLog::trace([&] {
            return "actor: performWake entered, state=" + stateText(current) + ", userEnabled=" + boolText(userEnabled);
        });
        bool resumable = current == AudioLifecycleState::inactive || current == AudioLifecycleState::failed
            || current == AudioLifecycleState::sleeping;
        if (!userEnabled || !resumable) {
            EQLog::trace("actor: performWake ignored");
            return false;
        }
        return true;
    });
    if (!proceed)
        return;
    bool result = recover(AudioLifecycleTrigger::wake);
    EQLog::trace("actor: performWake recover result=" + boolText(result));
}

void AudioLifecycleCoordinator::performRestart(AudioLifecycleTrigger trigger)
{
    bool proceed = isolated([&] {
        if (!userEnabled || state.load() != AudioLifecycleState::running)
            return false;
        transition(AudioLifecycleState::stopping);
        return true;
    });
    if (!proceed)
        return;
    runOnMain(stopOperation);
    // If the user switched off meanwhile, the request that did so is queued
    // behind this one and settles the state.
    if (isolated([&] { return userEnabled; }))
        startOnce(trigger);
}

void AudioLifecycleCoordinator::stopIfNeeded(AudioLifecycleTrigger)
{
    bool mustStop = isolated([&] {
        if (state.load() == AudioLifecycleState::inactive) {
            transition(AudioLifecycleState::inactive); // republished on purpose
            return false;
        }
        transition(AudioLifecycleState::stopping);
        return true;
    });
    if (!mustStop)
        return;
    runOnMain(stopOperation);
    isolated([&] { transition(AudioLifecycleState::inactive); });
}

bool AudioLifecycleCoordinator::startOnce(AudioLifecycleTrigger)
{
    bool proceed = isolated([&] {
        EQLog::trace("actor: startOnce entered");
        if (!userEnabled)
            return false;
        transition(AudioLifecycleState::starting);
        return true;
    });
    if (!proceed)
        return false;

    std::exception_ptr failure = runOnMain(startOperation);
    if (!failure) {
        isolated([&] {
            // Before storing the new time, so that it compares with the
            // previous success.
            resetFailureBudgetIfStable();
            lastSuccessfulStart = clock();
            transition(AudioLifecycleState::running);
        });
        return true;
    }

    // The start operation has told the user why; only the count matters here.
    runOnMain(stopOperation);
    isolated([&] {
        uint64_t now = clock();
        if (!failureWindowStart)
            failureWindowStart = now;
        failureCount += 1;
        transition(AudioLifecycleState::failed);
    });
    return false;
}

bool AudioLifecycleCoordinator::recover(AudioLifecycleTrigger trigger)
{
    std::optional<uint64_t> generation = isolated([&]() -> std::optional<uint64_t> {
        if (recoveryActive)
            return std::nullopt; // a loop is already running
        recoveryActive = true;
        recoveryGeneration += 1;
        transition(AudioLifecycleState::recovering);
        return recoveryGeneration;
    });
    if (!generation)
        return false;
    runOnMain(stopOperation);

    size_t attempt = 0;
    for (;;) {
        bool mayAttempt = isolated([&] {
            // Cancelled (the user switched off, the machine sleeps): leave the
            // state to the cancelling request's own step.
            if (!userEnabled || recoveryGeneration != *generation)
                return false;
            if (failureCount >= failureLimit) {
                transition(AudioLifecycleState::failed);
                return false;
            }
            return true;
        });
        if (!mayAttempt)
            break;

        if (startOnce(trigger)) {
            isolated([&] { recoveryActive = false; });
            return true;
        }

        std::optional<uint64_t> delay = isolated([&]() -> std::optional<uint64_t> {
            if (attempt < retryDelaysNanoseconds.size()) {
                transition(AudioLifecycleState::recovering);
            } else {
                transition(AudioLifecycleState::failed);
                return std::nullopt;
            }
            if (!userEnabled)
                return std::nullopt;
            uint64_t chosen = retryDelaysNanoseconds[attempt];
            attempt += 1;
            if (recoveryGeneration != *generation)
                return std::nullopt;
            return chosen;
        });
        if (!delay)
            break;
        // An interrupted sleep counts as finished; only destruction interrupts.
        sleeper(*delay, interruption.get_token());
        throwIfAbandoned();
    }

    isolated([&] { recoveryActive = false; });
    return false;
}

// --- Failure budget and state (executor thread) ---------------------------

void AudioLifecycleCoordinator::resetFailureBudgetIfStable()
{
    uint64_t now = clock();
    if (lastSuccessfulStart && now >= *lastSuccessfulStart && now - *lastSuccessfulStart >= stableResetNanoseconds) {
        resetFailureBudget();
        return;
    }
    if (failureWindowStart && now >= *failureWindowStart && now - *failureWindowStart >= failureWindowNanoseconds)
        resetFailureBudget();
}

void AudioLifecycleCoordinator::resetFailureBudget()
{
    failureCount = 0;
    failureWindowStart.reset();
    lastSuccessfulStart.reset();
}

void AudioLifecycleCoordinator::transition(AudioLifecycleState newState)
{
    state.store(newState);
    // Posted, never waited for: the main thread may be busy running the very
    // start or stop the coordinator is about to wait for.
    mainExecutor.post([lifeline = lifeline, publish = publishState, newState] {
        {
            std::lock_guard guard(lifeline->lock);
            if (!lifeline->alive)
                return;
        }
        publish(newState);
    });
}

} // namespace sorva
