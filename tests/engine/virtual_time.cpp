#include "virtual_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>

namespace
{

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kStartNs = 1000 * kNsPerSecond; // well away from 0, which means "no anchor"
constexpr std::chrono::seconds kSettleLimit{30};  // of real time; a worker needs microseconds

struct State
{
    std::mutex mutex;
    std::condition_variable changed;
    int64_t nowNs = kStartNs;
    bool bFree = false;
    std::map<std::thread::id, int64_t> wakeNs; // of the sleeping threads
    std::function<bool()> bEnded = []
    {
        return true;
    };
    std::function<void(int64_t)> onAdvance = [](int64_t) {
    };
    const std::thread::id testThread = std::this_thread::get_id();
};

State& Shared()
{
    static State state;
    return state;
}

// Constructed before main, on the test's own thread, whose sleeps are real.
[[maybe_unused]] const State& kEarly = Shared();

void AdvanceTo(State& state, int64_t ns)
{
    if (ns <= state.nowNs)
        return;
    state.onAdvance(ns - state.nowNs);
    state.nowNs = ns;
}

// The lock is released while the worker's end is asked for, which may take locks of the player.
bool SettleLocked(State& state, std::unique_lock<std::mutex>& lock)
{
    const auto limit = std::chrono::system_clock::now() + kSettleLimit;
    for (;;)
    {
        if (!state.wakeNs.empty())
            return true;
        const auto bEnded = state.bEnded;
        lock.unlock();
        const bool bDone = bEnded();
        lock.lock();
        if (bDone)
            return true;
        if (std::chrono::system_clock::now() > limit)
            return false;
        state.changed.wait_until(lock,
                                 std::chrono::system_clock::now() + std::chrono::microseconds(200));
    }
}

void Sleep(int64_t ns)
{
    State& state = Shared();
    std::unique_lock lock(state.mutex);
    const int64_t wake = state.nowNs + ns;
    if (state.bFree)
    {
        AdvanceTo(state, wake);
        lock.unlock();
        std::this_thread::yield();
        return;
    }
    const auto self = std::this_thread::get_id();
    state.wakeNs[self] = wake;
    state.changed.notify_all();
    state.changed.wait(lock, [&] { return state.bFree || state.nowNs >= wake; });
    state.wakeNs.erase(self);
}

} // namespace

namespace VirtualTime
{

int64_t NowNs()
{
    State& state = Shared();
    const std::lock_guard lock(state.mutex);
    return state.nowNs;
}

double Now()
{
    return static_cast<double>(NowNs() - kStartNs) / static_cast<double>(kNsPerSecond);
}

void SetFreeRunning(bool bFree)
{
    State& state = Shared();
    const std::lock_guard lock(state.mutex);
    state.bFree = bFree;
    state.changed.notify_all();
}

void SetWorkerEnded(std::function<bool()> bEnded)
{
    State& state = Shared();
    const std::lock_guard lock(state.mutex);
    state.bEnded = std::move(bEnded);
}

void SetOnAdvance(std::function<void(int64_t)> onAdvance)
{
    State& state = Shared();
    const std::lock_guard lock(state.mutex);
    state.onAdvance = std::move(onAdvance);
}

void Settle()
{
    State& state = Shared();
    std::unique_lock lock(state.mutex);
    ASSERT_TRUE(SettleLocked(state, lock)) << "the worker neither sleeps nor ends";
}

void Step(double seconds)
{
    State& state = Shared();
    std::unique_lock lock(state.mutex);
    const int64_t target = state.nowNs + std::llround(seconds * static_cast<double>(kNsPerSecond));
    for (;;)
    {
        ASSERT_TRUE(SettleLocked(state, lock)) << "the worker neither sleeps nor ends";
        int64_t next = target + 1;
        for (const auto& sleeper : state.wakeNs)
            next = std::min(next, sleeper.second);
        if (next > target)
            break;
        AdvanceTo(state, next);
        // Out of the list here, not when they get to run: they count as awake from now on.
        std::erase_if(state.wakeNs, [&](const auto& entry) { return entry.second <= next; });
        state.changed.notify_all();
    }
    AdvanceTo(state, target);
}

} // namespace VirtualTime

extern "C"
{

    int __real_nanosleep(const timespec* requested, timespec* remaining);

    int __wrap_nanosleep(const timespec* requested, timespec* remaining);
    int __wrap_nanosleep(const timespec* requested, timespec* remaining)
    {
        if (std::this_thread::get_id() == Shared().testThread)
            return __real_nanosleep(requested, remaining);
        Sleep(requested->tv_sec * kNsPerSecond + requested->tv_nsec);
        return 0;
    }

    std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
    std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv()
    {
        return std::chrono::steady_clock::time_point(
            std::chrono::nanoseconds(VirtualTime::NowNs()));
    }
}
