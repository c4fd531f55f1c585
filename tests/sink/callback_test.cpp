// PipeWire's real-time thread: what the process callback allocates, releases, locks and waits for
// while everything else goes on around it.
#include "harness.h"
#include "traced_callback.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <ostream>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <shared_mutex>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

constexpr size_t kShortQuantum = 64; // frames: 750 callbacks a second
constexpr int kCallbacks = 300;

// Another thread that does this again and again.
class Again
{
public:
    explicit Again(std::function<void()> work) :
        m_thread(
            [this, work = std::move(work)]
            {
                while (!m_bEnd)
                    work();
            })
    {
    }
    ~Again()
    {
        m_bEnd = true;
        m_thread.join();
    }
    Again(const Again&) = delete;
    Again& operator=(const Again&) = delete;

private:
    std::atomic<bool> m_bEnd{false};
    std::thread m_thread;
};

Trace operator-(const Trace& now, const Trace& before)
{
    return {now.callbacks - before.callbacks,
            now.allocations - before.allocations,
            now.releases - before.releases,
            now.ownLocks - before.ownLocks,
            now.contendedLocks - before.contendedLocks,
            now.foreignLocks - before.foreignLocks,
            now.waits - before.waits};
}

// A sink that is called often, with a queue that lasts, and what its callbacks do while it lives.
class TracedSink : public PipeWirePlayer
{
public:
    explicit TracedSink(int rate) : m_before(TraceUntilNow())
    {
        EXPECT_TRUE(Init(rate, kSinkChannels));
        PushFrames(*this, ConstantFrames(static_cast<size_t>(rate) * 4));
        SetActive(true);
    }

    Trace Seen() const { return TraceUntilNow() - m_before; }

    // Does this until there have been enough callbacks.
    [[nodiscard]] bool PlayBeside(const std::function<void()>& work)
    {
        return WaitUntil(
            [&]
            {
                work();
                return Seen().callbacks >= kCallbacks;
            },
            kOftenMs);
    }

private:
    Trace m_before;
};

void ExpectRealTime(const Trace& trace)
{
    std::cout << trace << std::endl;
    EXPECT_GE(trace.callbacks, kCallbacks);
    EXPECT_EQ(trace.allocations, 0);
    EXPECT_EQ(trace.releases, 0);
    EXPECT_EQ(trace.foreignLocks, 0);
    EXPECT_EQ(trace.waits, 0);
    EXPECT_GE(trace.ownLocks, trace.callbacks);
}

// --- The callback -------------------------------------------------------------------------------

// At the graph's rate, and resampled.
class Callback : public testing::Test
{
protected:
    Callback() { ForceQuantum(kShortQuantum); }

    static constexpr int kRates[] = {kSinkRate, 44100};
};

TEST_F(Callback, IsRealTimeWhileItPlays)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        ASSERT_TRUE(sink.PlayBeside([] { SleepMs(10); }));
        ExpectRealTime(sink.Seen());
    }
}

TEST_F(Callback, IsRealTimeInUnderruns)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        sink.Clear();
        ASSERT_TRUE(sink.PlayBeside(
            [&]
            {
                if (sink.QueuedBytes() == 0)
                    PushFrames(sink, ConstantFrames(kShortQuantum / 3));
            }));
        ExpectRealTime(sink.Seen());
    }
}

TEST_F(Callback, IsRealTimeBesideClear)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        ASSERT_TRUE(sink.PlayBeside(
            [&]
            {
                sink.Clear();
                PushFrames(sink, ConstantFrames(kSinkRate / 10));
            }));
        ExpectRealTime(sink.Seen());
    }
}

TEST_F(Callback, IsRealTimeBesideHoldAndResume)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        ASSERT_TRUE(sink.PlayBeside(
            [&]
            {
                sink.SetActive(false);
                sink.SetActive(true);
                SleepMs(10);
            }));
        ExpectRealTime(sink.Seen());
    }
}

TEST_F(Callback, IsRealTimeBesideAGrowingQueue)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        const std::vector<float> block = ConstantFrames(static_cast<size_t>(rate) * 4);
        for (int pushes = 0; pushes < 8; ++pushes) // the ring grows at every doubling
        {
            PushFrames(sink, block);
            SleepMs(10);
        }
        ASSERT_TRUE(sink.PlayBeside([] { SleepMs(10); }));
        ExpectRealTime(sink.Seen());
    }
}

// The mutex is in other hands again and again, for longer than a cycle now and then.
TEST_F(Callback, IsRealTimeWhereItsLockIsContended)
{
    for (const int rate : kRates)
    {
        TracedSink sink(rate);
        ASSERT_TRUE(WaitUntil([&] { return sink.Seen().ownLocks > 0; }));
        const Again ask(
            [&]
            {
                sink.QueuedSeconds();
                sink.GetStreamTime(nullptr, nullptr);
            });
        ASSERT_TRUE(sink.PlayBeside(
            []
            {
                pthread_mutex_lock(MutexOfSink());
                SleepMs(4);
                pthread_mutex_unlock(MutexOfSink());
                SleepMs(20);
            }));
        ExpectRealTime(sink.Seen());
        EXPECT_GE(sink.Seen().contendedLocks, 5);
    }
}

// --- The trace ----------------------------------------------------------------------------------

struct Deed
{
    const char* name;
    std::function<void(PipeWirePlayer&)> deed;
    Trace expected;
};

// Of an allocation that nobody uses compilers may know that it need not be made.
void Release(void* memory)
{
    static void* volatile used;
    used = memory;
    free(used);
}

std::mutex g_mutex;
std::shared_mutex g_sharedMutex;
std::condition_variable g_condition;
sem_t g_semaphore; // of which nothing is taken but what was given

constexpr Trace kAllocation{.allocations = 1, .releases = 1};
constexpr Trace kForeignLock{.foreignLocks = 1};
constexpr Trace kWait{.waits = 1};

const Deed kDeeds[] = {
    {"Nothing", [](auto&) {}, {}},
    {"Malloc", [](auto&) { Release(malloc(9)); }, kAllocation},
    {"Calloc", [](auto&) { Release(calloc(9, 9)); }, kAllocation},
    {"Realloc", [](auto&) { Release(realloc(nullptr, 9)); }, kAllocation},
#ifndef __SANITIZE_THREAD__ // whose run time does not tell of these
    {"AlignedAlloc", [](auto&) { Release(aligned_alloc(64, 64)); }, kAllocation},
    {"PosixMemalign",
     [](auto&)
     {
         void* memory = nullptr;
         EXPECT_EQ(posix_memalign(&memory, 64, 64), 0);
         Release(memory);
     },
     kAllocation},
#endif
    {"New", [](auto&) { std::make_unique<std::string>(); }, kAllocation},
    {"LibrarysOwnAllocation", [](auto&) { Release(strdup("sound")); }, kAllocation},
    {"SinksMutex", [](const auto& sink) { sink.QueuedBytes(); }, {.ownLocks = 1}},
    {"Mutex", [](auto&) { const std::lock_guard lock(g_mutex); }, kForeignLock},
    {"TriedMutex", [](auto&) { const std::unique_lock lock(g_mutex, std::try_to_lock); },
     kForeignLock},
    {"SharedMutex", [](auto&) { const std::lock_guard lock(g_sharedMutex); }, kForeignLock},
    {"SharedMutexForReading", [](auto&) { const std::shared_lock lock(g_sharedMutex); },
     kForeignLock},
    {"Condition",
     [](auto&)
     {
         std::unique_lock lock(g_mutex);
         g_condition.wait_for(lock, std::chrono::nanoseconds(1));
     },
     {.foreignLocks = 1, .waits = 1}},
    {"Semaphore",
     [](auto&)
     {
         sem_post(&g_semaphore);
         sem_wait(&g_semaphore);
     },
     kWait},
    {"Sleep", [](auto&) { SleepMs(1); }, kWait},
    {"Poll", [](auto&) { poll(nullptr, 0, 0); }, kWait},
    {"Write", [](auto&) { EXPECT_EQ(write(-1, "", 0), -1); }, kWait},
    {"Futex", [](auto&) { syscall(SYS_futex, nullptr, -1); }, kWait},
};

// Otherwise the cases above could not fail.
TEST(TraceOfACallback, SeesWhatHappensWithinAndNothingElse)
{
    PipeWirePlayer sink;
    for (const auto& [name, deed, expected] : kDeeds)
    {
        const Trace before = TraceUntilNow();
        deed(sink);
        EXPECT_EQ(TraceUntilNow() - before, Trace{}) << name;
        {
            const TracedRegion region(sink);
            deed(sink);
        }
        EXPECT_EQ(TraceUntilNow() - before, expected) << name;
    }
}

} // namespace
