// How long a stop takes in every phase of a radio playback, and that nothing is left behind.
#include "radio.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>

using testing::ElementsAre;

namespace
{

// What a host is promised, in seconds; the sanitizers make everything slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kStopLimit = 1.0;
#else
constexpr double kStopLimit = 0.25;
#endif

double RealSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class StoppingRadio : public Radio
{
protected:
    void PlayScripts(std::vector<Script> scripts)
    {
        server = std::make_unique<ScriptedServer>(std::move(scripts));
        Play(server->Url());
    }
    void StartScripts(std::vector<Script> scripts)
    {
        server = std::make_unique<ScriptedServer>(std::move(scripts));
        Start(server->Url());
    }

    // Stops and tells how long the player takes for it: the real time in which its worker runs
    // (or is inside FFmpeg) and the virtual time in which it sleeps.
    double StopSeconds()
    {
        const double realStart = RealSeconds();
        const double virtualStart = VirtualTime::Now();
        player.RequestStop();
        VirtualTime::Settle();
        while (!player.HasFinished() && VirtualTime::Now() < virtualStart + 5.0)
            VirtualTime::Step(0.001);
        player.Stop();
        return RealSeconds() - realStart + VirtualTime::Now() - virtualStart;
    }

    void ExpectQuickStop(const char* phase)
    {
        const double seconds = StopSeconds();
        std::printf("stopped in %.1f ms: %s\n", seconds * 1000.0, phase);
        EXPECT_LT(seconds, kStopLimit);
        EXPECT_EQ(reports.Last().state, StreamState::Stopped);
        EXPECT_EQ(reports.Last().text, "");
        EXPECT_FALSE(access.HasOutput());
    }

    bool Reported(StreamState state)
    {
        return Eventually([&] { return reports.Count(state) > 0; });
    }

    std::unique_ptr<ScriptedServer> server;
};

// Not whole, so that there is always more to come.
Script Endless(double seconds)
{
    return Live(WavBytes(Seconds(seconds))) + Script{Stall()};
}

} // namespace

TEST_F(StoppingRadio, WhileConnecting)
{
    const DeafServer deaf;
    Start(deaf.Url());
    ASSERT_TRUE(Reported(StreamState::Connecting));
    std::this_thread::sleep_for(std::chrono::milliseconds(150)); // until FFmpeg waits
    ExpectQuickStop("connecting to a port that does not react");
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0",
                                     "Reconnecting 1 retry 1/300: Radio stream "
                                     "open cancelled.",
                                     "Stopped 1"));
}

TEST_F(StoppingRadio, WhileTheServerDoesNotAnswer)
{
    StartScripts({{Stall()}});
    ASSERT_TRUE(Eventually([&] { return server->RequestCount() == 1; }));
    ExpectQuickStop("waiting for an answer");
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0",
                                     "Reconnecting 1 retry 1/300: Radio stream "
                                     "open cancelled.",
                                     "Stopped 1"));
    EXPECT_EQ(player.LastError(), "Radio stream open cancelled.");
}

TEST_F(StoppingRadio, WhileTheServerStallsAfterItsHeaders)
{
    StartScripts({{Reply("HTTP/1.0 200 OK"), Stall()}});
    ASSERT_TRUE(Eventually([&] { return server->RequestCount() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // until FFmpeg waits
    ExpectQuickStop("waiting for the first byte of the body");
}

TEST_F(StoppingRadio, WhileFFmpegReconnectsByItself)
{
    StartScripts({Live(WavBytes(Seconds(1.0))), NotFound()});
    ASSERT_TRUE(Eventually([&] { return server->RequestCount() >= 2; }));
    ExpectQuickStop("a drop that FFmpeg is mending");
}

TEST_F(StoppingRadio, WhileFFmpegLooksForStreams)
{
    const int before = CallCount("avformat_find_stream_info");
    StartScripts({Endless(0.3)}); // less of a WAV stream than it wants to see
    ASSERT_TRUE(Eventually([=] { return CallCount("avformat_find_stream_info") > before; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ExpectQuickStop("looking for streams, with the stream stalled");
}

TEST_F(StoppingRadio, WhileBufferingStalls)
{
    StartScripts({Endless(0.69)});
    ASSERT_TRUE(Eventually([&] { return access.QueuedSourceEndSec() > 0.6; }));
    EXPECT_EQ(reports.Count(StreamState::Playing), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // until FFmpeg waits
    ExpectQuickStop("buffering, with the stream stalled");
}

TEST_F(StoppingRadio, WhileReadingStalls)
{
    StartScripts({Endless(1.0)});
    ASSERT_TRUE(Reported(StreamState::Playing));
    ASSERT_TRUE(Eventually([&] { return access.QueuedSourceEndSec() > 0.9; }));
    ExpectQuickStop("playing, with the stream stalled");
}

TEST_F(StoppingRadio, WhilePlaying)
{
    PlayScripts({Endless(4.0)});
    VirtualTime::Step(0.5055);
    ExpectQuickStop("playing");
    EXPECT_EQ(reports.Count(StreamState::Reconnecting), 0u);
}

TEST_F(StoppingRadio, WhilePausedAndTheQueueIsFull)
{
    PlayScripts({Endless(4.0)});
    player.SetPaused(true);
    VirtualTime::Step(1.0055);
    ExpectQuickStop("paused, with the queue full");
}

TEST_F(StoppingRadio, WhilePaused)
{
    player.SetAudioPCMCallback(
        [this](const float*, int, int, int, long)
        {
            while (!player.IsPlaying())
                std::this_thread::yield();
            player.SetPaused(true);
        });
    PlayScripts({Endless(1.0)});
    VirtualTime::Step(1.0055);
    ExpectQuickStop("paused");
}

TEST_F(StoppingRadio, WhileWaitingForTheNextAttempt)
{
    PlayScripts({NotFound()});
    VirtualTime::Step(0.501); // the worst moment: just after a step of the wait began
    ExpectQuickStop("waiting for the next attempt");
}

TEST_F(StoppingRadio, DestructionIsAStop)
{
    ScriptedServer silent({{Stall()}});
    auto second = std::make_unique<TovrelAudioPlayer>();
    second->PlayStream(silent.Url(), reports.Callback());
    ASSERT_TRUE(Eventually([&] { return silent.RequestCount() == 1; }));
    VirtualTime::SetFreeRunning(true);
    const double start = RealSeconds();
    second.reset();
    EXPECT_LT(RealSeconds() - start, kStopLimit);
    EXPECT_EQ(reports.Last().state, StreamState::Stopped);
}

TEST_F(StoppingRadio, NothingIsReportedAfterwards)
{
    PlayScripts({Endless(4.0)});
    Stop();
    const size_t count = reports.All().size();
    VirtualTime::Step(5.0);
    EXPECT_EQ(reports.All().size(), count);
    EXPECT_EQ(reports.Last().state, StreamState::Stopped);
}

// --- Zapping

namespace
{

size_t EntriesOf(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

std::pair<size_t, size_t> DescriptorsAndThreads()
{
    return {EntriesOf("/proc/self/fd"), EntriesOf("/proc/self/task")};
}

} // namespace

TEST_F(StoppingRadio, ZappingThroughStationsLeavesNothingBehind)
{
    // Silent, stalled in its headers, live, stalled, gone: each station in turn.
    const std::vector<Script> stations = {
        {Stall()}, {Reply("HTTP/1.0 200 OK"), Stall()}, Endless(4.0), Endless(0.3), NotFound()};
    std::vector<Script> zapped;
    for (int i = 0; i < 10; ++i)
        zapped.insert(zapped.end(), stations.begin(), stations.end());
    ScriptedServer radio(zapped);
    const auto before = DescriptorsAndThreads();

    VirtualTime::SetFreeRunning(true);
    double longest = 0.0;
    for (size_t i = 0; i < zapped.size(); ++i)
    {
        const double start = RealSeconds();
        Start(radio.Url());
        longest = std::max(longest, RealSeconds() - start);
        // Some stations are given the time to answer, some are left at once.
        if (i % 3 != 0)
        {
            ASSERT_TRUE(Eventually([&] { return radio.RequestCount() > i / 3; }));
        }
    }
    Stop();

    std::printf("longest zap: %.1f ms\n", longest * 1000.0);
    EXPECT_LT(longest, kStopLimit);
    EXPECT_TRUE(Eventually([&] { return DescriptorsAndThreads() == before; }))
        << DescriptorsAndThreads().first << " descriptors for " << before.first << ", "
        << DescriptorsAndThreads().second << " threads for " << before.second;
    EXPECT_EQ(reports.Count(StreamState::Stopped), zapped.size());
    for (const auto& sink : VirtualDevice::Sinks())
        EXPECT_TRUE(sink->bDeleted);
}
