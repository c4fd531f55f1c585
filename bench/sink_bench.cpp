// What the sink's queue costs those on its two ends: the worker that pushes, and PipeWire's
// real-time thread, which must not be kept waiting. It needs a daemon: scripts/with-null-sink
// brings one.
#include "pipewire_player.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace
{

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr size_t kBytesPerFrame = kChannels * sizeof(float);
constexpr double kQueueLimitSeconds = 0.5; // the workers' for files
constexpr int64_t kMeasuredNs = 5'000'000'000;

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// --- The mutex, seen from outside ---------------------------------------------------------------

// Durations by their number, in steps finer than what it takes to look at the clock.
class Histogram
{
public:
    void Add(int64_t ns)
    {
        const auto step = static_cast<size_t>(std::max<int64_t>(ns, 0) / kStepNs);
        ++m_counts[std::min(step, m_counts.size() - 1)];
        ++m_total;
        m_maxNs = std::max(m_maxNs, ns);
    }

    double PartUs(double part) const
    {
        const auto wanted = static_cast<uint64_t>(part * static_cast<double>(m_total));
        uint64_t seen = 0;
        for (size_t step = 0; step < m_counts.size() - 1; ++step)
        {
            seen += m_counts[step];
            if (seen > wanted)
                return static_cast<double>((static_cast<int64_t>(step) + 1) * kStepNs) / 1000.0;
        }
        return MaxUs();
    }

    double MaxUs() const { return static_cast<double>(m_maxNs) / 1000.0; }
    uint64_t Total() const { return m_total; }

private:
    static constexpr int64_t kStepNs = 10;
    std::array<uint64_t, 20000> m_counts{};
    uint64_t m_total = 0;
    int64_t m_maxNs = 0;
};

// How one thread holds the mutex and waits for it. A thread that is switched off the processor
// while it holds the mutex holds it for as long as whatever runs in its place: that is the
// machine's doing, and told apart.
class Side
{
public:
    void Locked(int64_t beforeNs)
    {
        m_lockedNs = NowNs();
        m_waits.Add(m_lockedNs - beforeNs);
    }

    void Unlocked(int64_t unlockNs)
    {
        if (m_lockedNs == 0)
            return; // it was locked before the measuring began
        const int64_t heldNs = unlockNs - m_lockedNs;
        m_holds.Add(heldNs);
        // The question costs more than a lock, and is asked while it is not held.
        const bool bLong = heldNs > kLongNs;
        const bool bSwitched = (bLong || m_holds.Total() % kLocksPerQuestion == 0) && WasSwitched();
        if (!(bLong && bSwitched))
            m_longestOwnNs = std::max(m_longestOwnNs, heldNs);
    }

    // How often it is locked, and in microseconds for how long: usually, at most, at most without
    // having been switched off; and how long it is waited for.
    void Report(benchmark::State& state, const std::string& name) const
    {
        state.counters[name + "_locks"] = static_cast<double>(m_holds.Total());
        state.counters[name + "_p50"] = m_holds.PartUs(0.5);
        state.counters[name + "_p99.9"] = m_holds.PartUs(0.999);
        state.counters[name + "_max"] = m_holds.MaxUs();
        state.counters[name + "_max_own"] = static_cast<double>(m_longestOwnNs) / 1000.0;
        state.counters[name + "_wait_p99.9"] = m_waits.PartUs(0.999);
        state.counters[name + "_wait_max"] = m_waits.MaxUs();
    }

private:
    static constexpr int64_t kLongNs = 10000;
    static constexpr uint64_t kLocksPerQuestion = 16;

    bool WasSwitched()
    {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        const bool bSwitched = usage.ru_nivcsw != m_switches;
        m_switches = usage.ru_nivcsw;
        return bSwitched;
    }

    Histogram m_holds;
    Histogram m_waits;
    int64_t m_lockedNs = 0;
    int64_t m_longestOwnNs = 0;
    long m_switches = 0;
};

struct Sides
{
    const PipeWirePlayer& sink;
    pthread_t pusher = pthread_self();
    Side push;
    Side callback; // nobody else is left
};

std::atomic<Sides*> measured{nullptr};

// The side that locks or unlocks this mutex, null where it is not the sink's or not measured.
Side* SideOf(const pthread_mutex_t* mutex)
{
    Sides* const sides = measured.load(std::memory_order_acquire);
    if (!sides)
        return nullptr;
    const auto* at = reinterpret_cast<const std::byte*>(mutex);
    const auto* sink = reinterpret_cast<const std::byte*>(&sides->sink);
    if (at < sink || at >= sink + sizeof(PipeWirePlayer))
        return nullptr;
    return pthread_equal(pthread_self(), sides->pusher) ? &sides->push : &sides->callback;
}

} // namespace

// The linker lets every call of the two functions in this program come here (--wrap).
extern "C" int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Side* const side = SideOf(mutex);
    if (!side)
        return __real_pthread_mutex_lock(mutex);
    const int64_t beforeNs = NowNs();
    const int rc = __real_pthread_mutex_lock(mutex);
    side->Locked(beforeNs);
    return rc;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    Side* const side = SideOf(mutex);
    const int64_t unlockNs = side ? NowNs() : 0;
    const int rc = __real_pthread_mutex_unlock(mutex);
    if (side)
        side->Unlocked(unlockNs);
    return rc;
}

namespace
{

// --- The queue alone ----------------------------------------------------------------------------

struct Block
{
    explicit Block(int64_t frames) : bytes(static_cast<size_t>(frames) * kBytesPerFrame) {}

    std::vector<uint8_t> bytes; // silence: what runs on a user's own daemon is not heard
};

void CountFrames(benchmark::State& state, int64_t blocks)
{
    state.SetItemsProcessed(blocks * state.range(0)); // frames a second
}

void Floor(benchmark::State& state)
{
    const Block block(state.range(0));
    std::vector<uint8_t> copy(block.bytes.size());
    for ([[maybe_unused]] auto _ : state)
    {
        std::memcpy(copy.data(), block.bytes.data(), copy.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    CountFrames(state, state.iterations());
}

bool InitOrSkip(PipeWirePlayer& sink, benchmark::State& state)
{
    if (sink.Init(kRate, kChannels))
        return true;
    state.SkipWithError("no PipeWire daemon: run it under scripts/with-null-sink");
    return false;
}

void Push(PipeWirePlayer& sink, const Block& block)
{
    if (sink.QueuedSeconds() > kQueueLimitSeconds)
        sink.Clear();
    sink.PushBytes(block.bytes.data(), block.bytes.size());
}

// Into a held stream, which takes nothing.
void PushAlone(benchmark::State& state)
{
    const Block block(state.range(0));
    PipeWirePlayer sink;
    if (!InitOrSkip(sink, state))
        return;
    for ([[maybe_unused]] auto _ : state)
        Push(sink, block);
    CountFrames(state, state.iterations());
}

void BlockSizes(benchmark::internal::Benchmark* bench)
{
    bench->ArgName("frames");
    for (const int frames : {64, 480, 513, 1024, 4096})
        bench->Arg(frames);
}

// --- Both ends at once --------------------------------------------------------------------------

// Where the two threads run: wherever they may, on a processor each, or on the same one, where the
// callback can find the mutex held only by a pusher that it has itself thrown out.
enum Placement : size_t
{
    kFree,
    kApart,
    kTogether
};

// Puts this thread, and those that it starts from now on, on one of the process's processors for
// the life of the object.
class Processors
{
public:
    Processors() { sched_getaffinity(0, sizeof m_all, &m_all); }
    ~Processors() { sched_setaffinity(0, sizeof m_all, &m_all); }
    Processors(const Processors&) = delete;
    Processors& operator=(const Processors&) = delete;

    int Count() const { return CPU_COUNT(&m_all); }

    void UseOnly(int number) const
    {
        cpu_set_t one;
        CPU_ZERO(&one);
        for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        {
            if (CPU_ISSET(cpu, &m_all) && number-- == 0)
                CPU_SET(cpu, &one);
        }
        sched_setaffinity(0, sizeof one, &one);
    }

private:
    cpu_set_t m_all;
};

bool StartsPlaying(PipeWirePlayer& sink, const Block& block)
{
    sink.SetActive(true);
    Push(sink, block);
    for (int tries = 0; tries < 200; ++tries)
    {
        double presented = 0.0;
        if (sink.GetStreamTime(&presented, nullptr))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Beside which every longest hold stands: what the machine takes from a thread that looks at the
// clock twice in a row.
void MachineAlone(benchmark::State& state)
{
    Side side;
    for ([[maybe_unused]] auto _ : state)
    {
        for (int64_t ns = NowNs(), endNs = ns + kMeasuredNs; ns < endNs; ns = NowNs())
        {
            side.Locked(ns);
            side.Unlocked(NowNs());
        }
    }
    side.Report(state, "push");
}

// A playing stream in cycles of `quantum` frames, and a pusher that never rests. The callback's
// hold stands beside the Floor of `quantum` frames, which it copies meanwhile.
void MutexUnderFullSpeed(benchmark::State& state)
{
    const Block block(state.range(0));
    const auto placement = static_cast<Placement>(state.range(2));
    state.SetLabel(std::array{"anywhere", "apart", "together"}[placement]);
    const Processors processors;
    if (placement == kApart && processors.Count() < 2)
        return state.SkipWithError("there is one processor only");
    if (placement != kFree)
        processors.UseOnly(0);
    setenv("PIPEWIRE_LATENCY", (std::to_string(state.range(1)) + "/48000").c_str(), 1);
    PipeWirePlayer sink;
    if (!InitOrSkip(sink, state))
        return;
    if (placement == kApart)
        processors.UseOnly(1);
    if (!StartsPlaying(sink, block))
        return state.SkipWithError("nothing to play to");

    Sides sides{sink, pthread_self(), {}, {}};
    int64_t blocks = 0;
    for ([[maybe_unused]] auto _ : state)
    {
        measured.store(&sides, std::memory_order_release);
        for (const int64_t endNs = NowNs() + kMeasuredNs; NowNs() < endNs; ++blocks)
            Push(sink, block);
    }
    sink.Destroy(); // the callback's thread has ended
    measured.store(nullptr, std::memory_order_release);
    CountFrames(state, blocks);
    sides.push.Report(state, "push");
    sides.callback.Report(state, "call");
}

BENCHMARK(Floor)->Apply(BlockSizes)->Arg(8192);
BENCHMARK(PushAlone)->Apply(BlockSizes);
BENCHMARK(MachineAlone)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(MutexUnderFullSpeed)
    ->ArgNames({"frames", "quantum", "placement"})
    ->ArgsProduct({{1024}, {64, 1024, 8192}, {kFree, kApart, kTogether}})
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

} // namespace
