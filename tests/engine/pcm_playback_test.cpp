// PCM buffers from the first frame to the last.
#include "playback.h"

#include <atomic>
#include <climits>
#include <limits>
#include <utility>

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::Ge;

constexpr double kPollSlack = 1e-9;

class PcmPlayback : public Playback
{
protected:
    // The whole chain at its neutral settings: unity to within the rounding of the pan law.
    std::vector<float> Processed(std::vector<float> samples, int channels) const
    {
        access.ApplyGainAndPan(samples.data(), static_cast<int>(samples.size()) / channels,
                               channels);
        return samples;
    }

    std::vector<float> Heard() const { return VirtualDevice::Last().heard; }
};

std::vector<float> From(const std::vector<float>& samples, size_t first)
{
    return {samples.begin() + static_cast<ptrdiff_t>(first), samples.end()};
}

} // namespace

TEST_F(PcmPlayback, RejectsWhatCannotBePlayed)
{
    struct
    {
        std::vector<float> frames;
        int rate;
        int channels;
    } const cases[] = {
        {{}, 48000, 2}, {{0.5f}, 0, 1}, {{0.5f}, -1, 1}, {{0.5f}, 48000, 0}, {{0.5f}, 48000, -2}};
    for (const auto& bad : cases)
    {
        std::string error;
        EXPECT_FALSE(player.PlayPcm(bad.frames, bad.rate, bad.channels, 0.0, &error));
        EXPECT_EQ(error, "No PCM audio available for playback.");
        EXPECT_FALSE(player.PlayPcm(bad.frames, bad.rate, bad.channels, 0.0, nullptr));
    }
    EXPECT_EQ(player.LastError(), "");
    EXPECT_FALSE(access.HasThread());
}

TEST_F(PcmPlayback, EveryFrameIsHeardOnceAndInOrder)
{
    for (const size_t frames : {1u, 2u, 479u, 480u, 481u, 5000u, 48000u})
    {
        const std::vector<float> samples = Ramp(frames, 2);
        PlayPcm(samples, 48000, 2);
        RunToEnd();
        EXPECT_EQ(VirtualDevice::Last().pushed, Processed(samples, 2)) << frames;
        // What is left at 0.02 s is in flight with the real sink, and lost to the virtual one.
        EXPECT_LE(VirtualDevice::Last().QueuedSeconds(), 0.02);
    }
}

TEST_F(PcmPlayback, SinkIsOpenedAtTheBuffersOwnRateAndChannels)
{
    PlayPcm(Ramp(100, 6), 96000, 6);
    EXPECT_THAT(VirtualDevice::Calls(), Contains("Init 96000 6"));
}

TEST_F(PcmPlayback, ChunksAreTenMillisecondsAndNeverShorterThan256Frames)
{
    struct
    {
        int rate;
        size_t chunk;
    } const cases[] = {{48000, 480}, {44100, 441}, {22050, 256}, {25600, 256}, {25699, 256},
                       {25700, 257}, {8000, 256},  {96000, 960}, {1, 256}};
    for (const auto& each : cases)
    {
        PlayPcm(Ramp(3000, 2), each.rate, 2);
        EXPECT_EQ(VirtualDevice::Last().pushedFrames.front(), each.chunk) << each.rate;
        Stop();
    }
}

TEST_F(PcmPlayback, LastChunkIsTheRest)
{
    PlayPcm(Ramp(1000, 2), 48000, 2);
    EXPECT_THAT(VirtualDevice::Last().pushedFrames, ElementsAre(480u, 480u, 40u));
}

TEST_F(PcmPlayback, TrailingPartialFrameIsIgnored)
{
    PlayPcm({0.1f, 0.2f, 0.3f, 0.4f, 0.5f}, 48000, 2);
    EXPECT_EQ(player.DurationSeconds(), 2.0 / 48000);
    RunToEnd();
    EXPECT_EQ(VirtualDevice::Last().pushed, Processed({0.1f, 0.2f, 0.3f, 0.4f}, 2));
}

TEST_F(PcmPlayback, LessThanOneFrameFinishesAtOnce)
{
    PlayPcm({0.1f}, 48000, 2);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_TRUE(VirtualDevice::Last().pushed.empty());
}

TEST_F(PcmPlayback, DurationAndStartAreThereWhenPlayReturns)
{
    VirtualDevice::FailInit(true); // whatever the worker does later
    ASSERT_TRUE(player.PlayPcm(Ramp(96000, 2), 48000, 2, 0.5));
    EXPECT_EQ(player.DurationSeconds(), 2.0);
    EXPECT_EQ(access.CurrentSec(), 0.5);
    EXPECT_EQ(access.PausedPresentationSec(), 0.5);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.5);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
    EXPECT_EQ(access.QueuedSourceEndSec(), 0.5);
    EXPECT_EQ(access.SeekTargetSec(), 0.5);
    EXPECT_FALSE(access.SeekRequested());
}

TEST_F(PcmPlayback, StartsAtTheGivenPosition)
{
    const std::vector<float> samples = Ramp(48000, 2);
    PlayPcm(samples, 48000, 2, 0.9);
    RunToEnd();
    EXPECT_EQ(VirtualDevice::Last().pushed, Processed(From(samples, 43200 * 2), 2));
}

TEST_F(PcmPlayback, StartIsRoundedToTheNearestFrame)
{
    const std::vector<float> samples = Ramp(1000, 1);
    PlayPcm(samples, 48000, 1, 99.6 / 48000);
    EXPECT_EQ(VirtualDevice::Last().pushed, From(samples, 100));
}

TEST_F(PcmPlayback, NegativeStartIsZero)
{
    const std::vector<float> samples = Ramp(1000, 1);
    PlayPcm(samples, 48000, 1, -3.0);
    EXPECT_EQ(VirtualDevice::Last().pushed, samples);
}

TEST_F(PcmPlayback, StartThatIsNoNumberIsZero)
{
    const std::vector<float> samples = Ramp(1000, 1);
    PlayPcm(samples, 48000, 1, std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(VirtualDevice::Last().pushed, samples);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
}

TEST_F(PcmPlayback, StartBeyondTheEndFinishesAtOnce)
{
    PlayPcm(Ramp(1000, 1), 48000, 1, 5.0);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.CurrentSeconds(), 1000.0 / 48000);
    EXPECT_TRUE(VirtualDevice::Last().pushed.empty());
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(PcmPlayback, SinkFailureIsReportedAndEndsThePlayback)
{
    VirtualDevice::FailInit(true);
    PlayPcm(Ramp(1000, 2), 48000, 2);
    EXPECT_EQ(player.LastError(), "Failed to initialize PipeWire audio output.");
    EXPECT_TRUE(player.HasFinished());
    EXPECT_FALSE(access.HasOutput());
    Stop(); // joins the worker, which deletes its sink as it goes
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "delete"));
    EXPECT_FALSE(player.IsPlaying());
}

TEST_F(PcmPlayback, NextPlayWorksAfterASinkFailure)
{
    VirtualDevice::FailInit(true);
    PlayPcm(Ramp(1000, 2), 48000, 2);
    VirtualDevice::FailInit(false);
    PlayPcm(Ramp(1000, 2), 48000, 2);
    RunToEnd();
    EXPECT_EQ(player.LastError(), "");
    EXPECT_EQ(VirtualDevice::Last().pushed.size(), 2000u);
}

TEST_F(PcmPlayback, TimeThatTheSinkTakesToOpenDoesNotCount)
{
    VirtualDevice::SlowInit(0.5);
    PlayPcm(Ramp(48000, 2), 48000, 2, 0.25);
    VirtualTime::Step(0.5);
    EXPECT_EQ(player.CurrentSeconds(), 0.25);
}

TEST_F(PcmPlayback, SeekPublishesItsTargetAlsoWhereABlockWasOnItsWay)
{
    bool bSought = false;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            if (std::exchange(bSought, true))
                return;
            while (!player.IsPlaying()) // Play may not have said so yet, and nothing can be paused
                std::this_thread::yield();
            player.SeekToSeconds(0.5);
            player.SetPaused(true);
            access.PausedPresentationSec() = 7.0;
        });
    PlayPcm(Ramp(48000, 2), 48000, 2);
    EXPECT_EQ(access.CurrentSec(), 0.5);
    EXPECT_EQ(access.PausedPresentationSec(), 0.5);
    EXPECT_EQ(access.QueuedSourceEndSec(), 0.5);
}

TEST_F(PcmPlayback, WorkerAnchorsTheClockWhenTheSinkIsThere)
{
    PlayPcm(Ramp(48000, 2), 48000, 2, 0.25);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.25);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
}

TEST_F(PcmPlayback, QueueIsFilledToItsLimitAndOneChunk)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    EXPECT_EQ(VirtualDevice::Last().pushedFrames.size(), 36u); // 0.35 s is not above the limit yet
    EXPECT_DOUBLE_EQ(VirtualDevice::Last().QueuedSeconds(), 0.36);
}

TEST_F(PcmPlayback, FullQueueIsPolledEveryEightMilliseconds)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualTime::Step(0.016 - kPollSlack); // 0.352 s queued at the first poll
    EXPECT_EQ(VirtualDevice::Last().pushedFrames.size(), 36u);
    VirtualTime::Step(2 * kPollSlack); // 0.344 s at the second
    EXPECT_EQ(VirtualDevice::Last().pushedFrames.size(), 37u);
}

TEST_F(PcmPlayback, PositionsFollowEveryPush)
{
    PlayPcm(Ramp(1000, 2), 48000, 2);
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), 1000.0 / 48000);
    EXPECT_DOUBLE_EQ(access.CurrentSec(), 1000.0 / 48000);
}

TEST_F(PcmPlayback, PauseInTheLastMomentLeavesThePositionAtTheEnd)
{
    PlayPcm(Ramp(5040, 2), 48000, 2); // 0.105 s
    VirtualTime::Step(0.09);          // between the worker's last two looks
    player.SetPaused(true);
    VirtualTime::Step(0.02);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.CurrentSeconds(), 0.105);
}

TEST_F(PcmPlayback, PositionIsPublishedWithEveryPush)
{
    std::vector<double> published;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long)
                               { published.push_back(access.CurrentSec()); });
    PlayPcm(Ramp(1440, 2), 48000, 2);
    EXPECT_THAT(published, ElementsAre(0.0, 0.01, 0.02));
}

TEST_F(PcmPlayback, PauseStopsPushingAndHoldsTheQueue)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SetPaused(true);
    const size_t pushes = VirtualDevice::Last().pushedFrames.size();
    VirtualTime::Step(5.0);
    EXPECT_EQ(VirtualDevice::Last().pushedFrames.size(), pushes);
    EXPECT_DOUBLE_EQ(VirtualDevice::Last().QueuedSeconds(), 0.36);
}

TEST_F(PcmPlayback, PauseAndResumeLoseAndRepeatNothing)
{
    const std::vector<float> samples = Ramp(48000, 2);
    PlayPcm(samples, 48000, 2);
    for (int i = 0; i < 5; ++i)
    {
        VirtualTime::Step(0.0777);
        player.SetPaused(true);
        VirtualTime::Step(0.3);
        player.SetPaused(false);
    }
    RunToEnd();
    EXPECT_EQ(VirtualDevice::Last().pushed, Processed(samples, 2));
    EXPECT_THAT(Heard().size(), Ge(2 * (48000u - 960u)));
}

TEST_F(PcmPlayback, PausedWorkerPollsEveryTwentyMilliseconds)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualTime::Step(0.5);
    player.SetPaused(true);
    VirtualTime::Step(1.0); // in the pause wait now
    player.SetPaused(false);
    const size_t pushes = VirtualDevice::Last().pushedFrames.size();
    VirtualTime::Step(0.1);
    EXPECT_GT(VirtualDevice::Last().pushedFrames.size(), pushes);
}

TEST_F(PcmPlayback, SeekDropsTheQueueAndGoesOnAtTheTarget)
{
    const std::vector<float> samples = Ramp(480000, 2);
    PlayPcm(samples, 48000, 2);
    VirtualDevice::ForgetCalls();
    player.SeekToSeconds(8.0);
    VirtualTime::Step(0.008);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("GetStreamTime", "Clear"));
    const std::vector<float> pushed = From(VirtualDevice::Last().pushed, 36 * 480 * 2);
    std::vector<float> expected = From(samples, 8 * 48000 * 2);
    expected.resize(pushed.size());
    EXPECT_EQ(pushed, Processed(expected, 2));
    EXPECT_EQ(pushed.size(), 36u * 480u * 2u); // the queue is filled up again at once
}

TEST_F(PcmPlayback, SeekAnchorsTheClockAtTheTarget)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    VirtualTime::Step(0.1);
    player.SeekToSeconds(8.0);
    VirtualTime::Step(0.008);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 8.0);
    EXPECT_EQ(access.PausedPresentationSec(), 8.0);
    EXPECT_NEAR(access.PlaybackClockPresentedSec(), 0.104, 0.009); // at one of the polls
    EXPECT_NEAR(player.CurrentSeconds(), 8.0, 0.009);
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), 8.36);
    EXPECT_FALSE(access.SeekRequested());
}

TEST_F(PcmPlayback, SeekTakesEffectWhileStillPaused)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SetPaused(true);
    VirtualTime::Step(0.1);
    VirtualDevice::ForgetCalls();
    player.SeekToSeconds(3.0);
    VirtualTime::Step(0.020);
    EXPECT_THAT(VirtualDevice::Calls(""), ElementsAre("GetStreamTime", "Clear"));
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_TRUE(player.IsPaused());
    EXPECT_EQ(player.CurrentSeconds(), 3.0);
    EXPECT_EQ(VirtualDevice::Last().QueuedSeconds(), 0.0);
}

TEST_F(PcmPlayback, SeveralSeeksWhilePausedEndAtTheLast)
{
    const std::vector<float> samples = Ramp(480000, 1);
    PlayPcm(samples, 48000, 1);
    player.SetPaused(true);
    for (const double target : {3.0, 9.0, 5.0})
    {
        player.SeekToSeconds(target);
        VirtualTime::Step(0.020);
    }
    const size_t before = VirtualDevice::Last().pushed.size();
    player.SetPaused(false);
    VirtualTime::Step(0.020);
    EXPECT_EQ(VirtualDevice::Last().pushed[before], samples[5 * 48000]);
}

TEST_F(PcmPlayback, SeekToTheEndWhilePausedWaitsForTheResume)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SetPaused(true);
    player.SeekToFraction(1.0);
    VirtualTime::Step(1.0);
    EXPECT_FALSE(player.HasFinished());
    player.SeekToSeconds(1.0); // changed our mind
    VirtualTime::Step(0.02);
    EXPECT_EQ(player.CurrentSeconds(), 1.0);
    player.SetPaused(false);
    VirtualTime::Step(0.02);
    EXPECT_FALSE(player.HasFinished());
}

TEST_F(PcmPlayback, SeekToTheEndFinishesWithoutAnEmptyBlock)
{
    std::atomic<int> emptyBlocks = 0;
    player.SetAudioPCMCallback([&](const float*, int frames, int, int, long)
                               { emptyBlocks += frames == 0; });
    PlayPcm(Ramp(480000, 2), 48000, 2);
    player.SeekToFraction(1.0);
    VirtualTime::Step(0.1);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.CurrentSeconds(), 10.0);
    EXPECT_EQ(emptyBlocks, 0);
}

TEST_F(PcmPlayback, TapPositionsAreTheChunksStartsAlsoAcrossSeeks)
{
    std::vector<long> positions;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long us)
                               { positions.push_back(us); });
    PlayPcm(Ramp(48000 * 10, 2), 48000, 2, 0.5);
    EXPECT_EQ(positions[0], 500000);
    EXPECT_EQ(positions[1], 510000);
    EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
    const size_t before = positions.size();
    player.SeekToSeconds(0.2);
    VirtualTime::Step(0.008);
    EXPECT_EQ(positions[before], 200000);
}

TEST_F(PcmPlayback, TapPositionIsRoundedToTheMicrosecond)
{
    std::vector<long> positions;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long us)
                               { positions.push_back(us); });
    PlayPcm(Ramp(1000, 1), 22050, 1);
    EXPECT_THAT(positions, ElementsAre(0, 11610, 23220, 34830)); // 256 / 22050 s each
}

TEST_F(PcmPlayback, DrainWaitsUntilTwentyMillisecondsAreLeft)
{
    PlayPcm(Ramp(9600, 2), 48000, 2); // 0.2 s
    VirtualTime::Step(0.179);
    EXPECT_FALSE(player.HasFinished());
    EXPECT_TRUE(VirtualDevice::Last().bActive);
    VirtualTime::Step(0.002);
    EXPECT_TRUE(player.HasFinished()); // polled at 0.18 s
    EXPECT_FALSE(VirtualDevice::Last().bActive);
}

TEST_F(PcmPlayback, DrainKeepsThePositionAtTheEnd)
{
    PlayPcm(Ramp(9600, 2), 48000, 2);
    access.CurrentSec() = 0.0;
    VirtualTime::Step(0.02);
    EXPECT_EQ(access.CurrentSec(), 0.2);
}

TEST_F(PcmPlayback, EndsAtItsEndAlsoAfterALateSeekInTheLastPollOfTheDrain)
{
    PlayPcm(Ramp(9600, 2), 48000, 2); // 0.2 s
    VirtualTime::Step(0.175);
    player.SeekToFraction(0.0);
    RunToEnd();
    EXPECT_EQ(player.CurrentSeconds(), 0.2);
}

TEST_F(PcmPlayback, StopDuringTheDrainEndsItAtOnce)
{
    PlayPcm(Ramp(14400, 2), 48000, 2); // 0.3 s: all of it queued, draining
    player.RequestStop();
    VirtualTime::Step(0.020);
    EXPECT_TRUE(player.HasFinished());
}

TEST_F(PcmPlayback, FinishedIsSetBeforePlayingIsCleared)
{
    VirtualTime::SetFreeRunning(true);
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(player.PlayPcm(Ramp(4800, 2), 48000, 2));
        ExpectFinishedBeforeNotPlaying();
    }
}

TEST_F(PcmPlayback, EqualizerAndGainFollowTheControlsFromBlockToBlock)
{
    PlayPcm(std::vector<float>(480000, 0.25f), 48000, 1);
    player.SetVolume(0.5);
    VirtualTime::Step(0.1);
    const std::vector<float> pushed = VirtualDevice::Last().pushed;
    EXPECT_EQ(pushed.front(), 0.25f);
    EXPECT_EQ(pushed.back(), 0.125f);
}
