// The position: anchor plus wall clock, pause, and seeks that are posted to the worker.
#include "media.h"
#include "playback.h"

#include <limits>
#include <utility>

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class Clock : public Playback
{
protected:
    // A state that only a worker could have left, so that each rule is seen by itself.
    void Anchor(double source, double duration)
    {
        access.Playing() = true;
        access.DurationSec() = duration;
        access.PlaybackClockSourceSec() = source;
        access.PlaybackClockHostMs() = Internals::AudioClockMs();
    }
};

} // namespace

TEST_F(Clock, NotPlayingReadsTheLastPublishedPosition)
{
    Anchor(10.0, 100.0);
    access.Playing() = false;
    access.CurrentSec() = 42.5;
    VirtualTime::Step(1.0);
    EXPECT_EQ(player.CurrentSeconds(), 42.5);
}

TEST_F(Clock, PlayingRunsFromTheAnchorWithTheWallClock)
{
    Anchor(10.0, 100.0);
    access.CurrentSec() = 99.0; // not followed between anchors
    VirtualTime::Step(2.5);
    EXPECT_EQ(player.CurrentSeconds(), 12.5);
    EXPECT_EQ(access.PausedPresentationSec(), 12.5);
}

TEST_F(Clock, PlayingStopsAtTheDuration)
{
    Anchor(10.0, 11.0);
    VirtualTime::Step(2.5);
    EXPECT_EQ(player.CurrentSeconds(), 11.0);
}

TEST_F(Clock, NegativeAnchorReadsZero)
{
    Anchor(-3.0, 11.0);
    VirtualTime::Step(1.0);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
}

TEST_F(Clock, WithoutAnAnchorThePositionStands)
{
    Anchor(10.0, 100.0);
    access.PlaybackClockHostMs() = 0;
    VirtualTime::Step(2.5);
    EXPECT_EQ(player.CurrentSeconds(), 10.0);
}

TEST_F(Clock, AnchorInTheFutureDoesNotRunBackwards)
{
    Anchor(10.0, 100.0);
    access.PlaybackClockHostMs() = Internals::AudioClockMs() + 500;
    EXPECT_EQ(player.CurrentSeconds(), 10.0);
    VirtualTime::Step(0.5);
    EXPECT_EQ(player.CurrentSeconds(), 10.0);
    VirtualTime::Step(0.5);
    EXPECT_EQ(player.CurrentSeconds(), 10.5);
    access.PlaybackClockHostMs() = Internals::AudioClockMs() + 1;
    EXPECT_EQ(player.CurrentSeconds(), 10.0);
}

TEST_F(Clock, ShortestMaterialHasPositionsToo)
{
    Anchor(0.0, 0.05);
    VirtualTime::Step(0.03);
    EXPECT_EQ(player.CurrentSeconds(), 0.03);
    player.SeekToFraction(0.5);
    EXPECT_EQ(access.SeekTargetSec(), 0.025);
}

TEST_F(Clock, SeekInTheShortestMaterialIsHeard)
{
    const std::vector<float> samples = Ramp(3840, 2); // 0.08 s
    bool bSought = false;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            if (!std::exchange(bSought, true))
                player.SeekToSeconds(0.06);
        });
    PlayPcm(samples, 48000, 2);
    RunToEnd();
    const std::vector<float> pushed = VirtualDevice::Last().pushed;
    const std::vector<float> rest = Media::Played({samples.begin() + 2 * 2880, samples.end()});
    ASSERT_GE(pushed.size(), rest.size());
    EXPECT_LE(pushed.size(), rest.size() + 2 * 480); // and the first chunk
    EXPECT_TRUE(std::equal(rest.rbegin(), rest.rend(), pushed.rbegin()));
}

TEST_F(Clock, UnknownDurationReadsZeroThroughout)
{
    for (const double duration : {0.0, -1.0})
    {
        Anchor(10.0, duration);
        VirtualTime::Step(2.5);
        EXPECT_EQ(player.CurrentSeconds(), 0.0);
    }
}

TEST_F(Clock, PausedReadsTheFrozenPosition)
{
    Anchor(10.0, 100.0);
    access.Paused() = true;
    access.PausedPresentationSec() = 7.0;
    VirtualTime::Step(2.5);
    EXPECT_EQ(player.CurrentSeconds(), 7.0);
}

TEST_F(Clock, TimeSpentPausedNeverCounts)
{
    PlayPcm(Ramp(48000 * 20, 2), 48000, 2, 10.0);
    VirtualTime::Step(2.5);
    player.SetPaused(true);
    EXPECT_EQ(player.CurrentSeconds(), 12.5);
    VirtualTime::Step(60.0);
    EXPECT_EQ(player.CurrentSeconds(), 12.5);
    player.SetPaused(false);
    EXPECT_EQ(player.CurrentSeconds(), 12.5);
    VirtualTime::Step(1.0);
    EXPECT_EQ(player.CurrentSeconds(), 13.5);
}

TEST_F(Clock, PauseAnchorsEveryFieldAndHoldsTheSink)
{
    PlayPcm(Ramp(48000 * 20, 2), 48000, 2, 10.0);
    VirtualTime::Step(2.5);
    VirtualDevice::ForgetCalls();
    player.SetPaused(true);
    EXPECT_TRUE(player.IsPaused());
    EXPECT_EQ(access.PausedPresentationSec(), 12.5);
    EXPECT_EQ(access.CurrentSec(), 12.5);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 12.5);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
    EXPECT_NEAR(access.PlaybackClockPresentedSec(), 2.5, 1e-9);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("GetStreamTime", "SetActive 0"));
}

TEST_F(Clock, ResumeWithoutAPauseDoesNotThrowThePositionBack)
{
    PlayPcm(Ramp(48000 * 2, 2), 48000, 2);
    VirtualTime::Step(0.1); // in which nobody asks for the position
    player.SetPaused(false);
    EXPECT_EQ(player.CurrentSeconds(), 0.1);
}

TEST_F(Clock, StopInAPauseDoesNotCountThePause)
{
    PlayPcm(Ramp(48000 * 2, 2), 48000, 2);
    VirtualTime::Step(0.1);
    player.SetPaused(true);
    VirtualTime::Step(1.0);
    player.RequestStop();
    EXPECT_EQ(player.CurrentSeconds(), 0.1);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0); // as a stopped sink's
}

TEST_F(Clock, ResumeAnchorsAtTheFrozenPositionAndReleasesTheSink)
{
    PlayPcm(Ramp(48000 * 20, 2), 48000, 2, 10.0);
    VirtualTime::Step(2.5);
    player.SetPaused(true);
    VirtualTime::Step(3.0);
    VirtualDevice::ForgetCalls();
    player.SetPaused(false);
    EXPECT_FALSE(player.IsPaused());
    EXPECT_EQ(access.PlaybackClockSourceSec(), 12.5);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("GetStreamTime", "SetActive 1"));
}

TEST_F(Clock, UnknownPresentedTimeIsZero)
{
    PlayPcm(Ramp(48000, 2), 48000, 2);
    VirtualTime::Step(0.1);
    access.PlaybackClockPresentedSec() = 9.0;
    VirtualDevice::FailStreamTime(true);
    player.SetPaused(true);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
}

TEST_F(Clock, ToggleGoesBothWays)
{
    PlayPcm(Ramp(48000, 2), 48000, 2);
    player.TogglePaused();
    EXPECT_TRUE(player.IsPaused());
    player.TogglePaused();
    EXPECT_FALSE(player.IsPaused());
}

TEST_F(Clock, PausingAnIdlePlayerChangesNothing)
{
    player.SetPaused(true);
    EXPECT_FALSE(player.IsPaused());
    EXPECT_EQ(access.PlaybackClockHostMs(), 0u);
    EXPECT_TRUE(VirtualDevice::Calls("").empty());
}

TEST_F(Clock, SeekIsClampedToTheMaterial)
{
    access.DurationSec() = 100.0;
    player.SeekToSeconds(-5.0);
    EXPECT_EQ(access.SeekTargetSec(), 0.0);
    player.SeekToSeconds(101.0);
    EXPECT_EQ(access.SeekTargetSec(), 100.0);
    player.SeekToSeconds(33.25);
    EXPECT_EQ(access.SeekTargetSec(), 33.25);
}

TEST_F(Clock, SeekFractionIsClampedToTheMaterial)
{
    access.DurationSec() = 100.0;
    player.SeekToFraction(1.7);
    EXPECT_EQ(access.SeekTargetSec(), 100.0);
    player.SeekToFraction(-0.3);
    EXPECT_EQ(access.SeekTargetSec(), 0.0);
    player.SeekToFraction(0.25);
    EXPECT_EQ(access.SeekTargetSec(), 25.0);
}

TEST_F(Clock, SeekToNoNumberGoesNowhere)
{
    access.DurationSec() = 100.0;
    player.SeekToSeconds(std::numeric_limits<double>::quiet_NaN());
    player.SeekToFraction(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
}

TEST_F(Clock, SeekWithoutADurationDoesNothing)
{
    for (const double duration : {0.0, -1.0})
    {
        access.DurationSec() = duration;
        player.SeekToSeconds(5.0);
        player.SeekToFraction(0.5);
        EXPECT_FALSE(access.SeekRequested());
        EXPECT_EQ(access.SeekTargetSec(), 0.0);
        EXPECT_EQ(access.PlaybackClockHostMs(), 0u);
    }
}

TEST_F(Clock, SeekPostsEveryFieldAtOnce)
{
    access.DurationSec() = 100.0;
    access.PlaybackClockPresentedSec() = 9.0;
    player.SeekToSeconds(40.0);
    EXPECT_EQ(access.SeekTargetSec(), 40.0);
    EXPECT_EQ(access.CurrentSec(), 40.0);
    EXPECT_EQ(access.PausedPresentationSec(), 40.0);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 40.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), Internals::AudioClockMs());
    EXPECT_EQ(access.QueuedSourceEndSec(), 40.0);
    EXPECT_TRUE(access.SeekRequested());
}

TEST_F(Clock, SeekIsPostedAlsoWhenNothingPlays)
{
    access.DurationSec() = 100.0;
    player.SeekToSeconds(40.0);
    EXPECT_TRUE(access.SeekRequested());
    EXPECT_EQ(player.CurrentSeconds(), 40.0);
}

TEST_F(Clock, SeekWhilePausedMovesTheFrozenPositionAtOnce)
{
    PlayPcm(Ramp(48000 * 10, 2), 48000, 2);
    player.SetPaused(true);
    player.SeekToSeconds(7.0);
    EXPECT_EQ(player.CurrentSeconds(), 7.0);
    VirtualTime::Step(1.0);
    EXPECT_EQ(player.CurrentSeconds(), 7.0);
    EXPECT_TRUE(player.IsPaused());
}

TEST_F(Clock, SeekDoesNotTouchTheSinkItself)
{
    PlayPcm(Ramp(48000 * 10, 2), 48000, 2);
    VirtualDevice::ForgetCalls();
    player.SeekToSeconds(7.0); // the worker sleeps: whatever is called now was called here
    EXPECT_TRUE(VirtualDevice::Calls("").empty());
}

TEST_F(Clock, PositionAfterANaturalEndIsTheEnd)
{
    PlayPcm(Ramp(4800, 2), 48000, 2);
    RunToEnd();
    EXPECT_EQ(player.CurrentSeconds(), 0.1);
    VirtualTime::Step(1.0);
    EXPECT_EQ(player.CurrentSeconds(), 0.1);
}
