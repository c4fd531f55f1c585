// A host that plays for days: many hundred short playbacks, each sought in, paused, resumed and
// stopped at another moment, after which everything is as it was.
#include "harness.h"

#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// From the sanitizers' allocator_interface.h, which GCC does not install.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace
{

constexpr int kWarmUpCycles = 100; // by then the libraries have all that they keep
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCycles = 400; // the warm-up among them; each takes several times as long
#else
constexpr int kCycles = 1000;
#endif
constexpr size_t kFrames = kSinkRate / 2;
constexpr double kSeconds = 0.5; // the same

// Between one thing that is done to the player and the next. A playback opens its output in the
// first 10 ms or so, and is heard one cycle of the graph later.
constexpr unsigned kLongestWaitUs = 6000;

// Longer than other cases get, as they do less.
constexpr unsigned kWatchdogSeconds = 180;

// Over all cycles after the warm-up. Allocators hold a few kilobytes more or less at one moment
// than at another; over a thousand cycles a leak of 73 bytes in each is beyond the first limit, one
// page in each beyond the second.
constexpr ptrdiff_t kHeapGrowthLimit = 64 * 1024;
constexpr ptrdiff_t kResidentGrowthLimit = 2 * 1024 * 1024;

struct Memory
{
    size_t heap = 0;     // bytes that are allocated and not freed
    size_t resident = 0; // bytes that only this process has in memory, shared files' aside

    static Memory Now();
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// What is resident says nothing here: a sanitizer holds back what was freed, keeps notes of every
// thread that ever was, and its shadow memory becomes resident wherever an address was once used.
// What is allocated is told as truly as without.
Memory Memory::Now()
{
    return {__sanitizer_get_current_allocated_bytes(), 0};
}
#else
Memory Memory::Now()
{
    const struct mallinfo2 heap = mallinfo2();
    Memory memory{heap.uordblks + heap.hblkhd, 0};
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
    {
        size_t kibibytes = 0;
        if ((word == "RssAnon:" || word == "RssShmem:") && status >> kibibytes)
            memory.resident += kibibytes * 1024;
    }
    return memory;
}
#endif

size_t DescriptorsOf(pid_t process)
{
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(process) + "/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

ptrdiff_t Growth(size_t before, size_t after)
{
    return static_cast<ptrdiff_t>(after) - static_cast<ptrdiff_t>(before);
}

class Soak : public testing::Test
{
protected:
    Soak()
    {
        alarm(kWatchdogSeconds);
        RunFfmpeg({"-f", "lavfi", "-i", "sine=d=" + std::to_string(kSeconds) + ":r=44100", m_file});
    }

    void Play(int cycle)
    {
        const bool bStarted = cycle % 2 == 0 ? m_player.PlayPcm(m_frames, kSinkRate, kSinkChannels)
                                             : m_player.PlayFile(m_file);
        ASSERT_TRUE(bStarted);
        // Half of them, of each kind as many, are heard; the others may end before they have begun.
        if (cycle % 4 >= 2)
            return;
        const auto bSound = [&]
        {
            return !m_player.CopySpectrumSamples().empty();
        };
        ASSERT_TRUE(WaitUntil(bSound, kOftenMs));
    }

    void WaitAMoment()
    {
        std::this_thread::sleep_for(std::chrono::microseconds(m_random() % kLongestWaitUs));
    }

    void RunCycles(int first, int end)
    {
        for (int cycle = first; cycle < end; ++cycle)
        {
            ASSERT_NO_FATAL_FAILURE(Play(cycle)) << "cycle " << cycle;
            WaitAMoment();
            m_player.SeekToFraction(static_cast<double>(m_random() % 100) / 100.0);
            WaitAMoment();
            m_player.SetPaused(true);
            WaitAMoment();
            m_player.SetPaused(false);
            WaitAMoment();
            m_player.Stop();
            ASSERT_EQ(m_player.LastError(), "") << "cycle " << cycle;
        }
    }

    const std::string m_file = RuntimePath("soak.wav");
    const std::vector<float> m_frames = IndexedFrames(0, kFrames);
    TovrelAudioPlayer m_player;
    std::mt19937 m_random{20}; // always the same moments
};

TEST_F(Soak, HundredsOfPlaysLeaveNoMemoryThreadDescriptorOrNode)
{
    const pid_t daemon = DaemonPid();
    ASSERT_NO_FATAL_FAILURE(RunCycles(0, kWarmUpCycles));
    ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
    const Resources before = Resources::Now();
    const size_t daemonBefore = DescriptorsOf(daemon);
    const Memory memoryBefore = Memory::Now();

    ASSERT_NO_FATAL_FAILURE(RunCycles(kWarmUpCycles, kCycles));

    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return DescriptorsOf(daemon) <= daemonBefore; }))
        << DescriptorsOf(daemon) << " descriptors of the daemon instead of " << daemonBefore;
    const Memory memory = Memory::Now();
    EXPECT_LT(Growth(memoryBefore.heap, memory.heap), kHeapGrowthLimit);
    EXPECT_LT(Growth(memoryBefore.resident, memory.resident), kResidentGrowthLimit);
}

} // namespace
