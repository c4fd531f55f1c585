// Use: tovrel_soak SECONDS [SEED]
//
// Uses the engine at random on the private daemon of scripts/with-null-sink, and tells what became
// of the sound and of the process. It goes on in rounds, each of which is recorded as a whole and
// then compared, so that hours need no more memory than minutes.
#include "hearing.h"
#include "library.h"
#include "listener.h"
#include "machine.h"
#include "report.h"

#include "harness.h"

extern "C"
{
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr int kUsage = 2;
constexpr int kInconclusive = 75; // for the launcher: a busy machine's

// A recording holds a minute; what has begun in a round may end some seconds after it.
constexpr int kLongestRoundSeconds = 40;
constexpr std::chrono::seconds kHangs{40};

// A new daemon now and then, once in a short run.
constexpr int kRoundsToRestart = 10;

// Over all rounds after the first. What is allocated comes back to the same but for what is met for
// the first time; of what is resident, the allocator's pages are fuller at one moment than at
// another.
constexpr size_t kHeapGrowthLimit = 16 * 1024;
constexpr size_t kResidentGrowthLimit = 2 * 1024 * 1024;

// A sink that nobody plays to gives some of its descriptors up, but only after some seconds.
constexpr size_t kDaemonDescriptorsLimit = 4;

// No verdict where the machine has spoilt more than this share of what was compared.
constexpr size_t kMostExcused = 10; // one in so many

class Soak
{
public:
    explicit Soak(uint64_t seed) : m_seeds(seed) {}

    void Run(int seconds);
    int Verdict() const;

private:
    void RunRound(std::chrono::milliseconds time);
    void RestartDaemon();
    std::vector<std::string> GrowthTo(const Holdings& now) const;
    Holdings Settled() const;
    void PrintLine(std::chrono::seconds since, const Holdings& now) const;

    // The null sink with everything that plays to it, in the place of the one that is gone.
    struct Session
    {
        NewDaemon daemon;
        NewSessionManager manager;
    };

    const Library m_library;
    std::mt19937_64 m_seeds;
    Report m_report;
    Findings m_findings;
    Machine m_machine;
    std::optional<Holdings> m_warm;     // after the first round
    std::optional<Holdings> m_last;     // after the last one
    std::optional<size_t> m_daemonWarm; // the descriptors of each daemon, after its first round
    std::optional<Session> m_session;
};

void Soak::Run(int seconds)
{
    const int rounds = (seconds + kLongestRoundSeconds - 1) / kLongestRoundSeconds;
    const auto start = Clock::now();
    for (int round = 1; round <= rounds; ++round)
    {
        RunRound(std::chrono::milliseconds(1000) * seconds / rounds);
        const Holdings now = Settled();
        PrintLine(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start), now);
        for (const std::string& growth : GrowthTo(now))
            m_report.Fail(growth);
        m_warm = m_warm.value_or(now);
        m_last = now;
        m_daemonWarm = m_daemonWarm.value_or(now.daemonDescriptors);
        if (round % kRoundsToRestart == 1)
            RestartDaemon();
    }
    std::cout << m_report;
}

void Soak::RunRound(std::chrono::milliseconds time)
{
    MonitorRecording recording;
    const Round round{m_library, recording, m_report, Clock::now() + time};
    LaneListener left(round, m_seeds(), Lane::Left);
    LaneListener right(round, m_seeds(), Lane::Right);
    SilentListener silent(round, m_seeds());
    std::atomic<int> running{3};
    std::vector<std::thread> threads;
    const std::array<Listener*, 3> listeners = {&left, &right, &silent};
    for (Listener* listener : listeners)
        threads.emplace_back(
            [&running, listener]
            {
                listener->Run();
                --running;
            });
    while (running > 0)
    {
        SleepMs(kRarelyMs);
        m_machine.Look();
        if (Clock::now() > round.end + kHangs)
        {
            m_report.Fail("a player hangs");
            std::_Exit(EXIT_FAILURE); // nothing could end it
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<float> samples = recording.Finish(kTail);

    m_machine.ReadDaemonLog();
    const std::vector<MonitorRecording::Cycle>& cycles = recording.Cycles();
    for (size_t i = 2; i < cycles.size(); ++i)
        if (cycles[i].ticks !=
            cycles[i - 1].ticks + cycles[i - 1].endFrame - cycles[i - 2].endFrame)
            m_machine.AddLostCycles(cycles[i].graphNs);
    Hearing hearing(samples, cycles, m_machine, m_findings, m_report);
    hearing.Judge(Lane::Left, left.Plays());
    hearing.Judge(Lane::Right, right.Plays());
    for (const Listener* listener : listeners)
        for (const Listener::SlowStop& stop : listener->SlowStops())
        {
            if (m_machine.NsToTrouble(stop.ns) > kTroubledNs)
                m_report.Fail(stop.text);
            else
                ++m_findings.excused;
        }
}

// A player that plays meanwhile goes on with the new daemon.
void Soak::RestartDaemon()
{
    constexpr Stretch kStretch{kFirstPcmIndex, 2 * kSinkRate};
    const std::string kind = "PCM across a new daemon";
    TovrelAudioPlayer player;
    player.PlayPcm(CodedFrames(Lane::Left, kStretch), kSinkRate, kSinkChannels);
    SleepMs(500);
    KillDaemon();
    m_session.reset();
    m_session.emplace();
    m_daemonWarm.reset();
    AwaitDefaultSink("null-sink");
    if (!WaitForEnd(player))
        m_report.Fail(kind + " does not end");
    player.Stop();
    m_report.AddPlay(kind);
    m_report.AddText(player.LastError());
    if (!player.LastError().empty())
        m_report.Fail(kind + ": " + player.LastError());
}

// What has become more than after the first round, which is the libraries' to take what they keep
// for good.
std::vector<std::string> Soak::GrowthTo(const Holdings& now) const
{
    std::vector<std::string> growth;
    const auto check = [&](const char* what, size_t before, size_t after, size_t limit)
    {
        if (after > before + limit)
            growth.push_back(std::to_string(after) + " " + what + " instead of " +
                             std::to_string(before));
    };
    const Holdings& warm = m_warm.value_or(now);
    check("nodes of the engine's", 0, now.nodes, 0);
    check("threads", warm.threads, now.threads, 0);
    check("descriptors", warm.descriptors, now.descriptors, 0);
    check("bytes allocated", warm.heap, now.heap, kHeapGrowthLimit);
    check("bytes resident", warm.resident, now.resident, kResidentGrowthLimit);
    check("descriptors of the daemon", m_daemonWarm.value_or(now.daemonDescriptors),
          now.daemonDescriptors, kDaemonDescriptorsLimit);
    return growth;
}

// Threads that were joined and clients that have left are seen a moment longer.
Holdings Soak::Settled() const
{
    constexpr int kMomentMs = 200;
    Holdings now;
    (void)WaitUntil(
        [&]
        {
            now = Holdings::Now();
            return GrowthTo(now).empty();
        },
        kMomentMs);
    return now;
}

void Soak::PrintLine(std::chrono::seconds since, const Holdings& now) const
{
    std::cout << std::setw(6) << since.count() << " s: " << m_report.Plays() << " plays, "
              << m_findings.plays << " compared, " << m_findings.excused << " excused, lost "
              << m_findings.lost << ", doubled " << m_findings.doubled << ", underruns "
              << m_findings.underruns << "; worst Stop " << m_report.WorstStop().count() / 1000
              << " ms; " << now << std::endl;
}

int Soak::Verdict() const
{
    std::cout << m_findings.plays << " plays compared frame by frame (" << m_findings.frames
              << " frames), " << m_findings.altered << " more searched for gaps; "
              << m_findings.excused << " excused by a busy machine\n"
              << "lost " << m_findings.lost << ", doubled " << m_findings.doubled << ", foreign "
              << m_findings.foreign << " frames; underruns " << m_findings.underruns << '\n'
              << "after the first round: " << *m_warm << "\nafter the last one: " << *m_last << '\n'
              << m_report.Failures() << " failures" << std::endl;
    if (m_report.Failures() > 0)
        return EXIT_FAILURE;
    if (m_findings.excused * kMostExcused <= m_findings.plays)
        return EXIT_SUCCESS;
    std::cout << "No verdict: the machine was too busy for sound." << std::endl;
    return kInconclusive;
}

} // namespace

int main(int argc, char** argv)
{
    BeginWithPlainAllocator(argv);
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
    if (seconds < 1 || argc > 3)
    {
        std::cerr << "Use: tovrel_soak SECONDS [SEED]\n";
        return kUsage;
    }
    // What is played here is noise, and the daemon is killed: never a user's own session.
    if (!std::filesystem::exists(RuntimePath("wireplumber.pid")))
    {
        std::cerr << "This runs under scripts/with-null-sink only.\n";
        return kUsage;
    }
    unsetenv("PIPEWIRE_DEBUG");    // the daemon's log is wanted, not this process's
    std::signal(SIGPIPE, SIG_IGN); // the daemon goes away in the middle of a write
    testing::GTEST_FLAG(throw_on_failure) = true;
    av_log_set_level(AV_LOG_QUIET); // of all that is broken on purpose
    const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : std::random_device()();
    std::cout << "Seed " << seed << ", " << seconds << " s" << std::endl;
    try
    {
        Soak soak(seed);
        soak.Run(seconds);
        return soak.Verdict();
    }
    catch (const std::exception& exception)
    {
        std::cout << "FAILED: " << exception.what() << std::endl;
        return EXIT_FAILURE;
    }
}
