// The lifecycle coordinator driven through its public requests. The test thread is the main thread
// (ManualMainExecutor), so start, stop and publications run only when a test runs the main queue; time comes
// from a fake clock and retry delays from a fake sleeper, so nothing waits for real beyond a few milliseconds.
// The default sleeper is the standard library's interruptible wait and has no test of its own.
#include "Audio/AudioLifecycleCoordinator.h"
#include "EngineTestSupport.h"
#include "Platform/ManualMainExecutor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace sorva;
using namespace std::chrono_literals;

namespace {

using Events = std::vector<std::string>;
using Request = std::function<std::future<void>(AudioLifecycleCoordinator&)>;
constexpr uint64_t second = 1'000'000'000ull;

const Request enable = [](AudioLifecycleCoordinator& c) { return c.setUserEnabled(true); };
const Request disable = [](AudioLifecycleCoordinator& c) { return c.setUserEnabled(false); };
const Request sleepNow = [](AudioLifecycleCoordinator& c) { return c.sleep(); };
const Request wake = [](AudioLifecycleCoordinator& c) { return c.wake(); };
const Request restart = [](AudioLifecycleCoordinator& c) { return c.restart(AudioLifecycleTrigger::deviceChange); };

class AudioLifecycleCoordinatorTest : public ::testing::Test {
public:
    AudioLifecycleCoordinatorTest() { fresh(); }
    ~AudioLifecycleCoordinatorTest() override
    {
        coordinator.reset();
        EXPECT_EQ(overlappingStarts, 0) << "an engine was started while it ran";
    }

    // A new coordinator with fresh counters; the old one's undelivered jobs become no-ops.
    void fresh()
    {
        coordinator.reset();
        main.runPending();
        events.clear();
        log.clear();
        startCalls = 0;
        startFails = engineRunning = false;
        delays.clear();
        coordinator = std::make_unique<AudioLifecycleCoordinator>(
            main,
            [this] {
                events.push_back("start");
                overlappingStarts += engineRunning;
                engineRunning = true; // a failed start may leave half an engine for the stop
                ++startCalls;
                if (startFails || (failEvery && startCalls % failEvery == 0))
                    throw std::runtime_error("no tap");
            },
            [this] {
                events.push_back("stop");
                engineRunning = false;
                if (auto hook = std::exchange(duringStop, nullptr))
                    hook();
            },
            [this](AudioLifecycleState state) { events.push_back(std::string(rawValue(state))); },
            // Records each delay and moves the clock on by it, running the test's hook on the step thread first.
            [this](uint64_t nanoseconds, std::stop_token) {
                delays.push_back(nanoseconds);
                if (auto hook = std::exchange(duringSleep, nullptr))
                    hook();
                clock += nanoseconds;
            },
            [this] { return clock.load(); });
    }

    // Runs the main thread until the request is carried out, then delivers what it posted last.
    void settle(std::future<void> request)
    {
        ASSERT_TRUE(main.runUntil([&] { return request.wait_for(0s) == std::future_status::ready; }, 10s))
            << "request not carried out";
        main.runPending();
    }
    void settle(const Request& request) { settle(request(*coordinator)); }

    size_t logged(const std::string& prefix) { return size_t(log.count(prefix, true)); }
    Events take() { return std::exchange(events, {}); }

    LogLines log;
    ManualMainExecutor main;
    std::atomic<uint64_t> clock { 1000 * second };
    std::vector<uint64_t> delays; // written by the step thread, read once a request is carried out
    std::function<void()> duringSleep;
    // Touched only on the test thread, which is the main thread.
    Events events;
    int startCalls = 0, failEvery = 0, overlappingStarts = 0;
    bool startFails = false, engineRunning = false;
    std::function<void()> duringStop;
    std::unique_ptr<AudioLifecycleCoordinator> coordinator;
};

} // namespace

// One row per state a queued step can find, one column per request; each cell starts from a fresh coordinator.
TEST_F(AudioLifecycleCoordinatorTest, TransitionTablePublishesExactlyTheEnteredStates)
{
    using Fixture = AudioLifecycleCoordinatorTest;
    using Step = std::function<void(Fixture&)>;
    auto request = [](Request r) -> Step { return [r](Fixture& t) { t.settle(r); }; };
    Step none = [](Fixture&) {};
    Step running = request(enable);
    Step failed = [](Fixture& t) {
        t.startFails = true;
        t.settle(enable);
        t.startFails = false;
    };
    Step sleeping = [](Fixture& t) { t.settle(enable); t.settle(sleepNow); };
    // Requests made while the first request's stop runs. Queuing a request and a switch-on behind a switch-off is
    // the only way a step finds the state inactive with the user's wish on.
    auto whileStopping = [](Request first, std::vector<Request> queued) -> Step {
        return [=](Fixture& t) {
            std::vector<std::future<void>> futures;
            t.duringStop = [&] {
                for (auto& r : queued)
                    futures.push_back(r(*t.coordinator));
            };
            t.settle(first);
            for (auto& f : futures)
                t.settle(std::move(f));
        };
    };
    const Events startOk { "starting", "start", "running" };
    const Events recoverOk { "recovering", "stop", "starting", "start", "running" };
    const Events offOk { "stopping", "stop", "inactive" };
    struct Cell { const char* name; Step setup, request; Events expected; };
    const std::vector<Cell> cells {
        { "inactive/enable", none, request(enable), startOk },
        { "inactive/disable", none, request(disable), { "inactive" } },
        { "inactive/sleep while off", none, request(sleepNow), { "inactive" } },
        { "inactive/wake while off", none, request(wake), {} },
        { "inactive/restart while off", none, request(restart), {} },
        // The trailing switch-on finds the request's result: asleep stays asleep, running stays, inactive starts.
        { "inactive enabled/sleep", running, whileStopping(disable, { sleepNow, enable }),
          { "stopping", "stop", "inactive", "sleeping" } },
        { "inactive enabled/wake", running, whileStopping(disable, { wake, enable }),
          { "stopping", "stop", "inactive", "recovering", "stop", "starting", "start", "running" } },
        { "inactive enabled/restart", running, whileStopping(disable, { restart, enable }),
          { "stopping", "stop", "inactive", "starting", "start", "running" } },
        { "running/enable", running, request(enable), {} },
        { "running/disable", running, request(disable), offOk },
        { "running/sleep", running, request(sleepNow), { "stopping", "stop", "sleeping" } },
        { "running/wake", running, request(wake), {} },
        { "running/restart", running, request(restart), { "stopping", "stop", "starting", "start", "running" } },
        // The restart leaves stopping for the switch-off queued behind it to settle.
        { "running/restart overtaken by a switch-off", running, whileStopping(restart, { disable }),
          { "stopping", "stop", "stopping", "stop", "inactive" } },
        { "failed/enable", failed, request(enable), startOk },
        { "failed/disable", failed, request(disable), offOk },
        { "failed/sleep", failed, request(sleepNow), { "stopping", "stop", "sleeping" } },
        { "failed/wake", failed, request(wake), recoverOk },
        { "failed/restart", failed, request(restart), {} },
        { "sleeping/enable", sleeping, request(enable), {} },
        { "sleeping/disable", sleeping, request(disable), offOk },
        { "sleeping/sleep", sleeping, request(sleepNow), {} },
        { "sleeping/wake", sleeping, request(wake), recoverOk },
        { "sleeping/restart", sleeping, request(restart), {} },
    };
    for (const auto& cell : cells) {
        SCOPED_TRACE(cell.name);
        fresh();
        cell.setup(*this);
        events.clear();
        cell.request(*this);
        EXPECT_EQ(events, cell.expected);
        if (!cell.expected.empty()) {
            EXPECT_EQ(std::string(rawValue(coordinator->currentState())), cell.expected.back());
        }
    }
}

TEST_F(AudioLifecycleCoordinatorTest, RecoveryWithAStartThatAlwaysFailsGivesUpAfterThreeAttempts)
{
    settle(enable);
    settle(sleepNow);
    startFails = true;
    events.clear();
    settle(wake);
    Events expected { "recovering", "stop" };
    for (int i = 0; i < 3; ++i)
        expected.insert(expected.end(), { "starting", "start", "stop", "failed", "recovering" });
    expected.push_back("failed");
    EXPECT_EQ(take(), expected); // 3 starts, 4 stops
    EXPECT_EQ(delays, (std::vector<uint64_t> { 1 * second, 2 * second, 4 * second }));
    EXPECT_EQ(logged("actor: performWake recover result=false"), 1u);

    // With the budget used up a wake fails again without a start; switching off and on resets the budget.
    settle(wake);
    EXPECT_EQ(take(), (Events { "recovering", "stop", "failed" }));
    startFails = false;
    settle(disable);
    settle(enable);
    EXPECT_EQ(take(), (Events { "stopping", "stop", "inactive", "starting", "start", "running" }));
}

// Failures, then successes (the first by switching on, later ones by restarts), then a failing recovery: it gets
// 3 starts if a success reset the budget, 1 if the two failures still count.
TEST_F(AudioLifecycleCoordinatorTest, SuccessKeepsTheCountUntilStableFor30SecondsOr60SecondsAfterTheFirstFailure)
{
    struct Case { const char* name; std::vector<double> failures, successes; int recoveryStarts; }; // seconds
    const std::vector<Case> cases {
        { "a success 29.9 s after a success keeps the count", { 0, 1 }, { 2, 31.9 }, 1 },
        { "a success 30 s after a success resets", { 0, 1 }, { 2, 32 }, 3 },
        { "a success 59.9 s after the first failure keeps the count", { 0, 1 }, { 40, 59.9 }, 1 },
        { "a success 60 s after the first failure resets, 20 s after a success", { 0, 1 }, { 40, 60 }, 3 },
        { "time alone never resets", { 0, 600 }, {}, 1 },
    };
    uint64_t base = clock;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        base += 1000 * second;
        auto at = [&](double seconds) { clock = base + uint64_t(std::llround(seconds * 1e9)); };
        startFails = true;
        for (double t : c.failures) {
            at(t);
            settle(enable);
            ASSERT_EQ(coordinator->currentState(), AudioLifecycleState::failed);
        }
        startFails = false;
        for (size_t i = 0; i < c.successes.size(); ++i) {
            at(c.successes[i]);
            settle(i == 0 ? enable : restart);
            ASSERT_EQ(coordinator->currentState(), AudioLifecycleState::running);
        }
        settle(sleepNow);
        startFails = true;
        events.clear();
        settle(wake);
        EXPECT_EQ(std::count(events.begin(), events.end(), "start"), c.recoveryStarts);
        startFails = false;
        settle(disable);
    }
}

// A failing recovery meets other requests while it waits out its first retry delay, or earlier, while its failed
// attempt is cleaned up. Those that cancel it end the loop without another attempt (after the delay, or before
// any delay), leaving the state to their own steps; a wake does not cancel it.
TEST_F(AudioLifecycleCoordinatorTest, RequestsDuringARecoveryCancelItUnlessTheyAreWakes)
{
    struct Case { const char* name; bool duringCleanup; std::vector<Request> requests; Events tail; const char* result; };
    const std::vector<Case> cases {
        { "sleep", false, { sleepNow }, { "stopping", "stop", "sleeping" }, "false" },
        { "switch-off", false, { disable }, { "stopping", "stop", "inactive" }, "false" },
        { "off and on", false, { disable, enable }, { "starting", "start", "running" }, "false" },
        { "wake", false, { wake }, { "starting", "start", "running" }, "true" },
        { "sleep during the cleanup", true, { sleepNow }, { "stopping", "stop", "sleeping" }, "false" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        settle(enable);
        settle(sleepNow);
        events.clear();
        startFails = true;
        std::vector<std::future<void>> futures;
        auto issue = [&] {
            startFails = false;
            for (auto& r : c.requests)
                futures.push_back(r(*coordinator));
        };
        if (c.duringCleanup)
            duringStop = [&] { duringStop = issue; }; // the second stop follows the failed start
        else
            duringSleep = issue; // a loop that failed to cancel would start again after the delay
        settle(coordinator->wake());
        for (auto& f : futures)
            settle(std::move(f));
        Events expected { "recovering", "stop", "starting", "start", "stop", "failed", "recovering" };
        expected.insert(expected.end(), c.tail.begin(), c.tail.end());
        EXPECT_EQ(take(), expected);
        EXPECT_EQ(delays.size(), c.duringCleanup ? 0u : 1u);
        EXPECT_EQ(logged(std::string("actor: performWake recover result=") + c.result), 1u);
    }
}

// Requests from many threads at once, every third start failing: the engine is never started while it runs
// (checked on teardown) and a shutdown queued last leaves it off.
TEST_F(AudioLifecycleCoordinatorTest, ConcurrentRequestsNeverOverlap)
{
    failEvery = 3;
    const Request* kinds[] = { &enable, &disable, &sleepNow, &wake, &restart };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(1234u + t);
            for (int i = 0; i < 60; ++i)
                (*kinds[random() % 5])(*coordinator);
        });
    for (auto& thread : threads)
        thread.join();
    settle(coordinator->shutdown());
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "inactive");
    EXPECT_FALSE(engineRunning);
    EXPECT_EQ(logged("actor: enqueue running operation"), logged("actor: enqueue operation done"));
}

TEST_F(AudioLifecycleCoordinatorTest, DestructionReleasesAStepWaitingForTheMainThread)
{
    std::future<void> on = coordinator->setUserEnabled(true);
    // Poll, without running the main thread, until the step enters the start.
    for (auto deadline = std::chrono::steady_clock::now() + 10s; !logged("actor: startOnce entered");)
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the step never started";
    // The step now waits for the main thread, which is this thread.
    coordinator.reset();
    EXPECT_EQ(on.wait_for(5s), std::future_status::ready);
    main.runPending();
    EXPECT_TRUE(events.empty()) << "a start or a publication reached the owner after destruction";
}
