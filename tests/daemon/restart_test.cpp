// Daemons, session managers and devices that go and come back, and the sinks and players that
// outlive them.
#include "harness.h"
#include "scripted_server.h"

#include "pipewire_player.h"
#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <ostream>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using StreamState = TovrelAudioPlayer::StreamState;

constexpr size_t kFrameBytes = kSinkChannels * sizeof(float);
constexpr std::chrono::milliseconds kInitLimit{2000}; // the longest that Init may wait
constexpr std::chrono::milliseconds kAtOnce{200};     // what needs no wait at all
constexpr const char* kNoOutput = "Failed to initialize PipeWire audio output.";

// What a daemon that dies has been handed and nobody has recorded: the cycle that plays, the one
// that is on its way through the monitor, and one for a recording that was late.
constexpr size_t kHandedOver = 3 * kQuantum;

// --- The daemon's absence -----------------------------------------------------------------------

// The null sink with everything that plays to it, in the place of those that are gone.
class NewSession
{
public:
    NewSession() { AwaitDefaultSink("null-sink"); }

private:
    NewDaemon m_daemon;
    NewSessionManager m_manager;
};

// A socket in the place of the daemon that is gone.
class Impostor
{
public:
    Impostor() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const std::string path = RuntimePath("pipewire-0");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() < sizeof address.sun_path)
            std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(m_socket, 8), 0);
    }
    ~Impostor()
    {
        HangUp();
        close(m_socket);
        std::filesystem::remove(RuntimePath("pipewire-0"));
    }
    Impostor(const Impostor&) = delete;
    Impostor& operator=(const Impostor&) = delete;

    // Takes the next client's connection and never says a word on it.
    [[nodiscard]] bool Accept()
    {
        pollfd ready{m_socket, POLLIN, 0};
        const std::chrono::milliseconds patience = kPatience;
        if (poll(&ready, 1, static_cast<int>(patience.count())) != 1)
            return false;
        m_client = accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        return m_client >= 0;
    }

    void HangUp()
    {
        if (m_client >= 0)
            close(m_client);
        m_client = -1;
    }

private:
    int m_socket;
    int m_client = -1;
};

// The daemon is dead, and the one client that plays waits for an answer of one that gives none: it
// comes to a new daemon when it is let go, and not before, however often it gives up waiting.
class Absence
{
public:
    Absence()
    {
        KillDaemon();
        m_impostor.emplace();
        EXPECT_TRUE(m_impostor->Accept());
        m_backDoor.emplace();
    }

    void LetGo()
    {
        m_impostor.reset();
        m_backDoor->OpenFront();
    }

private:
    std::optional<Impostor> m_impostor;
    std::optional<BackDoor> m_backDoor;
};

// --- The sinks ----------------------------------------------------------------------------------

// An open sink that knows what it was given.
class CountingSink : public PipeWirePlayer
{
public:
    explicit CountingSink(bool bActive = true)
    {
        EXPECT_TRUE(Init(kSinkRate, kSinkChannels));
        SetActive(bActive);
    }

    // The next frames of the indexed signal.
    void Push(size_t frames)
    {
        PushFrames(*this, IndexedFrames(m_pushed, frames));
        m_pushed += frames;
    }

    size_t Pushed() const { return m_pushed; }
    size_t Queued() const { return QueuedBytes() / kFrameBytes; }
    size_t Taken() const { return m_pushed - Queued(); }

    // Returns when this much has been taken.
    [[nodiscard]] bool AwaitTaken(size_t frames) const
    {
        return WaitUntil([&] { return Taken() >= frames; }, kOftenMs);
    }

    double PresentedSeconds() const
    {
        double seconds = -1.0;
        GetStreamTime(&seconds, nullptr);
        return seconds;
    }

private:
    size_t m_pushed = 0;
};

// From its first frame on, whatever comes before or after it.
testing::AssertionResult IsInOrder(const Heard& heard)
{
    const bool bInOrder = !heard.indices.empty() && heard.lostBetween == 0 && heard.repeated == 0 &&
                          heard.outOfOrder == 0 && heard.altered == 0 && heard.foreign == 0;
    return (bInOrder ? testing::AssertionSuccess() : testing::AssertionFailure()) << heard;
}

// What two recordings hold of a play, the second of which ran before the play could go on: nothing
// is missing but what had been handed over, and nothing is heard twice.
void ExpectPlayWentOn(const Heard& before, const Heard& after)
{
    ASSERT_TRUE(IsInOrder(before));
    ASSERT_TRUE(IsInOrder(after));
    EXPECT_EQ(before.missingAtStart, 0u);
    EXPECT_EQ(after.missingAtEnd, 0u);
    ASSERT_GT(after.indices.front(), before.indices.back());
    EXPECT_LE(after.indices.front() - before.indices.back() - 1, kHandedOver);
}

// The same where the play went on with the frame `next` before the second recording ran, which was
// when this many had been taken.
void ExpectPlayWentOnBetween(const Heard& before, const Heard& after, size_t next, size_t taken)
{
    ASSERT_TRUE(IsInOrder(before));
    ASSERT_TRUE(IsInOrder(after));
    EXPECT_EQ(before.missingAtStart, 0u);
    EXPECT_EQ(after.missingAtEnd, 0u);
    EXPECT_LE(next - before.indices.back() - 1, kHandedOver);
    EXPECT_LE(after.indices.front(), taken);
}

// Of a sink that has come back held: it takes nothing, and all the rest from the frame `next` is
// heard once it is active.
void ExpectSilenceUntilActive(CountingSink& sink, size_t next)
{
    ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
    MonitorRecording recording;
    recording.AwaitMore(16 * kQuantum);
    EXPECT_EQ(sink.Taken(), next);
    const size_t activeAt = recording.Now();
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), next, sink.Pushed() - next);
    ASSERT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.positions.front(), activeAt);
}

// Watches a time from a thread of its own.
class TimeWatch
{
public:
    explicit TimeWatch(std::function<double()> time) :
        m_thread(
            [this, time = std::move(time)]
            {
                double last = 0.0;
                while (!m_bEnd)
                {
                    const double now = time();
                    m_bWentBack = m_bWentBack || now < last;
                    last = now;
                    SleepMs(2);
                }
            })
    {
    }
    ~TimeWatch() { End(); }
    TimeWatch(const TimeWatch&) = delete;
    TimeWatch& operator=(const TimeWatch&) = delete;

    bool WentBack()
    {
        End();
        return m_bWentBack;
    }

private:
    void End()
    {
        m_bEnd = true;
        if (m_thread.joinable())
            m_thread.join();
    }

    std::atomic<bool> m_bEnd{false};
    bool m_bWentBack = false; // the thread's own until it has ended
    std::thread m_thread;
};

// --- The queue over a restart -------------------------------------------------------------------

TEST(SinkOverRestart, QueueIsKeptAndPlayGoesOnWithItsNextFrame)
{
    MonitorRecording before;
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    Absence absence;
    const size_t next = sink.Taken();
    SleepMs(200);
    sink.Push(1000);
    EXPECT_EQ(sink.Taken(), next);
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, next);
    const NewSession session;
    MonitorRecording after;
    EXPECT_EQ(sink.Taken(), next);
    absence.LetGo();
    ASSERT_TRUE(sink.AwaitTaken(next + kQuantum));
    sink.Push(5000);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heardAfter = FindIndexed(after.Finish(), next, sink.Pushed() - next);
    EXPECT_TRUE(IsComplete(heardAfter));
    ExpectPlayWentOn(heardBefore, heardAfter);
}

TEST(SinkOverRestart, PlayGoesOnByItselfAndRepeatsNothing)
{
    MonitorRecording before;
    CountingSink sink;
    sink.Push(4 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    KillDaemon();
    SleepMs(50);
    const size_t next = sink.Taken();
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, next);
    const auto start = Clock::now();
    const NewSession session;
    const auto ready = Clock::now();
    ASSERT_TRUE(sink.AwaitTaken(next + 1));
    const auto sound = Clock::now();
    MonitorRecording after;
    const size_t taken = sink.Taken();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heardAfter = FindIndexed(after.Finish(), next, sink.Pushed() - next);
    ExpectPlayWentOnBetween(heardBefore, heardAfter, next, taken);
    const auto ms = [](Clock::duration time)
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    };
    std::cout << "first frames taken " << ms(sound - start) << " ms after the daemon's start, "
              << ms(sound - ready) << " ms after its sink was the default\n";
}

// Sinks that were held before the daemon died, and whether they ever played.
class HeldSinkOverRestart : public testing::TestWithParam<bool>
{
};

TEST_P(HeldSinkOverRestart, StaysSilentAndLosesNothing)
{
    CountingSink sink(GetParam());
    sink.Push(kSinkRate);
    if (GetParam())
    {
        ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
        sink.SetActive(false);
        SleepMs(100); // what had begun
    }
    const size_t next = sink.Taken();
    KillDaemon();
    const NewSession session;
    ExpectSilenceUntilActive(sink, next);
}

INSTANTIATE_TEST_SUITE_P(Life, HeldSinkOverRestart, testing::Bool(),
                         [](const auto& played)
                         { return played.param ? "HeldInMidPlay" : "NeverActive"; });

// --- Formats ------------------------------------------------------------------------------------

struct FormatCase
{
    int rate;
    int channels;
    bool bActive;
};
void PrintTo(const FormatCase& format, std::ostream* out)
{
    *out << format.rate << " Hz, " << format.channels << " channels";
}

class FormatOverRestart : public testing::TestWithParam<FormatCase>
{
};

// A constant signal in the first channel alone tells by its sum how long it was heard, and by its
// place which channel it is.
TEST_P(FormatOverRestart, ComesBackTheSame)
{
    const auto [rate, channels, bActive] = GetParam();
    const size_t frames = static_cast<size_t>(rate);
    const size_t samplesPerFrame = static_cast<size_t>(channels);
    std::vector<float> samples(frames * samplesPerFrame);
    for (size_t frame = 0; frame < frames; ++frame)
        samples[frame * samplesPerFrame] = kConstant;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(rate, channels));
    PushFrames(sink, samples);
    const size_t pushed = sink.QueuedBytes();
    sink.SetActive(true);
    ASSERT_TRUE(WaitUntil([&] { return sink.QueuedBytes() < pushed; }, kOftenMs));
    sink.SetActive(bActive);
    Absence absence;
    const size_t queued = sink.QueuedBytes() / samplesPerFrame / sizeof(float);
    ASSERT_GT(queued, 0u);
    const NewSession session;
    MonitorRecording recording;
    absence.LetGo();
    ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
    EXPECT_EQ(NodeProperties("tovrel")["node.rate"], "1/" + std::to_string(rate));
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::vector<float> recorded = recording.Finish();
    const double framesPerSum = rate / (static_cast<double>(kConstant) * kSinkRate);
    const auto heardFrames = [&](size_t channel)
    {
        return SumOfChannel(recorded, channel) * framesPerSum;
    };
    // A resampler starts in the middle of its first frame and is off by a part in ten thousand.
    const double tolerance = 1.0 + 0.0001 * static_cast<double>(queued);
    const double expected = static_cast<double>(queued);
    EXPECT_NEAR(heardFrames(0), expected, tolerance);
    EXPECT_NEAR(heardFrames(1), channels == 1 ? expected : 0.0, tolerance);
}

INSTANTIATE_TEST_SUITE_P(Format, FormatOverRestart,
                         testing::Values(FormatCase{44100, 1, true}, FormatCase{44100, 1, false},
                                         FormatCase{48000, 6, true}, FormatCase{48000, 6, false},
                                         FormatCase{96000, 2, true}),
                         [](const auto& format)
                         {
                             return std::to_string(format.param.rate) + "Hz" +
                                    std::to_string(format.param.channels) +
                                    (format.param.bActive ? "Active" : "Held");
                         });

// --- Time over a restart ------------------------------------------------------------------------

TEST(TimeOverRestart, StandsStillMeanwhileAndEndsAtThePushedLength)
{
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    TimeWatch watch([&] { return sink.PresentedSeconds(); });
    KillDaemon();
    // What had been handed over counts as heard.
    ASSERT_TRUE(WaitUntil([&] { return sink.PresentedSeconds() >= Seconds(sink.Taken()); }));
    const double meanwhile = sink.PresentedSeconds();
    EXPECT_DOUBLE_EQ(meanwhile, Seconds(sink.Taken()));
    SleepMs(400);
    double inFlight = -1.0;
    EXPECT_TRUE(sink.GetStreamTime(nullptr, &inFlight));
    EXPECT_EQ(inFlight, 0.0);
    EXPECT_EQ(sink.PresentedSeconds(), meanwhile);
    const NewSession session;
    ASSERT_TRUE(WaitUntil([&] { return sink.PresentedSeconds() > meanwhile; }));
    EXPECT_LE(sink.PresentedSeconds(), Seconds(sink.Taken()));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(watch.WentBack());
}

TEST(TimeOverRestart, OfAHeldSinkStandsStillUntilItGoesOn)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    sink.SetActive(false);
    TimeWatch watch([&] { return sink.PresentedSeconds(); });
    KillDaemon();
    SleepMs(100);
    const double held = sink.PresentedSeconds();
    EXPECT_LE(held, Seconds(sink.Taken()));
    const NewSession session;
    ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
    EXPECT_EQ(sink.PresentedSeconds(), held);
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(watch.WentBack());
}

TEST(TimeOverRestart, QueuedSecondsAreThoseOfTheQueueMeanwhile)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    KillDaemon();
    ASSERT_TRUE(WaitUntil([&] { return sink.PresentedSeconds() >= Seconds(sink.Taken()); }));
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), Seconds(sink.Queued()));
    sink.Push(4800);
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), Seconds(sink.Queued()));
    sink.SetActive(false);
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), Seconds(sink.Queued()));
    sink.Clear();
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
}

// Long cycles, so that the last frames are still on their way when the daemon dies.
class EmptyQueueAtDeath : public testing::TestWithParam<bool>
{
};

TEST_P(EmptyQueueAtDeath, DrainEnds)
{
    constexpr size_t kLongQuantum = 8192;
    ForceQuantum(kLongQuantum);
    CountingSink sink;
    sink.Push(kLongQuantum);
    ASSERT_TRUE(sink.AwaitTaken(sink.Pushed()));
    sink.SetActive(GetParam());
    EXPECT_GT(sink.QueuedSeconds(), 0.02);
    KillDaemon();
    const auto taken = DurationOf([&] { EXPECT_TRUE(DrainAsWorkersDo(sink)); });
    EXPECT_LE(taken.count(), (kAtOnce + kSlack).count());
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
    EXPECT_LE(sink.PresentedSeconds(), Seconds(sink.Pushed()));
}

INSTANTIATE_TEST_SUITE_P(Sink, EmptyQueueAtDeath, testing::Bool(),
                         [](const auto& active) { return active.param ? "Active" : "Held"; });

// --- Operations while it is gone ----------------------------------------------------------------

// The longest of many calls.
class LongestCall
{
public:
    void Time(const std::function<void()>& call)
    {
        m_longest = std::max(m_longest, DurationOf(call));
    }
    ~LongestCall()
    {
        std::cout << "the longest call took " << m_longest.count() << " ms\n";
        EXPECT_LE(m_longest.count(), (kAtOnce + kSlack).count());
    }
    LongestCall() = default;
    LongestCall(const LongestCall&) = delete;
    LongestCall& operator=(const LongestCall&) = delete;

private:
    std::chrono::milliseconds m_longest{0};
};

// For longer than the first retries, so that they are met in the middle.
void ExpectAllOperationsReturnAtOnce(CountingSink& sink)
{
    constexpr std::chrono::milliseconds kMeanwhile{1000};
    LongestCall longest;
    const auto end = Clock::now() + kMeanwhile;
    for (int round = 0; Clock::now() < end; ++round)
    {
        longest.Time([&] { sink.SetActive(round % 2 == 0); });
        longest.Time([&] { sink.Push(48); });
        longest.Time([&] { EXPECT_GE(sink.QueuedSeconds(), Seconds(48)); });
        longest.Time([&] { EXPECT_TRUE(sink.GetStreamTime(nullptr, nullptr)); });
        longest.Time([&] { sink.GetStreamTimePWOnly(nullptr, nullptr); });
        if (round % 16 == 0)
            longest.Time([&] { sink.Clear(); });
        SleepMs(1);
    }
    longest.Time([&] { sink.Destroy(); });
}

TEST(SinkWhileDaemonIsGone, OperationsReturnAtOnce)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(4 * kQuantum));
    KillDaemon();
    SleepMs(50);
    ExpectAllOperationsReturnAtOnce(sink);
}

TEST(SinkWhileDaemonIsMute, OperationsReturnAtOnce)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(4 * kQuantum));
    const Absence absence;
    ExpectAllOperationsReturnAtOnce(sink);
}

// From the moment on at which its end is known, not only from the next attempt to connect on.
// Cycles are long, so that only that end makes what is in flight vanish so soon.
TEST(SinkWhileDaemonIsGone, GraphHasNoClock)
{
    ForceQuantum(8192);
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }));
    ASSERT_TRUE(sink.GetStreamTimePWOnly(nullptr, nullptr));
    KillDaemon();
    const auto bNothingInFlight = [&]
    {
        double inFlight = -1.0;
        return sink.GetStreamTime(nullptr, &inFlight) && inFlight == 0.0;
    };
    ASSERT_TRUE(WaitUntil(bNothingInFlight, kOftenMs));
    size_t clocks = 0;
    for (int look = 0; look < 300; ++look)
    {
        clocks += sink.GetStreamTimePWOnly(nullptr, nullptr) ? 1 : 0;
        SleepMs(1);
    }
    EXPECT_EQ(clocks, 0u);
}

// At every moment of the first retries, which are due 0.1, 0.3 and 0.7 s after the end.
TEST(SinkWhileDaemonIsGone, DestructionReturnsAtOnceAndLeavesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    std::vector<std::unique_ptr<CountingSink>> sinks;
    for (int sink = 0; sink < 40; ++sink)
    {
        sinks.push_back(std::make_unique<CountingSink>(sink % 3 != 0));
        sinks.back()->Push(4800);
    }
    KillDaemon();
    {
        LongestCall longest;
        for (size_t sink = 0; sink < sinks.size(); ++sink)
        {
            SleepMs(20);
            if (sink % 2 == 0)
                longest.Time([&] { sinks[sink]->Destroy(); });
            longest.Time([&] { sinks[sink].reset(); });
        }
    }
    EXPECT_TRUE(ComesBackTo(before));
}

TEST(SinkWhileDaemonIsGone, HoldIsKeptAfterItsReturn)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
    KillDaemon();
    sink.SetActive(false);
    const size_t next = sink.Taken();
    const NewSession session;
    ExpectSilenceUntilActive(sink, next);
}

TEST(SinkWhileDaemonIsGone, ActivationIsKeptAfterItsReturn)
{
    CountingSink sink(false);
    sink.Push(kSinkRate / 2);
    Absence absence;
    sink.SetActive(true);
    const NewSession session;
    MonitorRecording recording;
    absence.LetGo();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, sink.Pushed())));
}

TEST(SinkWhileDaemonIsGone, ClearedFramesAreNeverHeardAndWhatFollowsIsWhole)
{
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
    Absence absence;
    sink.Clear();
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    const size_t following = sink.Pushed();
    sink.Push(10000);
    const NewSession session;
    MonitorRecording recording;
    absence.LetGo();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), following, 10000)));
}

// --- Retries ------------------------------------------------------------------------------------

constexpr double kShortestWaitMs = 90.0; // 100 ms, as seen by somebody who may be late once
constexpr double kLongestWaitMs = 2000.0;

// Kills the daemon and returns the times from then to the first attempt to connect and between
// those that follow, until there are this many or they have become this long. Whoever connects is
// hung up on at once.
std::vector<double> WaitsAfterDeath(size_t count, double untilMs)
{
    std::vector<double> waits;
    auto last = Clock::now();
    KillDaemon();
    Impostor impostor;
    while (waits.size() < count && (waits.empty() || waits.back() < untilMs))
    {
        EXPECT_TRUE(impostor.Accept());
        impostor.HangUp();
        const auto now = Clock::now();
        waits.push_back(std::chrono::duration<double, std::milli>(now - last).count());
        last = now;
    }
    std::cout << "between the attempts to connect:";
    for (const double wait : waits)
        std::cout << ' ' << std::lround(wait);
    std::cout << " ms\n";
    return waits;
}

TEST(SinkRetries, WaitEverLongerUpToTwoSecondsAndBeginAnewAfterwards)
{
    constexpr double kJitter = 0.9;
    const double slackMs = static_cast<double>(std::chrono::milliseconds(kSlack).count());
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(4 * kQuantum));
    const std::vector<double> waits = WaitsAfterDeath(10, kJitter * kLongestWaitMs);
    EXPECT_GE(*std::min_element(waits.begin(), waits.end()), kShortestWaitMs);
    EXPECT_GE(waits.back(), kJitter * kLongestWaitMs);
    EXPECT_LE(waits.back(), kLongestWaitMs + slackMs);
    for (size_t wait = 2; wait < waits.size(); ++wait)
    {
        EXPECT_GE(waits[wait], kJitter * waits[wait - 1]);
        EXPECT_LE(waits[wait], 2.0 * waits[wait - 1] + slackMs);
    }
    {
        const NewSession session;
        ASSERT_TRUE(sink.AwaitTaken(sink.Taken() + 8 * kQuantum));
        const std::vector<double> anew = WaitsAfterDeath(2, kLongestWaitMs);
        EXPECT_LT(anew.back(), waits.back());
    }
    const NewSession session;
    EXPECT_TRUE(DrainAsWorkersDo(sink));
}

// A held sink never plays on its new connection, which starts the waits anew all the same.
TEST(SinkRetries, BeginAnewAfterAConnectionThatStoodWhileHeld)
{
    CountingSink sink(false);
    const std::vector<double> waits = WaitsAfterDeath(4, kLongestWaitMs);
    {
        const NewDaemon daemon;
        ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
        SleepMs(static_cast<int>(kLongestWaitMs) + 200);
        const std::vector<double> anew = WaitsAfterDeath(2, kLongestWaitMs);
        EXPECT_LT(anew.back(), waits.back());
    }
}

TEST(SinkRetries, OutliveDaemonsThatSayNothingAndDie)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
    KillDaemon();
    for (int daemon = 0; daemon < 2; ++daemon)
    {
        Impostor mute;
        ASSERT_TRUE(mute.Accept());
        SleepMs(150);
    }
    const size_t next = sink.Taken();
    std::optional<Impostor> last(std::in_place);
    ASSERT_TRUE(last->Accept());
    BackDoor backDoor;
    const NewSession session;
    MonitorRecording recording;
    last.reset();
    backDoor.OpenFront();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), next, sink.Pushed() - next)));
}

// Killed again when the sink has come back, or while it is coming back.
TEST(SinkRetries, OutliveDaemonsThatDieAgainAndAgain)
{
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
    TimeWatch watch([&] { return sink.PresentedSeconds(); });
    KillDaemon();
    for (int life = 0; life < 2; ++life)
    {
        const NewSession session;
        ASSERT_TRUE(sink.AwaitTaken(sink.Taken() + 4 * kQuantum));
        KillDaemon();
        const NewDaemon withoutManager;
        ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }, kOftenMs));
        KillDaemon();
    }
    const size_t next = sink.Taken();
    const NewSession session;
    ASSERT_TRUE(sink.AwaitTaken(next + 1));
    MonitorRecording recording;
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), next, sink.Pushed() - next);
    EXPECT_TRUE(IsInOrder(heard));
    EXPECT_EQ(heard.missingAtEnd, 0u);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(watch.WentBack());
}

TEST(SinkRetries, LeaveNoThreadOrDescriptorBehind)
{
    constexpr std::chrono::seconds kLongEnough{15};
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(4 * kQuantum));
    const Resources before = Resources::Now();
    const auto end = Clock::now() + kLongEnough;
    std::optional<NewSession> session;
    int restarts = 0;
    for (; restarts < 20 && Clock::now() < end; ++restarts)
    {
        KillDaemon();
        session.reset();
        session.emplace();
        sink.Push(8 * kQuantum);
        ASSERT_TRUE(sink.AwaitTaken(sink.Taken() + 4 * kQuantum));
        EXPECT_TRUE(ComesBackTo(before));
    }
    std::cout << restarts << " restarts\n";
    EXPECT_GE(restarts, 3);
}

// --- Session managers ---------------------------------------------------------------------------

TEST(SinkWithoutSessionManager, OpensAndPlaysAsSoonAsThereIsOne)
{
    EndSessionManager();
    CountingSink sink(false);
    sink.Destroy();
    bool bOpened = false;
    const auto taken = DurationOf([&] { bOpened = sink.Init(kSinkRate, kSinkChannels); });
    EXPECT_TRUE(bOpened);
    EXPECT_LE(taken.count(), (kInitLimit + kSlack).count());
    sink.SetActive(true);
    sink.Push(kSinkRate / 2);
    SleepMs(200);
    EXPECT_EQ(sink.Taken(), 0u);
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(sink.GetStreamTime(nullptr, nullptr));
    const NewSessionManager manager;
    EXPECT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
}

// The devices go with the session manager that made them, and a new one makes new ones.
void RestartDevices()
{
    DestroySink("null-sink");
    CreateSink("null-sink");
}

TEST(SessionManagerRestart, PlayGoesOnWithWhatIsQueued)
{
    MonitorRecording before;
    CountingSink sink;
    sink.Push(3 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    TimeWatch watch([&] { return sink.PresentedSeconds(); });
    EndSessionManager();
    SleepMs(100);
    const size_t next = sink.Taken();
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, next);
    RestartDevices();
    EXPECT_EQ(sink.Taken(), next);
    const NewSessionManager manager;
    AwaitDefaultSink("null-sink");
    ASSERT_TRUE(sink.AwaitTaken(next + 1));
    MonitorRecording after;
    const size_t taken = sink.Taken();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heardAfter = FindIndexed(after.Finish(), next, sink.Pushed() - next);
    ExpectPlayWentOnBetween(heardBefore, heardAfter, next, taken);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(watch.WentBack());
}

TEST(SessionManagerRestart, HeldSinkPlaysOnceItIsActiveAgain)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(8 * kQuantum));
    sink.SetActive(false);
    SleepMs(100); // what had begun
    const size_t next = sink.Taken();
    EndSessionManager();
    RestartDevices();
    const NewSessionManager manager;
    AwaitDefaultSink("null-sink");
    MonitorRecording recording;
    EXPECT_EQ(sink.Taken(), next);
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), next, sink.Pushed() - next)));
}

// --- Devices ------------------------------------------------------------------------------------

TEST(SinkDevice, ThatVanishesHandsThePlayToTheOtherOne)
{
    CreateSink("other-sink");
    MonitorRecording before;
    MonitorRecording after("other-sink");
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    const size_t lastBefore = sink.Taken();
    DestroySink("null-sink");
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heardAfter = FindIndexed(after.Finish(), 0, sink.Pushed());
    // The first recording is moved as well: of it, what was heard before the second one's start.
    Heard heardBefore = FindIndexed(before.Finish(0), 0, sink.Pushed());
    ASSERT_TRUE(IsInOrder(heardAfter));
    EXPECT_EQ(heardAfter.missingAtEnd, 0u);
    EXPECT_EQ(heardBefore.missingAtStart + heardBefore.repeated + heardBefore.outOfOrder, 0u);
    const auto handedOn = std::lower_bound(heardBefore.indices.begin(), heardBefore.indices.end(),
                                           heardAfter.indices.front());
    ASSERT_NE(handedOn, heardBefore.indices.begin());
    EXPECT_GE(*(handedOn - 1) + kHandedOver, lastBefore);
    EXPECT_LE(heardAfter.indices.front() - *(handedOn - 1) - 1, kHandedOver);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
}

TEST(SinkDevice, ThatVanishesWithoutAnotherHoldsTheQueueUntilOneAppears)
{
    MonitorRecording before;
    CountingSink sink;
    sink.Push(3 * kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    TimeWatch watch([&] { return sink.PresentedSeconds(); });
    DestroySink("null-sink");
    SleepMs(100);
    const size_t next = sink.Taken();
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, next);
    SleepMs(300);
    EXPECT_EQ(sink.Taken(), next);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(next));
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), Seconds(sink.Queued()));
    CreateSink("other-sink");
    MonitorRecording after("other-sink");
    const size_t taken = sink.Taken();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heardAfter = FindIndexed(after.Finish(), next, sink.Pushed() - next);
    ExpectPlayWentOnBetween(heardBefore, heardAfter, next, taken);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_FALSE(watch.WentBack());
}

TEST(SinkDevice, ThatStaysAwayIsWaitedForByOneNewStream)
{
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    // Unlike its number, no later stream has it again.
    const auto serial = []
    {
        return std::strtoul(NodeProperties("tovrel")["object.serial"].c_str(), nullptr, 10);
    };
    const unsigned long first = serial();
    DestroySink("null-sink");
    ASSERT_TRUE(WaitUntil([&] { return serial() > first; }));
    const unsigned long second = serial();
    const size_t next = sink.Taken();
    SleepMs(3000); // three looks at it
    EXPECT_EQ(serial(), second);
    EXPECT_EQ(sink.Taken(), next);
    CreateSink("other-sink");
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_EQ(serial(), second);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
}

TEST(SinkDevice, ThatIsNotThereAtInitIsWaitedForAndHearsEveryFrame)
{
    DestroySink("null-sink");
    PipeWirePlayer early;
    bool bOpened = false;
    const auto taken = DurationOf([&] { bOpened = early.Init(kSinkRate, kSinkChannels); });
    EXPECT_TRUE(bOpened);
    EXPECT_LE(taken.count(), (kInitLimit + kSlack).count());
    PushFrames(early, IndexedFrames(0, kSinkRate / 2));
    const size_t pushed = early.QueuedBytes();
    early.SetActive(true);
    SleepMs(200);
    EXPECT_EQ(early.QueuedBytes(), pushed);
    CreateSink("other-sink");
    ASSERT_TRUE(DrainAsWorkersDo(early));
    double presented = 0.0;
    EXPECT_TRUE(early.GetStreamTime(&presented, nullptr));
    EXPECT_DOUBLE_EQ(presented, Seconds(kSinkRate / 2));
}

// The same, held until somebody listens: what follows the wait is whole.
TEST(SinkDevice, ThatIsNotThereAtInitHearsAHeldSinkFromItsFirstFrame)
{
    DestroySink("null-sink");
    CountingSink sink(false);
    sink.Push(kSinkRate / 2);
    CreateSink("other-sink");
    MonitorRecording recording("other-sink");
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, sink.Pushed())));
}

// Somebody throws the stream out of the graph; the recording goes on throughout.
TEST(SinkNode, ThatIsDestroyedFromOutsideComesBackByItself)
{
    MonitorRecording recording;
    CountingSink sink;
    sink.Push(2 * kSinkRate);
    for (const size_t seconds : {0u, 1u})
    {
        ASSERT_TRUE(sink.AwaitTaken(seconds * kSinkRate + 16 * kQuantum));
        const uint32_t node = NodeId("tovrel");
        OutputOf({"pw-cli", "destroy", std::to_string(node)});
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, sink.Pushed());
    EXPECT_EQ(heard.missingAtStart + heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
    EXPECT_LE(heard.lostBetween, 2 * kHandedOver);
    EXPECT_GE(heard.gaps, 2u);
    EXPECT_DOUBLE_EQ(sink.PresentedSeconds(), Seconds(sink.Pushed()));
    EXPECT_EQ(EngineNodeCount(), 1u);
}

// A flush shows as a pause of the stream, which plays on all the same: nothing is to be mended.
TEST(SinkNode, StaysInPlaceAfterClear)
{
    constexpr size_t kFollowing = 2 * kSinkRate; // longer than a missing link is waited for
    MonitorRecording recording;
    CountingSink sink;
    sink.Push(kSinkRate);
    ASSERT_TRUE(sink.AwaitTaken(16 * kQuantum));
    const std::string serial = NodeProperties("tovrel")["object.serial"];
    sink.Clear();
    const size_t following = sink.Pushed();
    sink.Push(kFollowing);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_EQ(NodeProperties("tovrel")["object.serial"], serial);
    const Heard heard = FindIndexed(recording.Finish(), following, kFollowing);
    EXPECT_EQ(heard.missingAtStart + heard.lostBetween + heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
}

// --- The player ---------------------------------------------------------------------------------

// A file that passes to the sink bit for bit.
std::string IndexedFile(size_t frames)
{
    WriteFloats(RuntimePath("indexed.f32"), IndexedFrames(0, frames));
    std::string path = RuntimePath("indexed.wav");
    RunFfmpeg({"-f", "f32le", "-ar", std::to_string(kSinkRate), "-ac", "2", "-i",
               RuntimePath("indexed.f32"), "-c:a", "pcm_f32le", path});
    return path;
}

// Returns in mid-play.
void AwaitMidPlay(const MonitorRecording& recording)
{
    recording.AwaitSound();
    recording.AwaitMore(kSinkRate / 4);
}

enum class Material
{
    Buffer,
    File
};

bool Play(TovrelAudioPlayer& player, Material material, size_t frames)
{
    return material == Material::File
               ? player.PlayFile(IndexedFile(frames))
               : player.PlayPcm(IndexedFrames(0, frames), kSinkRate, kSinkChannels);
}

class PlayerOverRestart : public testing::TestWithParam<Material>
{
};

TEST_P(PlayerOverRestart, PlaysOnToTheEnd)
{
    constexpr size_t kFrames = 2 * kSinkRate;
    MonitorRecording before;
    TovrelAudioPlayer player;
    ASSERT_TRUE(Play(player, GetParam(), kFrames));
    AwaitMidPlay(before);
    TimeWatch watch([&] { return player.CurrentSeconds(); });
    Absence absence;
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, kFrames);
    const NewSession session;
    MonitorRecording after;
    EXPECT_FALSE(player.HasFinished());
    absence.LetGo();
    ASSERT_TRUE(WaitForEnd(player));
    ExpectPlayWentOn(heardBefore, FindIndexed(after.Finish(), 0, kFrames));
    EXPECT_FALSE(watch.WentBack());
    EXPECT_DOUBLE_EQ(player.CurrentSeconds(), Seconds(kFrames));
    EXPECT_EQ(player.LastError(), "");
}

TEST_P(PlayerOverRestart, KeepsAPauseAndGoesOnAfterIt)
{
    constexpr size_t kFrames = 2 * kSinkRate;
    MonitorRecording before;
    TovrelAudioPlayer player;
    ASSERT_TRUE(Play(player, GetParam(), kFrames));
    AwaitMidPlay(before);
    KillDaemon();
    player.SetPaused(true);
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, kFrames);
    const NewSession session;
    ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
    MonitorRecording after;
    after.AwaitMore(16 * kQuantum);
    const size_t resumedAt = after.Now();
    player.SetPaused(false);
    ASSERT_TRUE(WaitForEnd(player));
    const Heard heardAfter = FindIndexed(after.Finish(), 0, kFrames);
    ExpectPlayWentOn(heardBefore, heardAfter);
    EXPECT_GE(heardAfter.positions.front(), resumedAt);
}

TEST_P(PlayerOverRestart, SeeksMeanwhileAndIsHeardFromThere)
{
    constexpr size_t kFrames = 4 * kSinkRate;
    constexpr size_t kTarget = 3 * kSinkRate;
    TovrelAudioPlayer player;
    ASSERT_TRUE(Play(player, GetParam(), kFrames));
    ASSERT_TRUE(WaitForOutput(player));
    Absence absence;
    player.SeekToSeconds(Seconds(kTarget));
    const NewSession session;
    MonitorRecording recording;
    absence.LetGo();
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), kTarget, kFrames - kTarget)));
}

INSTANTIATE_TEST_SUITE_P(Plays, PlayerOverRestart,
                         testing::Values(Material::Buffer, Material::File),
                         [](const auto& material)
                         { return material.param == Material::File ? "File" : "Buffer"; });

TEST(PlayerWhileDaemonIsGone, ControlsAndStopReturnAtOnce)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(Play(player, Material::Buffer, 10 * kSinkRate));
    ASSERT_TRUE(WaitForOutput(player));
    KillDaemon();
    LongestCall longest;
    for (int round = 0; round < 100; ++round)
    {
        longest.Time([&] { player.SetPaused(round % 2 == 0); });
        longest.Time([&] { player.SeekToSeconds(0.05 * round); });
        longest.Time([&] { player.CurrentSeconds(); });
        SleepMs(10);
    }
    EXPECT_TRUE(player.IsPlaying());
    longest.Time([&] { player.RequestStop(); });
    longest.Time([&] { EXPECT_TRUE(WaitForEnd(player)); });
    longest.Time([&] { player.Stop(); });
    EXPECT_FALSE(player.IsPlaying());
}

TEST(PlayerWhileDaemonIsGone, NewPlayEndsTheOldOneAndTellsTheError)
{
    const std::string path = IndexedFile(kSinkRate);
    TovrelAudioPlayer player;
    LongestCall longest;
    ASSERT_TRUE(Play(player, Material::Buffer, 10 * kSinkRate));
    ASSERT_TRUE(WaitForOutput(player));
    KillDaemon();
    SleepMs(150); // into the retries
    longest.Time([&] { EXPECT_TRUE(Play(player, Material::Buffer, kSinkRate)); });
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
    longest.Time([&] { EXPECT_TRUE(player.PlayFile(path)); });
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
    const NewSession session;
    ASSERT_TRUE(Play(player, Material::Buffer, kSinkRate / 4));
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), "");
}

TEST(PlayerWhileDaemonIsGone, DestructionReturnsAtOnceAndLeavesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    std::vector<std::unique_ptr<TovrelAudioPlayer>> players;
    for (int player = 0; player < 10; ++player)
    {
        players.push_back(std::make_unique<TovrelAudioPlayer>());
        ASSERT_TRUE(Play(*players.back(), Material::Buffer, 10 * kSinkRate));
        // One after the other: PipeWire's look-up of the user is not meant for several threads.
        ASSERT_TRUE(WaitForOutput(*players.back()));
    }
    KillDaemon();
    {
        LongestCall longest;
        for (auto& player : players)
        {
            SleepMs(70);
            longest.Time([&] { player.reset(); });
        }
    }
    EXPECT_TRUE(ComesBackTo(before));
}

// The station stays connected: nobody but the daemon was away.
TEST(RadioOverRestart, PlaysOnWithoutReconnecting)
{
    constexpr size_t kSent = 4 * kSinkRate;
    std::ifstream file(IndexedFile(6 * kSinkRate), std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    bytes.resize(kSent * kFrameBytes); // short of what its head tells, so that it has no end
    Script script = Live(bytes, {"Content-Type: audio/wav"});
    script.push_back(Stall());
    const ScriptedServer server({script});
    std::atomic<bool> bReconnected{false};
    MonitorRecording before;
    TovrelAudioPlayer player;
    const auto report = [&](StreamState state, const auto&, const auto&)
    {
        bReconnected = bReconnected || state == StreamState::Reconnecting;
    };
    ASSERT_TRUE(player.PlayStream(server.Url(), report));
    AwaitMidPlay(before);
    Absence absence;
    const Heard heardBefore = FindIndexed(before.Finish(0), 0, kSent);
    const NewSession session;
    MonitorRecording after;
    absence.LetGo();
    after.AwaitSound();
    after.AwaitMore(2 * kSinkRate);
    player.Stop();
    Heard heardAfter = FindIndexed(after.Finish(), 0, kSent);
    EXPECT_GT(heardAfter.indices.size(), size_t{kSinkRate});
    heardAfter.missingAtEnd = 0; // stopped on the way
    ExpectPlayWentOn(heardBefore, heardAfter);
    EXPECT_FALSE(bReconnected);
    EXPECT_EQ(server.RequestCount(), 1u);
}

} // namespace
