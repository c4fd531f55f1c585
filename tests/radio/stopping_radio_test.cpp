// How long a stop takes in every phase of a radio playback, and that nothing is left behind.
#include "radio.h"

#include <cstdio>
#include <memory>

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace
{

class StoppingRadio : public Radio
{
protected:
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

TEST_F(StoppingRadio, InTheBlockThatFillsTheStartBufferStaysSilent)
{
    InBlock(kStartBlocks, [this] { player.RequestStop(); });
    PlayScripts({Endless(4.0)});
    EXPECT_EQ(VirtualDevice::Calls().back(), "delete");
    EXPECT_THAT(VirtualDevice::Calls(), Not(Contains("SetActive 1")));
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

TEST_F(StoppingRadio, NothingIsReportedAfterwards)
{
    PlayScripts({Endless(4.0)});
    Stop();
    const size_t count = reports.All().size();
    VirtualTime::Step(5.0);
    EXPECT_EQ(reports.All().size(), count);
    EXPECT_EQ(reports.Last().state, StreamState::Stopped);
}

// --- Destruction is a stop

namespace
{

class DestroyingRadio : public StoppingRadio
{
protected:
    DestroyingRadio()
    {
        VirtualTime::SetWorkerEnded([] { return false; });
    }

    void StartDoomed(std::vector<Script> scripts)
    {
        server = std::make_unique<ScriptedServer>(std::move(scripts));
        ASSERT_TRUE(doomed->PlayStream(server->Url(), reports.Callback()));
    }
    void PlayDoomed(std::vector<Script> scripts)
    {
        StartDoomed(std::move(scripts));
        VirtualTime::Settle();
    }

    void ExpectQuickDestruction(const char* phase)
    {
        std::atomic<bool> bDestroyed = false;
        VirtualTime::SetWorkerEnded([&] { return bDestroyed.load(); });
        const double realStart = RealSeconds();
        const double virtualStart = VirtualTime::Now();
        const TovrelAudioPlayerTestAccess going{*doomed};
        std::thread destroyer;
        {
            // Held, so that no time passes before the player has begun to stop.
            const std::lock_guard lock(going.AudioOutputMutex());
            destroyer = std::thread(
                [&]
                {
                    doomed.reset();
                    bDestroyed = true;
                });
            while (!going.StopRequested())
                std::this_thread::yield();
        }
        while (!bDestroyed && VirtualTime::Now() < virtualStart + 5.0)
            VirtualTime::Step(0.001);
        VirtualTime::SetFreeRunning(true);
        destroyer.join();
        VirtualTime::SetFreeRunning(false);
        VirtualTime::SetWorkerEnded([] { return true; });
        const double seconds = RealSeconds() - realStart + VirtualTime::Now() - virtualStart;
        std::printf("destroyed in %.1f ms: %s\n", seconds * 1000.0, phase);
        EXPECT_LT(seconds, kStopLimit);
        EXPECT_EQ(reports.Last().state, StreamState::Stopped);
        for (const auto& sink : VirtualDevice::Sinks())
            EXPECT_TRUE(sink->bDeleted);
    }

    std::unique_ptr<TovrelAudioPlayer> doomed = std::make_unique<TovrelAudioPlayer>();
    TovrelAudioPlayerTestAccess inside{*doomed};
};

} // namespace

TEST_F(DestroyingRadio, WhileTheServerDoesNotAnswer)
{
    StartDoomed({{Stall()}});
    ASSERT_TRUE(Eventually([&] { return server->RequestCount() == 1; }));
    ExpectQuickDestruction("waiting for an answer");
}

TEST_F(DestroyingRadio, WhileWaitingForTheNextAttempt)
{
    PlayDoomed({NotFound()});
    VirtualTime::Step(0.501);
    ExpectQuickDestruction("waiting for the next attempt");
}

TEST_F(DestroyingRadio, WhileBufferingStalls)
{
    StartDoomed({Endless(0.69)});
    ASSERT_TRUE(Eventually([&] { return inside.QueuedSourceEndSec() > 0.6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // until FFmpeg waits
    ExpectQuickDestruction("buffering, with the stream stalled");
}

TEST_F(DestroyingRadio, WhileReadingStalls)
{
    StartDoomed({Endless(1.0)});
    ASSERT_TRUE(Eventually([&] { return inside.QueuedSourceEndSec() > 0.9; }));
    ExpectQuickDestruction("playing, with the stream stalled");
}

TEST_F(DestroyingRadio, WhilePlaying)
{
    PlayDoomed({Endless(4.0)});
    VirtualTime::Step(0.5055);
    ExpectQuickDestruction("playing");
}

TEST_F(DestroyingRadio, WhilePaused)
{
    doomed->SetAudioPCMCallback([this](const float*, int, int, int, long)
                                { PauseFromTap(*doomed); });
    PlayDoomed({Endless(1.0)});
    VirtualTime::Step(1.0055);
    ExpectQuickDestruction("paused");
}

TEST_F(DestroyingRadio, WhilePausedAndTheQueueIsFull)
{
    PlayDoomed({Endless(4.0)});
    doomed->SetPaused(true);
    VirtualTime::Step(1.0055);
    ExpectQuickDestruction("paused, with the queue full");
}

// --- Reports of the end

namespace
{

struct StopAt
{
    StreamState state;
    std::vector<std::string> reports;
};

const StopAt kStopsAt[] = {
    {StreamState::Connecting,
     {"Connecting 0", "Reconnecting 1 retry 1/300: Radio stream open cancelled.", "Stopped 1"}},
    {StreamState::Buffering, {"Connecting 0", "Buffering 0", "Stopped 0"}},
    {StreamState::Playing, {"Connecting 0", "Buffering 0", "Playing 0", "Stopped 0"}},
    {StreamState::Reconnecting,
     {"Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
      "Reconnecting 1 retry 1/300: " + kEnd, "Stopped 1"}},
};

void PrintTo(const StopAt& stop, std::ostream* out)
{
    *out << NameOf(stop.state);
}

class StopFromTheCallback : public StoppingRadio, public testing::WithParamInterface<StopAt>
{
};

} // namespace

TEST_P(StopFromTheCallback, EndsAsAStop)
{
    ScriptedServer radio({Whole(WavBytes(Seconds(1.0))), NotFound()});
    player.PlayStream(radio.Url(),
                      [this, report = reports.Callback()](StreamState state, const StreamInfo& info,
                                                          const std::string& text)
                      {
                          report(state, info, text);
                          if (state == GetParam().state)
                              player.RequestStop();
                      });
    VirtualTime::Settle();
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(Lines(), GetParam().reports);
    EXPECT_FALSE(access.HasOutput());
}

INSTANTIATE_TEST_SUITE_P(States, StopFromTheCallback, testing::ValuesIn(kStopsAt),
                         [](const auto& stop) { return NameOf(stop.param.state); });

// A host that has seen the end expects nothing more.
TEST_F(StoppingRadio, LastReportComesBeforeTheEndIsSeen)
{
    std::vector<bool> finished;
    ScriptedServer radio({NotFound()});
    player.PlayStream(radio.Url(), [&](StreamState, const StreamInfo&, const std::string&)
                      { finished.push_back(player.HasFinished()); });
    VirtualTime::Settle();
    Stop();
    EXPECT_TRUE(player.HasFinished());
    EXPECT_THAT(finished, ElementsAre(false, false, false)); // Connecting, Reconnecting, Stopped
}

TEST_F(StoppingRadio, ErrorReportComesBeforeTheEndIsSeen)
{
    std::vector<bool> finished;
    ScriptedServer radio({Whole(WavBytes(Seconds(1.0)))});
    VirtualDevice::FailInit(true);
    player.PlayStream(radio.Url(), [&](StreamState, const StreamInfo&, const std::string&)
                      { finished.push_back(player.HasFinished()); });
    VirtualTime::Settle();
    EXPECT_TRUE(player.HasFinished());
    EXPECT_THAT(finished, ElementsAre(false, false)); // Connecting, Error
}

TEST_F(StoppingRadio, FinishedIsSetBeforePlayingIsCleared)
{
    VirtualTime::SetFreeRunning(true);
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(player.PlayStream("file:/nonexistent"));
        player.RequestStop();
        ExpectFinishedBeforeNotPlaying();
    }
}

// --- Zapping

TEST_F(StoppingRadio, ZappingThroughStationsLeavesNothingBehind)
{
    // Silent, stalled in its headers, live, stalled, gone: each station in turn.
    const std::vector<Script> stations = {
        {Stall()}, {Reply("HTTP/1.0 200 OK"), Stall()}, Endless(4.0), Endless(0.3), NotFound()};
    std::vector<Script> zapped;
    for (int i = 0; i < 10; ++i)
        zapped.insert(zapped.end(), stations.begin(), stations.end());
    ScriptedServer radio(zapped);
    const Holdings atRest;

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
    ExpectHoldings(atRest);
    EXPECT_EQ(reports.Count(StreamState::Stopped), zapped.size());
    for (const auto& sink : VirtualDevice::Sinks())
        EXPECT_TRUE(sink->bDeleted);
}
