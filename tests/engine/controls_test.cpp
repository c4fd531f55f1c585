// Settings, their ranges and what a new player reports.
#include "playback.h"

#include <cmath>
#include <limits>
#include <type_traits>

namespace
{

using testing::Each;

class Controls : public Playback
{
};

const double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

static_assert(!std::is_copy_constructible_v<TovrelAudioPlayer>);
static_assert(!std::is_copy_assignable_v<TovrelAudioPlayer>);
static_assert(TovrelAudioPlayer::EqualizerBandCount == 10);
static_assert(TovrelAudioPlayerTestAccess::kOutputSampleRate == 48000);
static_assert(TovrelAudioPlayerTestAccess::kOutputChannels == 2);

TEST_F(Controls, NewPlayerReportsItsDefaults)
{
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(player.IsPaused());
    EXPECT_FALSE(player.HasFinished());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_EQ(player.Volume(), 1.0);
    EXPECT_EQ(player.Pan(), 0.0);
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
    EXPECT_EQ(player.LastError(), "");
    EXPECT_TRUE(player.CopySpectrumSamples().empty());
    EXPECT_TRUE(access.EqualizerEnabled());
    EXPECT_THAT(access.EqualizerGainsDb(), Each(0.0));
}

TEST_F(Controls, NewPlayerHasNothingOpenAndNothingRunning)
{
    EXPECT_FALSE(access.HasOutput());
    EXPECT_FALSE(access.HasThread());
    EXPECT_TRUE(VirtualDevice::Sinks().empty());
    EXPECT_FALSE(access.AudioPCMCallback());
    EXPECT_TRUE(access.ResampleBuffer().empty());
    EXPECT_EQ(access.PausedPresentationSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), 0u);
    EXPECT_EQ(access.QueuedSourceEndSec(), 0.0);
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_EQ(access.SeekTargetSec(), 0.0);
}

TEST_F(Controls, VolumeBelowZeroBecomesZero)
{
    player.SetVolume(-0.5);
    EXPECT_EQ(player.Volume(), 0.0);
}

TEST_F(Controls, VolumeAboveTheLimitBecomesTheLimit)
{
    player.SetVolume(2.0);
    EXPECT_EQ(player.Volume(), 1.5);
}

TEST_F(Controls, VolumeBetweenIsKept)
{
    for (const double volume : {0.0, 0.25, 1.0, 1.5})
    {
        player.SetVolume(volume);
        EXPECT_EQ(player.Volume(), volume);
    }
}

TEST_F(Controls, AdjustedVolumeStopsAtTheLimit)
{
    player.SetVolume(1.4);
    player.AdjustVolume(0.25);
    EXPECT_EQ(player.Volume(), 1.5);
}

TEST_F(Controls, AdjustedVolumeMovesBothWays)
{
    player.AdjustVolume(-0.25);
    EXPECT_EQ(player.Volume(), 0.75);
    player.AdjustVolume(0.5);
    EXPECT_EQ(player.Volume(), 1.25);
}

TEST_F(Controls, PanIsClampedOnBothSides)
{
    player.SetPan(-3.0);
    EXPECT_EQ(player.Pan(), -1.0);
    player.SetPan(3.0);
    EXPECT_EQ(player.Pan(), 1.0);
    player.SetPan(0.5);
    EXPECT_EQ(player.Pan(), 0.5);
}

TEST_F(Controls, AdjustedPanStopsAtTheSide)
{
    player.SetPan(0.9);
    player.AdjustPan(+0.3);
    EXPECT_EQ(player.Pan(), 1.0);
    player.AdjustPan(-0.5);
    EXPECT_EQ(player.Pan(), 0.5);
}

TEST_F(Controls, NaNPassesTheClamps)
{
    player.SetVolume(kNaN);
    player.SetPan(kNaN);
    EXPECT_TRUE(std::isnan(player.Volume()));
    EXPECT_TRUE(std::isnan(player.Pan()));
}

TEST_F(Controls, EqualizerBandPastTheLastIsIgnored)
{
    player.SetEqualizerBandGain(10, 5.0);
    player.SetEqualizerBandGain(std::numeric_limits<size_t>::max(), 5.0);
    EXPECT_THAT(access.EqualizerGainsDb(), Each(0.0));
}

TEST_F(Controls, EqualizerBandGainIsClamped)
{
    player.SetEqualizerBandGain(3, 40.0);
    player.SetEqualizerBandGain(9, -40.0);
    player.SetEqualizerBandGain(0, 6.5);
    EXPECT_EQ(access.EqualizerGainsDb()[3], 18.0);
    EXPECT_EQ(access.EqualizerGainsDb()[9], -18.0);
    EXPECT_EQ(access.EqualizerGainsDb()[0], 6.5);
    EXPECT_EQ(access.EqualizerGainsDb()[1], 0.0);
}

TEST_F(Controls, EqualizerBandsAreStoredClampedAlsoWhenOff)
{
    const std::array<double, 10> gains = {1, -2, 3, 19, -19, 18, -18, 0, 0.5, 100};
    const std::array<double, 10> expected = {1, -2, 3, 18, -18, 18, -18, 0, 0.5, 18};
    player.SetEqualizerBands(false, gains);
    EXPECT_FALSE(access.EqualizerEnabled());
    EXPECT_EQ(access.EqualizerGainsDb(), expected);
    player.SetEqualizerBands(true, gains);
    EXPECT_TRUE(access.EqualizerEnabled());
}

TEST_F(Controls, EqualizerSwitchLeavesTheGains)
{
    player.SetEqualizerBandGain(4, 3.0);
    player.SetEqualizerEnabled(false);
    EXPECT_FALSE(access.EqualizerEnabled());
    player.SetEqualizerEnabled(true);
    EXPECT_TRUE(access.EqualizerEnabled());
    EXPECT_EQ(access.EqualizerGainsDb()[4], 3.0);
}

TEST_F(Controls, LastErrorIsWhatWasStored)
{
    access.SetLastError("Audio seek failed.");
    EXPECT_EQ(player.LastError(), "Audio seek failed.");
    access.SetLastError("");
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(Controls, ErrorTextIsFFmpegsOwn)
{
    EXPECT_EQ(Internals::AvErrorText(AVERROR(ENOENT)), "No such file or directory");
    EXPECT_EQ(Internals::AvErrorText(AVERROR_EOF), "End of file");
}

TEST_F(Controls, ErrorTextOfAnUnknownCodeIsTheGenericOne)
{
    char expected[64] = {};
    av_strerror(-987654321, expected, sizeof expected);
    EXPECT_EQ(Internals::AvErrorText(-987654321), expected);
    EXPECT_NE(Internals::AvErrorText(-987654321), "");
}

TEST_F(Controls, ClockIsInWholeMilliseconds)
{
    const auto before = static_cast<uint64_t>(VirtualTime::NowNs() / 1000000);
    EXPECT_EQ(Internals::AudioClockMs(), before);
    VirtualTime::Step(0.0019999);
    EXPECT_EQ(Internals::AudioClockMs(), before + 1);
    VirtualTime::Step(0.0000001);
    EXPECT_EQ(Internals::AudioClockMs(), before + 2);
}

TEST_F(Controls, SettingsLastFromOnePlaybackToTheNext)
{
    player.SetVolume(0.5);
    player.SetPan(-0.5);
    player.SetEqualizerBandGain(2, 4.0);
    PlayPcm(Ramp(100, 2), 48000, 2);
    RunToEnd();
    EXPECT_EQ(player.Volume(), 0.5);
    EXPECT_EQ(player.Pan(), -0.5);
    EXPECT_EQ(access.EqualizerGainsDb()[2], 4.0);
}
