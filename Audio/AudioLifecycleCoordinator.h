// AudioLifecycleCoordinator decides when the capture engine is started,
// stopped, put to sleep, woken, restarted and retried after failures. It owns
// no audio object: the owner hands in a start and a stop operation, and every
// state the coordinator enters is handed back through publishState.
//
// Guarantees:
//  - requests are carried out one at a time, in the order in which they reach
//    the coordinator, whatever threads they come from;
//  - a request overtaken by a newer one (the user switched off again, the
//    machine went to sleep) gives up at its next decision point;
//  - start failures are bounded: at most 3 failed starts per budget, retry
//    delays of 1 s, 2 s and 4 s, and the budget is reset by a success after a
//    stable period.
//
// Threading contract:
//  - Every public call may be made from any thread, the main thread included,
//    and never blocks: it posts the request to the coordinator and returns a
//    future that becomes ready once the request has been carried out. Never
//    wait for that future on the main thread: carrying out a request needs the
//    main thread (start and stop run there), so waiting there deadlocks.
//  - startOperation, stopOperation and publishState always run on the main
//    thread, posted through the injected MainExecutor's single FIFO queue, so
//    observers see publications in the order the states were entered and in
//    order with the start and stop calls. Only the coordinator's own thread
//    waits for start and stop; publications are never waited for.
//  - Two threads of our own. The executor thread ("com.sorva.app.lifecycle")
//    is the only thread that reads or writes the coordinator's fields: it runs
//    the immediate part of each request (the bookkeeping done at once, such as
//    bumping recoveryGeneration) and every field-touching segment of the
//    queued steps. The step thread ("com.sorva.app.lifecycle.steps") runs the
//    queued steps (perform...) one after another in request order; a step
//    hands each of its decisions to the executor thread and waits there, and
//    it waits for the main thread and for retry delays on its own thread, so
//    that while one step is suspended the executor stays free for the
//    immediate parts of newer requests (which is how a newer request cancels a
//    recovery that is waiting out a retry delay).
//  - startOperation reports a failure by throwing (any exception). The
//    exception is caught on the main thread, and the coordinator counts the
//    failure and drops the error; the start operation reports it to the user
//    itself. stopOperation must not fail; an exception from it is swallowed.
//  - The sleeper runs on the step thread. It must return after the given
//    number of nanoseconds or as soon as the stop token is triggered (which
//    happens only when the coordinator is destroyed); an interrupted sleep
//    counts as a finished one.
//  - Destruction (from any thread, the main thread included) cancels waits for
//    the main thread and interrupts a sleep, lets queued steps finish as no-ops
//    and fulfils every outstanding future. Once the destructor has begun, jobs
//    the coordinator had posted to the main thread and that have not started
//    yet no longer call startOperation, stopOperation or publishState (so an
//    owner destroyed on the main thread is never called back). It does not
//    stop a running engine: the owner tears down its engine itself. Do not
//    destroy it from inside the sleeper (the step thread would join itself).
//  - Futures become ready on the executor thread, after the request's last
//    publication has been posted (not necessarily delivered).
//
// Typical owner, on the main thread:
//   coordinator = std::make_unique<AudioLifecycleCoordinator>(mainExecutor,
//       [this] { startProcessor(); },   // throws on failure, after reporting it
//       [this] { stopProcessor(); },
//       [this](AudioLifecycleState state) { lifecycleStateChanged(state); });
//   coordinator->setUserEnabled(true); // the future may be dropped
#pragma once

#include "Audio/AudioLifecycleState.h"
#include "Audio/AudioLifecycleTrigger.h"
#include "Platform/MainExecutor.h"
#include "Platform/MonotonicClock.h"
#include "Platform/SerialQueue.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace sorva {

class AudioLifecycleCoordinator {
public:
    // Runs on the main thread; throws to report that the engine did not start.
    using StartOperation = std::function<void()>;
    // Runs on the main thread; stops and releases the engine; safe to call at
    // any time and repeatedly.
    using StopOperation = std::function<void()>;
    // Runs on the main thread with every state entered, in order.
    using PublishState = std::function<void(AudioLifecycleState)>;
    // Waits nanoseconds, or less if interruption is triggered.
    using Sleeper = std::function<void(uint64_t nanoseconds, std::stop_token interruption)>;

    // Waits on a condition variable for the given time; an interruption ends
    // the wait early and counts as the end of the sleep.
    static Sleeper defaultSleeper();

    AudioLifecycleCoordinator(MainExecutor& mainExecutor, StartOperation startOperation, StopOperation stopOperation,
                              PublishState publishState, Sleeper sleeper = defaultSleeper(),
                              NanosecondClock clock = monotonicNanoseconds);
    ~AudioLifecycleCoordinator();
    AudioLifecycleCoordinator(const AudioLifecycleCoordinator&) = delete;
    AudioLifecycleCoordinator& operator=(const AudioLifecycleCoordinator&) = delete;

    // The state last entered. It may be ahead of what publishState has
    // delivered so far, since publications wait for the main thread.
    AudioLifecycleState currentState() const;

    // The user switched processing on or off. Switching off also cancels a
    // running recovery and resets the failure budget.
    std::future<void> setUserEnabled(bool enabled);
    // The machine is about to sleep: stops the engine (state sleeping) and
    // cancels a running recovery.
    std::future<void> sleep();
    // The machine woke up: if the user wants processing and the engine is not
    // running, starts a recovery (retries with delays, within the budget).
    std::future<void> wake();
    // Stops and starts the engine again if it is running (device change,
    // configuration change, a silent tap); dropped in any other state.
    std::future<void> restart(AudioLifecycleTrigger trigger);
    // Stops the engine and disables processing for good: exactly
    // setUserEnabled(false). A later setUserEnabled(true) could switch it on
    // again; the owner calls this when it is about to go away.
    std::future<void> shutdown();

private:
    using Completion = std::shared_ptr<std::promise<void>>;
    struct Lifeline;
    // Thrown on the step thread when the coordinator is being destroyed while a
    // step waits; ends the step.
    struct Abandoned { };

    std::future<void> submit(std::function<void(Completion)> immediatePart);
    void enqueue(std::function<void()> operation, Completion completion);

    void performSetUserEnabled(bool enabled);
    void performSleep();
    void performWake();
    void performRestart(AudioLifecycleTrigger trigger);
    void stopIfNeeded(AudioLifecycleTrigger trigger);
    bool startOnce(AudioLifecycleTrigger trigger);
    bool recover(AudioLifecycleTrigger trigger);
    void resetFailureBudgetIfStable();
    void resetFailureBudget();
    void transition(AudioLifecycleState newState);

    // Runs body on the executor thread and waits for it (called by steps).
    template <typename Body>
    auto isolated(Body&& body) -> decltype(body());
    // Runs operation on the main thread and waits for it; returns what it
    // threw. Throws Abandoned if the coordinator is being destroyed.
    std::exception_ptr runOnMain(const std::function<void()>& operation);
    void throwIfAbandoned() const;

    MainExecutor& mainExecutor;
    NanosecondClock clock;
    std::shared_ptr<Lifeline> lifeline;
    std::stop_source interruption;

    // The four operations are set once by the constructor and only read
    // (copied into posted jobs) afterwards. Every other field below is read
    // and written only on the executor thread; state is atomic as well so that
    // currentState() can read it from anywhere.
    StartOperation startOperation;
    StopOperation stopOperation;
    PublishState publishState;
    Sleeper sleeper;
    std::atomic<AudioLifecycleState> state { AudioLifecycleState::inactive };
    bool userEnabled = false;
    uint64_t recoveryGeneration = 0;
    bool recoveryActive = false;
    int64_t failureCount = 0;
    std::optional<uint64_t> failureWindowStart;
    const int64_t failureLimit = 3;
    const uint64_t failureWindowNanoseconds = 60'000'000'000ull;
    std::optional<uint64_t> lastSuccessfulStart;
    const uint64_t stableResetNanoseconds = 30'000'000'000ull;
    const std::vector<uint64_t> retryDelaysNanoseconds { 1'000'000'000ull, 2'000'000'000ull, 4'000'000'000ull };
    // The most recently queued request's completion; never cleared.
    std::optional<std::shared_future<void>> serialTail;
    // Set by the destructor: later immediate parts queue nothing.
    bool closed = false;

    // Created last and destroyed first (explicitly, steps before executor), so
    // their threads never see a half-destroyed coordinator.
    std::unique_ptr<SerialQueue> executor;
    std::unique_ptr<SerialQueue> stepQueue;
};

} // namespace sorva
