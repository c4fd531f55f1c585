// Starting and stopping: the order of the steps, what they leave behind, and that nobody waits.
#include "playback.h"

#include <atomic>
#include <memory>

namespace
{

using testing::ElementsAre;

class StartStop : public Playback
{
};

const std::string kMissingFile = "/nonexistent/tovrel/file.flac";

} // namespace

TEST_F(StartStop, StopOnAnIdlePlayerIsHarmless)
{
    player.Stop();
    player.Stop();
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(player.HasFinished());
    EXPECT_TRUE(player.IsStopRequestedForInterrupt());
    EXPECT_TRUE(VirtualDevice::Calls("").empty());
}

TEST_F(StartStop, PlayingReportsPlaying)
{
    PlayPcm(Ramp(48000, 2), 48000, 2);
    EXPECT_TRUE(player.IsPlaying());
    EXPECT_FALSE(player.HasFinished());
    EXPECT_FALSE(player.IsPaused());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_TRUE(access.HasThread());
    EXPECT_TRUE(access.HasOutput());
}

TEST_F(StartStop, RequestStopSilencesAtOnceAndDoesNotWait)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualDevice::ForgetCalls();
    player.RequestStop(); // the worker sleeps: this would hang if it waited
    EXPECT_TRUE(player.IsStopRequestedForInterrupt());
    EXPECT_TRUE(player.IsPlaying());
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("SetActive 0"));
}

TEST_F(StartStop, WorkerEndsWithinOnePollAfterRequestStop)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.RequestStop();
    VirtualTime::Step(0.008);
    EXPECT_TRUE(player.HasFinished());
}

TEST_F(StartStop, RequestStopWakesAPausedWorker)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SetPaused(true);
    VirtualTime::Step(1.0);
    player.RequestStop();
    EXPECT_FALSE(player.IsPaused());
    VirtualTime::Step(0.020);
    EXPECT_TRUE(player.HasFinished());
}

TEST_F(StartStop, ResumeAfterRequestStopStaysSilent)
{
    PlayPcm(Ramp(48000, 2), 48000, 2);
    player.RequestStop();
    player.SetPaused(false);
    EXPECT_FALSE(VirtualDevice::Last().bActive);
}

TEST_F(StartStop, RequestStopComesFromAnyThread)
{
    player.SetAudioPCMCallback([this](const float*, int, int, int, long) { player.RequestStop(); });
    PlayPcm(Ramp(480000, 2), 48000, 2);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(VirtualDevice::Last().pushedFrames.size(), 1u);
}

TEST_F(StartStop, StopClearsDestroysAndDeletesTheSinkAfterTheWorkerEnded)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualDevice::ForgetCalls();
    Stop();
    // Silence first, then the worker's own end, then the sink.
    EXPECT_THAT(VirtualDevice::Calls(),
                ElementsAre("SetActive 0", "SetActive 0", "Clear", "Destroy", "delete"));
    EXPECT_FALSE(access.HasOutput());
    EXPECT_FALSE(access.HasThread());
}

TEST_F(StartStop, StopLeavesTheStopRequestAndTheEndSignal)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    Stop();
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(player.IsPaused());
    EXPECT_TRUE(player.IsStopRequestedForInterrupt());
    EXPECT_TRUE(player.HasFinished());
}

TEST_F(StartStop, StopEndsAPause)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SetPaused(true);
    Stop();
    EXPECT_FALSE(player.IsPaused());
}

TEST_F(StartStop, NextPlayResetsWhatStopLeft)
{
    PlayPcm(Ramp(4800, 2), 48000, 2);
    Stop();
    PlayPcm(Ramp(480000, 2), 48000, 2);
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_FALSE(player.HasFinished());
    EXPECT_TRUE(player.IsPlaying());
}

TEST_F(StartStop, NaturalEndKeepsTheSinkInactiveUntilStop)
{
    PlayPcm(Ramp(4800, 2), 48000, 2);
    RunToEnd();
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_TRUE(player.HasFinished());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_TRUE(access.HasOutput());
    EXPECT_TRUE(access.HasThread());
    EXPECT_FALSE(VirtualDevice::Last().bActive);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1", "SetActive 0"));
}

TEST_F(StartStop, NextPlayJoinsTheFinishedWorkerAndDestroysTheOldSinkFirst)
{
    PlayPcm(Ramp(4800, 2), 48000, 2);
    RunToEnd();
    VirtualDevice::ForgetCalls();
    PlayPcm(Ramp(4800, 1), 44100, 1);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("SetActive 0", "Clear", "Destroy", "delete",
                                                    "Init 44100 1", "SetActive 1"));
}

TEST_F(StartStop, RejectedPlayStillEndsWhatWasPlaying)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualTime::SetFreeRunning(true);
    EXPECT_FALSE(player.PlayPcm({}, 48000, 2));
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(access.HasOutput());
}

TEST_F(StartStop, RejectedPlayTouchesNeitherErrorNorClock)
{
    PlayPcm(Ramp(4800, 2), 48000, 2);
    RunToEnd();
    access.SetLastError("kept");
    std::string error = "old";
    EXPECT_FALSE(player.PlayPcm({}, 48000, 2, 0.0, &error));
    EXPECT_EQ(error, "No PCM audio available for playback.");
    EXPECT_EQ(player.LastError(), "kept");
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.DurationSeconds(), 0.1);
    EXPECT_EQ(player.CurrentSeconds(), 0.1);
}

TEST_F(StartStop, AcceptedPlayClearsBothErrors)
{
    access.SetLastError("of the last playback");
    std::string error = "of the last call";
    EXPECT_TRUE(player.PlayPcm(Ramp(480, 2), 48000, 2, 0.0, &error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(StartStop, PlayFileNeverRejectsAPath)
{
    std::string error = "old";
    EXPECT_TRUE(player.PlayFile(kMissingFile, &error));
    EXPECT_EQ(error, "");
    EXPECT_TRUE(player.PlayFile("", &error));
    EXPECT_TRUE(player.PlayFile(kMissingFile));
}

TEST_F(StartStop, FileStartResetsTheClock)
{
    access.DurationSec() = 100.0;
    access.CurrentSec() = 50.0;
    access.PausedPresentationSec() = 50.0;
    access.PlaybackClockSourceSec() = 50.0;
    access.PlaybackClockPresentedSec() = 50.0;
    access.QueuedSourceEndSec() = 50.0;
    access.SeekTargetSec() = 50.0;
    access.SeekRequested() = true;
    PlayFile(kMissingFile);
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_EQ(access.CurrentSec(), 0.0);
    EXPECT_EQ(access.PausedPresentationSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
    EXPECT_EQ(access.QueuedSourceEndSec(), 0.0);
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_EQ(access.SeekTargetSec(), 50.0); // deliberately left
}

TEST_F(StartStop, FailedWorkerReportsThroughLastErrorAndTheEndSignal)
{
    PlayFile(kMissingFile);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_NE(player.LastError(), "");
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    player.Stop();
    EXPECT_FALSE(player.IsPlaying());
}

TEST_F(StartStop, DestroyingAPlayingPlayerStopsItAndJoinsTheWorker)
{
    std::atomic<int> blocks = 0;
    auto second = std::make_unique<TovrelAudioPlayer>();
    VirtualTime::SetWorkerEnded([&] { return !second || second->HasFinished(); });
    second->SetAudioPCMCallback([&](const float*, int, int, int, long) { ++blocks; });
    ASSERT_TRUE(second->PlayPcm(Ramp(480000, 2), 48000, 2));
    VirtualTime::Settle();
    VirtualTime::SetFreeRunning(true);
    second.reset();
    const int afterwards = blocks;
    VirtualTime::SetFreeRunning(false);
    VirtualTime::Step(1.0);
    EXPECT_GT(afterwards, 0);
    EXPECT_EQ(blocks, afterwards);
    EXPECT_TRUE(VirtualDevice::Last().bDeleted);
    VirtualTime::SetWorkerEnded([this] { return player.HasFinished(); });
}

TEST_F(StartStop, StopLetsGoOfTheTapsCaptures)
{
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> alive = token;
    player.SetAudioPCMCallback([kept = std::move(token)](const float*, int, int, int, long)
                               { (void)kept; });
    PlayPcm(Ramp(480000, 2), 48000, 2);
    Stop();
    EXPECT_EQ(alive.use_count(), 1); // the installed tap's own
    player.SetAudioPCMCallback(nullptr);
    EXPECT_TRUE(alive.expired());
}
