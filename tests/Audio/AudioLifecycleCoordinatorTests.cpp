// The lifecycle coordinator driven through its public requests. The test
// thread is the main thread (ManualMainExecutor): start, stop and publications
// run only when a test runs the main queue, which lets a test hold a step in
// the middle of a stop. Time comes from a fake clock and retry delays from a
// fake sleeper, so nothing here waits for real beyond a few milliseconds.
#include "Audio/AudioLifecycleCoordinator.h"
#include "Audio/EQLog.h"
#include "Platform/ManualMainExecutor.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace sorva;
using namespace std::chrono_literals;

namespace {

using Events = std::vector<std::string>;

constexpr uint64_t second = 1'000'000'000ull;

struct FakeClock {
    std::atomic<uint64_t> now { 1000 * second };
};

// Records each requested delay and moves the fake clock on by it. When
// blocking, each sleep waits until the test releases it (or the coordinator
// interrupts it).
struct FakeSleeper {
    std::mutex lock;
    std::condition_variable_any changed;
    std::vector<uint64_t> delays;
    bool blocking = false;
    size_t released = 0;

    void sleep(uint64_t nanoseconds, std::stop_token interruption, FakeClock& clock)
    {
        std::unique_lock guard(lock);
        delays.push_back(nanoseconds);
        size_t index = delays.size();
        changed.notify_all();
        if (blocking)
            changed.wait(guard, interruption, [&] { return released >= index; });
        clock.now += nanoseconds;
    }

    std::vector<uint64_t> recorded()
    {
        std::lock_guard guard(lock);
        return delays;
    }

    void releaseOne()
    {
        std::lock_guard guard(lock);
        ++released;
        changed.notify_all();
    }
};

// Every "actor:" trace line with the thread that logged it.
class LogCapture {
public:
    LogCapture()
    {
        EQLog::setObserver([this](const std::string& line) {
            if (line.rfind("actor:", 0) != 0)
                return;
            std::lock_guard guard(lock);
            lines.push_back({ std::this_thread::get_id(), line });
        });
    }
    ~LogCapture() { EQLog::setObserver({}); }

    std::vector<std::string> text()
    {
        std::lock_guard guard(lock);
        std::vector<std::string> result;
        for (auto& entry : lines)
            result.push_back(entry.second);
        return result;
    }

    std::vector<std::pair<std::thread::id, std::string>> entries()
    {
        std::lock_guard guard(lock);
        return lines;
    }

    size_t count(const std::string& line)
    {
        std::lock_guard guard(lock);
        size_t n = 0;
        for (auto& entry : lines)
            n += entry.second == line;
        return n;
    }

    size_t countStartingWith(const std::string& prefix)
    {
        std::lock_guard guard(lock);
        size_t n = 0;
        for (auto& entry : lines)
            n += entry.second.rfind(prefix, 0) == 0;
        return n;
    }

private:
    std::mutex lock;
    std::vector<std::pair<std::thread::id, std::string>> lines;
};

// Public so that the transition table's recipes (plain lambdas) can use it.
class AudioLifecycleCoordinatorTest : public ::testing::Test {
public:
    AudioLifecycleCoordinatorTest() { makeCoordinator(); }

    void makeCoordinator()
    {
        coordinator = std::make_unique<AudioLifecycleCoordinator>(
            main,
            [this] {
                events.push_back("start");
                ++startCalls;
                if (startFails)
                    throw std::runtime_error("no tap");
            },
            [this] {
                events.push_back("stop");
                ++stopCalls;
                if (duringStop) {
                    auto hook = std::move(duringStop);
                    duringStop = nullptr;
                    hook();
                }
            },
            [this](AudioLifecycleState state) { events.push_back(std::string(rawValue(state))); },
            [this](uint64_t nanoseconds, std::stop_token interruption) {
                sleeper.sleep(nanoseconds, interruption, clock);
            },
            [this] { return clock.now.load(); });
    }

    // Runs the main thread until the request has been carried out, then
    // delivers what it posted last.
    void settle(std::future<void> request)
    {
        ASSERT_TRUE(main.runUntil([&] { return request.wait_for(0s) == std::future_status::ready; }, 10s))
            << "request not carried out";
        main.runPending();
    }

    // Waits, without running the main thread, until a line starting with
    // prefix has been logged count times (immediate parts need only the
    // coordinator's executor).
    void awaitLog(const std::string& prefix, size_t count = 1)
    {
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (log.countStartingWith(prefix) < count) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "never logged: " << prefix;
            std::this_thread::sleep_for(100us);
        }
    }

    // Waits, without running them, until count jobs wait for the main thread.
    void awaitMainJobs(size_t count)
    {
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (main.pendingJobs() < count) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "main thread never asked for";
            std::this_thread::sleep_for(100us);
        }
    }

    Events takeEvents() { return std::exchange(events, {}); }

    void reachRunning() { settle(coordinator->setUserEnabled(true)); }

    LogCapture log;
    ManualMainExecutor main;
    FakeClock clock;
    FakeSleeper sleeper;
    // Touched only on the test thread, which is the main thread.
    Events events;
    int startCalls = 0;
    int stopCalls = 0;
    bool startFails = false;
    std::function<void()> duringStop;
    std::unique_ptr<AudioLifecycleCoordinator> coordinator;
};

} // namespace

TEST(AudioLifecycleState, RawValuesAreTheCaseNamesAndBuildTheStateBack)
{
    const std::map<std::string, AudioLifecycleState> expected {
        { "inactive", AudioLifecycleState::inactive }, { "starting", AudioLifecycleState::starting },
        { "running", AudioLifecycleState::running }, { "stopping", AudioLifecycleState::stopping },
        { "failed", AudioLifecycleState::failed }, { "sleeping", AudioLifecycleState::sleeping },
        { "recovering", AudioLifecycleState::recovering },
    };
    for (const auto& [raw, state] : expected) {
        EXPECT_EQ(rawValue(state), raw);
        EXPECT_EQ(audioLifecycleStateFromRawValue(raw), state);
    }
    for (std::string unknown : { "", "Running", "running ", "idle", "recovering\n" })
        EXPECT_EQ(audioLifecycleStateFromRawValue(unknown), std::nullopt) << unknown;
    EXPECT_EQ(caseName(AudioLifecycleTrigger::configurationChange), "configurationChange");
    EXPECT_EQ(caseName(AudioLifecycleTrigger::tapWedged), "tapWedged");
}

// One row per state a queued step can find, one column per request; each
// cell starts from a fresh coordinator brought into the row's state.
TEST_F(AudioLifecycleCoordinatorTest, TransitionTablePublishesExactlyTheEnteredStates)
{
    using Step = std::function<void(AudioLifecycleCoordinatorTest&)>;
    auto request = [](auto call) -> Step { return [call](AudioLifecycleCoordinatorTest& t) { t.settle(call(*t.coordinator)); }; };
    Step enable = request([](AudioLifecycleCoordinator& c) { return c.setUserEnabled(true); });
    Step disable = request([](AudioLifecycleCoordinator& c) { return c.setUserEnabled(false); });
    Step sleep = request([](AudioLifecycleCoordinator& c) { return c.sleep(); });
    Step wake = request([](AudioLifecycleCoordinator& c) { return c.wake(); });
    Step restart = request([](AudioLifecycleCoordinator& c) { return c.restart(AudioLifecycleTrigger::deviceChange); });

    Step fresh = [](AudioLifecycleCoordinatorTest&) {};
    Step running = enable;
    Step failed = [](AudioLifecycleCoordinatorTest& t) {
        t.startFails = true;
        t.settle(t.coordinator->setUserEnabled(true));
        t.startFails = false;
    };
    Step sleeping = [](AudioLifecycleCoordinatorTest& t) {
        t.settle(t.coordinator->setUserEnabled(true));
        t.settle(t.coordinator->sleep());
    };

    // "inactive with the user's wish on" exists only between a switch-off and
    // a switch-on: the request under test is queued while the switch-off step
    // is stopping, and a switch-on is queued right behind it.
    auto inactiveEnabledThen = [](std::function<std::future<void>(AudioLifecycleCoordinator&)> call) -> Step {
        return [call](AudioLifecycleCoordinatorTest& t) {
            t.settle(t.coordinator->setUserEnabled(true));
            t.takeEvents();
            std::vector<std::future<void>> queued;
            t.duringStop = [&] {
                queued.push_back(call(*t.coordinator));
                queued.push_back(t.coordinator->setUserEnabled(true));
            };
            t.settle(t.coordinator->setUserEnabled(false));
            for (auto& f : queued)
                t.settle(std::move(f));
        };
    };
    const Events offPrefix { "stopping", "stop", "inactive" };
    auto after = [&](Events tail) {
        Events all = offPrefix;
        all.insert(all.end(), tail.begin(), tail.end());
        return all;
    };

    struct Cell {
        const char* name;
        Step setup;
        Step request;
        Events expected;
    };
    const Events startOk { "starting", "start", "running" };
    const Events recoverOk { "recovering", "stop", "starting", "start", "running" };
    std::vector<Cell> cells {
        { "inactive/enable", fresh, enable, startOk },
        { "inactive/disable", fresh, disable, { "inactive" } },
        { "inactive/sleep while off", fresh, sleep, { "inactive" } },
        { "inactive/wake while off", fresh, wake, {} },
        { "inactive/restart while off", fresh, restart, {} },
        // The trailing switch-on finds the request's result (sleeping stays
        // asleep, running stays running, inactive starts).
        { "inactive enabled/sleep", fresh, inactiveEnabledThen([](auto& c) { return c.sleep(); }), after({ "sleeping" }) },
        { "inactive enabled/wake", fresh, inactiveEnabledThen([](auto& c) { return c.wake(); }), after(recoverOk) },
        { "inactive enabled/restart", fresh,
          inactiveEnabledThen([](auto& c) { return c.restart(AudioLifecycleTrigger::tapWedged); }), after(startOk) },

        { "running/enable", running, enable, {} },
        { "running/disable", running, disable, { "stopping", "stop", "inactive" } },
        { "running/sleep", running, sleep, { "stopping", "stop", "sleeping" } },
        { "running/wake", running, wake, {} },
        { "running/restart", running, restart, { "stopping", "stop", "starting", "start", "running" } },

        { "failed/enable", failed, enable, startOk },
        { "failed/disable", failed, disable, { "stopping", "stop", "inactive" } },
        { "failed/sleep", failed, sleep, { "stopping", "stop", "sleeping" } },
        { "failed/wake", failed, wake, recoverOk },
        { "failed/restart", failed, restart, {} },

        { "sleeping/enable", sleeping, enable, {} },
        { "sleeping/disable", sleeping, disable, { "stopping", "stop", "inactive" } },
        { "sleeping/sleep", sleeping, sleep, {} },
        { "sleeping/wake", sleeping, wake, recoverOk },
        { "sleeping/restart", sleeping, restart, {} },
    };

    for (auto& cell : cells) {
        SCOPED_TRACE(cell.name);
        coordinator.reset();
        main.runPending();
        events.clear();
        makeCoordinator();
        cell.setup(*this);
        events.clear();
        cell.request(*this);
        EXPECT_EQ(events, cell.expected);
        if (!cell.expected.empty()) {
            EXPECT_EQ(std::string(rawValue(coordinator->currentState())), cell.expected.back());
        }
    }
}

// A restart whose stop is overtaken by a switch-off leaves the state at
// stopping; the switch-off queued behind it settles it.
TEST_F(AudioLifecycleCoordinatorTest, RestartOvertakenBySwitchOffLeavesStoppingForTheSwitchOffToSettle)
{
    reachRunning();
    takeEvents();
    std::future<void> off;
    duringStop = [&] { off = coordinator->setUserEnabled(false); };
    settle(coordinator->restart(AudioLifecycleTrigger::configurationChange));
    settle(std::move(off));
    EXPECT_EQ(takeEvents(), (Events { "stopping", "stop", "stopping", "stop", "inactive" }));
    EXPECT_EQ(startCalls, 1);
    EXPECT_EQ(log.count("actor: performSetUserEnabled(false) entered, userEnabled=false, state=stopping"), 1u);
}

TEST_F(AudioLifecycleCoordinatorTest, RecoveryWithAStartThatAlwaysFailsGivesUpAfterThreeAttempts)
{
    reachRunning();
    settle(coordinator->sleep());
    startFails = true;
    startCalls = stopCalls = 0;
    takeEvents();

    settle(coordinator->wake());
    const Events oneFailure { "starting", "start", "stop", "failed", "recovering" };
    Events expected { "recovering", "stop" };
    for (int i = 0; i < 3; ++i)
        expected.insert(expected.end(), oneFailure.begin(), oneFailure.end());
    expected.push_back("failed");
    EXPECT_EQ(takeEvents(), expected);
    EXPECT_EQ(startCalls, 3);
    EXPECT_EQ(stopCalls, 4);
    EXPECT_EQ(sleeper.recorded(), (std::vector<uint64_t> { 1 * second, 2 * second, 4 * second }));
    EXPECT_EQ(log.count("actor: performWake recover result=false"), 1u);

    // With the budget used up, a wake recovers no further: it stops and fails
    // again without a start.
    settle(coordinator->wake());
    EXPECT_EQ(takeEvents(), (Events { "recovering", "stop", "failed" }));
    EXPECT_EQ(startCalls, 3);

    // Switching off and on resets the budget and starts once.
    startFails = false;
    settle(coordinator->setUserEnabled(false));
    settle(coordinator->setUserEnabled(true));
    EXPECT_EQ(takeEvents(), (Events { "stopping", "stop", "inactive", "starting", "start", "running" }));
}

class AudioLifecycleBudgetTest : public AudioLifecycleCoordinatorTest {
protected:
    // From running: sleeps, lets every start fail, and wakes. Returns how many
    // starts the recovery made, which is 3 minus the failures already counted.
    int startsOfAFailingRecovery()
    {
        EXPECT_EQ(coordinator->currentState(), AudioLifecycleState::running);
        settle(coordinator->sleep());
        startFails = true;
        int before = startCalls;
        settle(coordinator->wake());
        startFails = false;
        return startCalls - before;
    }

    void failedStart(uint64_t at)
    {
        clock.now = at;
        startFails = true;
        settle(coordinator->setUserEnabled(true));
        startFails = false;
        EXPECT_EQ(coordinator->currentState(), AudioLifecycleState::failed);
    }

    void successfulStart(uint64_t at, bool byRestart)
    {
        clock.now = at;
        settle(byRestart ? coordinator->restart(AudioLifecycleTrigger::deviceChange) : coordinator->setUserEnabled(true));
        EXPECT_EQ(coordinator->currentState(), AudioLifecycleState::running);
    }
};

TEST_F(AudioLifecycleBudgetTest, SuccessKeepsTheCountUntilStableFor30SecondsOr60SecondsAfterTheFirstFailure)
{
    const uint64_t t0 = clock.now;
    {
        SCOPED_TRACE("two failures, a success, a success 29.9 s later: count stays 2");
        failedStart(t0);
        failedStart(t0 + 1 * second);
        successfulStart(t0 + 2 * second, false);
        successfulStart(t0 + 2 * second + 29'900'000'000ull, true);
        EXPECT_EQ(startsOfAFailingRecovery(), 1);
    }
    settle(coordinator->setUserEnabled(false));
    {
        SCOPED_TRACE("a success 30 s after the previous success resets");
        failedStart(t0 + 100 * second);
        failedStart(t0 + 101 * second);
        successfulStart(t0 + 102 * second, false);
        successfulStart(t0 + 132 * second, true);
        EXPECT_EQ(startsOfAFailingRecovery(), 3);
    }
    settle(coordinator->setUserEnabled(false));
    {
        SCOPED_TRACE("a success 60 s after the first failure resets, even soon after a success");
        failedStart(t0 + 200 * second);
        failedStart(t0 + 201 * second);
        successfulStart(t0 + 240 * second, false);
        successfulStart(t0 + 259 * second, true); // 19 s after the success, 59 s after the failure
        successfulStart(t0 + 260 * second, true); // 1 s after the success, 60 s after the failure
        EXPECT_EQ(startsOfAFailingRecovery(), 3);
    }
    settle(coordinator->setUserEnabled(false));
    {
        SCOPED_TRACE("time alone never resets: a failure 10 minutes after the first still adds to it");
        failedStart(t0 + 300 * second);
        failedStart(t0 + 900 * second);
        startFails = true;
        int before = startCalls;
        settle(coordinator->wake());
        EXPECT_EQ(startCalls - before, 1);
        EXPECT_EQ(coordinator->currentState(), AudioLifecycleState::failed);
    }
}

TEST_F(AudioLifecycleCoordinatorTest, SleepDuringARetryDelayEndsTheLoopAfterTheDelayWithoutAnotherAttempt)
{
    reachRunning();
    settle(coordinator->sleep());
    startFails = true;
    sleeper.blocking = true;
    takeEvents();

    std::future<void> woken = coordinator->wake();
    ASSERT_TRUE(main.runUntil([&] { return !sleeper.recorded().empty(); }, 10s));
    main.runPending();
    EXPECT_EQ(takeEvents(), (Events { "recovering", "stop", "starting", "start", "stop", "failed", "recovering" }));

    // The sleep's immediate part cancels the loop while it waits out its delay.
    std::future<void> asleep = coordinator->sleep();
    awaitLog("actor: enqueue called, hasPrevious=true", 3);
    sleeper.releaseOne();
    settle(std::move(woken));
    settle(std::move(asleep));
    EXPECT_EQ(takeEvents(), (Events { "stopping", "stop", "sleeping" }));
    EXPECT_EQ(startCalls, 2); // the first start plus the one recovery attempt
    EXPECT_EQ(sleeper.recorded().size(), 1u);
    EXPECT_EQ(log.count("actor: performWake recover result=false"), 1u);

    // The cancelled loop no longer counts as running: the next wake recovers.
    startFails = false;
    settle(coordinator->wake());
    EXPECT_EQ(takeEvents(), (Events { "recovering", "stop", "starting", "start", "running" }));
}

// A sleep that arrives while a failed attempt is being cleaned up cancels the
// recovery before it waits out a delay; a wake arriving during a delay does
// not cancel anything and is ignored once the recovery has succeeded.
TEST_F(AudioLifecycleCoordinatorTest, OnlyCancellingRequestsCutARecoveryShort)
{
    reachRunning();
    settle(coordinator->sleep());
    startFails = true;
    takeEvents();
    std::future<void> asleep;
    // The first stop is the recovery's own; the second follows the failed start.
    duringStop = [&] { duringStop = [&] { asleep = coordinator->sleep(); }; };
    settle(coordinator->wake());
    settle(std::move(asleep));
    EXPECT_TRUE(sleeper.recorded().empty()) << "the cancelled loop still waited";
    EXPECT_EQ(takeEvents(), (Events { "recovering", "stop", "starting", "start", "stop", "failed", "recovering",
                                      "stopping", "stop", "sleeping" }));

    sleeper.blocking = true;
    std::future<void> firstWake = coordinator->wake();
    ASSERT_TRUE(main.runUntil([&] { return sleeper.recorded().size() == 1; }, 10s));
    main.runPending();
    takeEvents();
    std::future<void> secondWake = coordinator->wake();
    awaitLog("actor: enqueue called, hasPrevious=true", 5);
    startFails = false;
    sleeper.releaseOne();
    settle(std::move(firstWake));
    settle(std::move(secondWake));
    EXPECT_EQ(takeEvents(), (Events { "starting", "start", "running" }));
    EXPECT_EQ(log.count("actor: performWake recover result=true"), 1u);
    EXPECT_EQ(log.count("actor: performWake ignored"), 1u);
}

TEST_F(AudioLifecycleCoordinatorTest, SwitchOffOrOffAndOnDuringARetryDelayCancelsTheRecovery)
{
    for (bool backOn : { false, true }) {
        SCOPED_TRACE(backOn ? "off and on" : "off");
        coordinator.reset();
        main.runPending();
        makeCoordinator();
        sleeper.released = sleeper.delays.size(); // forget earlier sleeps
        sleeper.blocking = true;
        reachRunning();
        settle(coordinator->sleep());
        startFails = true;
        std::future<void> woken = coordinator->wake();
        ASSERT_TRUE(main.runUntil([&] { return sleeper.recorded().size() == sleeper.released + 1; }, 10s));
        main.runPending();
        startFails = false;
        startCalls = 0;
        takeEvents();

        std::vector<std::future<void>> requests;
        requests.push_back(coordinator->setUserEnabled(false));
        if (backOn)
            requests.push_back(coordinator->setUserEnabled(true));
        awaitLog("actor: setUserEnabled(" + std::string(backOn ? "true" : "false") + ") entered, state=recovering");
        sleeper.releaseOne();
        settle(std::move(woken));
        for (auto& request : requests)
            settle(std::move(request));
        // The loop leaves recovering as it was; the switch-off step settles it,
        // or, when the wish is on again, the switch-on step starts once.
        EXPECT_EQ(takeEvents(), backOn ? (Events { "starting", "start", "running" })
                                       : (Events { "stopping", "stop", "inactive" }));
        EXPECT_EQ(startCalls, backOn ? 1 : 0);
    }
}

TEST_F(AudioLifecycleCoordinatorTest, OnThenOffInQuickSuccessionNeverStartsTheEngine)
{
    reachRunning();
    startCalls = 0;
    takeEvents();
    // A switch-off holds the chain in its stop (the main thread is not run),
    // so the switch-on and the second switch-off both reach the coordinator
    // before their steps run.
    std::future<void> firstOff = coordinator->setUserEnabled(false);
    awaitMainJobs(2); // the stopping publication and the stop
    std::future<void> on = coordinator->setUserEnabled(true);
    std::future<void> off = coordinator->setUserEnabled(false);
    awaitLog("actor: setUserEnabled(false) entered, state=stopping");
    settle(std::move(firstOff));
    settle(std::move(on));
    settle(std::move(off));
    // The second switch-off finds the engine already off and republishes.
    EXPECT_EQ(takeEvents(), (Events { "stopping", "stop", "inactive", "inactive" }));
    EXPECT_EQ(startCalls, 0);
    EXPECT_EQ(log.count("actor: performSetUserEnabled(true) entered, userEnabled=false, state=inactive"), 1u);
    EXPECT_EQ(log.count("actor: startOnce entered"), 1u) << "only the first switch-on may try to start";
}

TEST_F(AudioLifecycleCoordinatorTest, LogsEachRequestWithTheExactLines)
{
    settle(coordinator->setUserEnabled(true));
    settle(coordinator->wake());
    settle(coordinator->sleep());
    settle(coordinator->wake());
    settle(coordinator->restart(AudioLifecycleTrigger::deviceChange));
    settle(coordinator->shutdown());
    const std::vector<std::string> expected {
        "actor: setUserEnabled(true) entered, state=inactive",
        "actor: enqueue called, hasPrevious=false",
        "actor: enqueue running operation",
        "actor: performSetUserEnabled(true) entered, userEnabled=true, state=inactive",
        "actor: startOnce entered",
        "actor: enqueue operation done",
        "actor: enqueue returning",

        "actor: enqueue called, hasPrevious=true",
        "actor: enqueue running operation",
        "actor: performWake entered, state=running, userEnabled=true",
        "actor: performWake ignored",
        "actor: enqueue operation done",
        "actor: enqueue returning",

        "actor: enqueue called, hasPrevious=true",
        "actor: enqueue running operation",
        "actor: performSleep entered, state=running",
        "actor: enqueue operation done",
        "actor: enqueue returning",

        "actor: enqueue called, hasPrevious=true",
        "actor: enqueue running operation",
        "actor: performWake entered, state=sleeping, userEnabled=true",
        "actor: startOnce entered",
        "actor: performWake recover result=true",
        "actor: enqueue operation done",
        "actor: enqueue returning",

        "actor: enqueue called, hasPrevious=true",
        "actor: enqueue running operation",
        "actor: startOnce entered",
        "actor: enqueue operation done",
        "actor: enqueue returning",

        "actor: setUserEnabled(false) entered, state=running",
        "actor: enqueue called, hasPrevious=true",
        "actor: enqueue running operation",
        "actor: performSetUserEnabled(false) entered, userEnabled=false, state=running",
        "actor: enqueue operation done",
        "actor: enqueue returning",
    };
    EXPECT_EQ(log.text(), expected);
    EXPECT_EQ(coordinator->currentState(), AudioLifecycleState::inactive);
}

// Requests from many threads at once. The engine (a flag on the main thread)
// must never be started while it runs; queued steps must not overlap and must
// run in the order their requests reached the coordinator.
TEST_F(AudioLifecycleCoordinatorTest, ConcurrentRequestsRunOneAtATimeInArrivalOrder)
{
    bool engineRunning = false;
    int overlappingStarts = 0;
    int startCount = 0;
    coordinator = std::make_unique<AudioLifecycleCoordinator>(
        main,
        [&] {
            overlappingStarts += engineRunning;
            engineRunning = true; // a failed start may have built half an engine
            if (++startCount % 3 == 0)
                throw std::runtime_error("device busy");
        },
        [&] { engineRunning = false; },
        [&](AudioLifecycleState state) { events.push_back(std::string(rawValue(state))); },
        [this](uint64_t nanoseconds, std::stop_token interruption) {
            sleeper.sleep(nanoseconds, interruption, clock);
        },
        [this] { return clock.now.load(); });

    constexpr int threadCount = 6;
    constexpr int requestsPerThread = 60;
    std::mutex futuresLock;
    std::vector<std::future<void>> futures;
    std::atomic<int> sleeps { 0 }, wakes { 0 }, restarts { 0 }, finishedThreads { 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(1234u + static_cast<unsigned>(t));
            for (int i = 0; i < requestsPerThread; ++i) {
                std::future<void> f;
                switch (random() % 5) {
                case 0: f = coordinator->setUserEnabled(true); break;
                case 1: f = coordinator->setUserEnabled(false); break;
                case 2: f = coordinator->sleep(); ++sleeps; break;
                case 3: f = coordinator->wake(); ++wakes; break;
                default: f = coordinator->restart(AudioLifecycleTrigger::tapWedged); ++restarts; break;
                }
                std::lock_guard guard(futuresLock);
                futures.push_back(std::move(f));
            }
            ++finishedThreads;
        });
    }
    auto allDone = [&] {
        if (finishedThreads < threadCount)
            return false;
        std::lock_guard guard(futuresLock);
        for (auto& f : futures) {
            if (f.wait_for(0s) != std::future_status::ready)
                return false;
        }
        return true;
    };
    EXPECT_TRUE(main.runUntil(allDone, 60s));
    for (auto& thread : threads)
        thread.join();
    main.runPending();
    ASSERT_EQ(futures.size(), size_t(threadCount * requestsPerThread));
    EXPECT_EQ(overlappingStarts, 0);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), std::string(rawValue(coordinator->currentState())));

    // Arrival order: on the executor, a switch request logs its entry right
    // before its enqueue line; other requests log only the enqueue line.
    // Step order: whatever a step logs between its running and done lines.
    auto entries = log.entries();
    std::thread::id executorThread;
    for (auto& [thread, line] : entries) {
        if (line.rfind("actor: enqueue called", 0) == 0) {
            executorThread = thread;
            break;
        }
    }
    std::vector<std::string> arrival, steps;
    std::string pendingSwitch;
    bool inStep = false;
    std::string stepKind;
    int overlaps = 0;
    std::map<std::string, int> stepCounts;
    for (auto& [thread, line] : entries) {
        if (thread == executorThread && line.rfind("actor: setUserEnabled(", 0) == 0) {
            pendingSwitch = line.substr(0, line.find(')') + 1);
        } else if (thread == executorThread && line.rfind("actor: enqueue called", 0) == 0) {
            arrival.push_back(pendingSwitch.empty() ? "other" : pendingSwitch);
            pendingSwitch.clear();
        } else if (line == "actor: enqueue running operation") {
            overlaps += inStep;
            inStep = true;
            stepKind = "restart";
        } else if (line == "actor: enqueue operation done") {
            overlaps += !inStep;
            inStep = false;
            ++stepCounts[stepKind];
            steps.push_back(stepKind.rfind("actor: setUserEnabled(", 0) == 0 ? stepKind : "other");
        } else if (inStep && stepKind == "restart") {
            if (line.rfind("actor: performSetUserEnabled(", 0) == 0)
                stepKind = "actor: setUserEnabled(" + line.substr(29, line.find(')') - 29) + ")";
            else if (line.rfind("actor: performSleep entered", 0) == 0)
                stepKind = "sleep";
            else if (line.rfind("actor: performWake entered", 0) == 0)
                stepKind = "wake";
        }
    }
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(arrival.size(), futures.size());
    EXPECT_EQ(steps, arrival);
    EXPECT_EQ(stepCounts["sleep"], sleeps.load());
    EXPECT_EQ(stepCounts["wake"], wakes.load());
    EXPECT_EQ(stepCounts["restart"], restarts.load());

    settle(coordinator->shutdown());
    EXPECT_EQ(events.back(), "inactive");
    EXPECT_FALSE(engineRunning);
    coordinator.reset(); // its operations refer to this test's locals
}

TEST_F(AudioLifecycleCoordinatorTest, DestructionReleasesAStepWaitingForTheMainThread)
{
    std::future<void> on = coordinator->setUserEnabled(true);
    awaitLog("actor: startOnce entered");
    // The step now waits for the main thread, which is this thread.
    coordinator.reset();
    EXPECT_EQ(on.wait_for(5s), std::future_status::ready);
    main.runPending();
    EXPECT_EQ(startCalls, 0);
    EXPECT_TRUE(events.empty()) << "a publication reached the owner after destruction";
}

TEST(AudioLifecycleCoordinatorSleeper, DefaultSleeperWaitsAndEndsEarlyWhenInterrupted)
{
    auto sleeper = AudioLifecycleCoordinator::defaultSleeper();
    std::stop_source never;
    auto began = std::chrono::steady_clock::now();
    sleeper(2'000'000, never.get_token());
    EXPECT_GE(std::chrono::steady_clock::now() - began, 2ms);

    std::stop_source interruption;
    std::thread interrupter([&] {
        std::this_thread::sleep_for(2ms);
        interruption.request_stop();
    });
    began = std::chrono::steady_clock::now();
    sleeper(3600 * second, interruption.get_token());
    EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
    interrupter.join();

    std::stop_source already;
    already.request_stop();
    began = std::chrono::steady_clock::now();
    sleeper(UINT64_MAX, already.get_token());
    EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
}
