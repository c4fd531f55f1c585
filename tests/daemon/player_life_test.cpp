// The player's life on a real daemon: errors, stops at any moment, and what is left afterwards.
#include "harness.h"

#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr const char* kNoOutput = "Failed to initialize PipeWire audio output.";
constexpr std::chrono::milliseconds kInitLimit{2000}; // what a Stop in the middle of it waits for
constexpr std::chrono::milliseconds kAtOnce{200};     // any other Stop

bool PlaySeconds(TovrelAudioPlayer& player, size_t seconds)
{
    return player.PlayPcm(IndexedFrames(0, seconds * kSinkRate), kSinkRate, kSinkChannels);
}

// A file of one second.
std::string SecondOfTone()
{
    std::string path = RuntimePath("tone.flac");
    RunFfmpeg({"-f", "lavfi", "-i", "sine=d=1:r=44100", path});
    return path;
}

// --- Nothing is left ----------------------------------------------------------------------------

TEST(PlayerLife, FiftyPlaysAndStopsLeaveNoThreadDescriptorOrNode)
{
    const std::string path = SecondOfTone();
    WarmUpLibraries();
    TovrelAudioPlayer player;
    player.PlayFile(path);
    ASSERT_TRUE(WaitForOutput(player));
    player.Stop();
    const Resources before = Resources::Now();
    for (int cycle = 0; cycle < 50; ++cycle)
    {
        if (cycle % 2 == 0)
            ASSERT_TRUE(PlaySeconds(player, 1));
        else
            player.PlayFile(path);
        SleepMs(cycle % 10 * 4); // stopped anywhere between the start and the sound
        player.Stop();
    }
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(PlayerLife, DestructionDuringPlayLeavesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    {
        TovrelAudioPlayer player;
        ASSERT_TRUE(PlaySeconds(player, 10));
        ASSERT_TRUE(WaitForOutput(player));
    }
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(PlayerLife, NaturalEndAndStopLeaveNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    TovrelAudioPlayer player;
    for (int play = 0; play < 3; ++play)
    {
        ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, 2000), kSinkRate, kSinkChannels));
        ASSERT_TRUE(WaitForEnd(player));
    }
    player.Stop();
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(PlayerLife, PlayingIsOneNode)
{
    TovrelAudioPlayer player;
    for (int play = 0; play < 3; ++play)
    {
        ASSERT_TRUE(PlaySeconds(player, 10));
        ASSERT_TRUE(WaitForOutput(player));
    }
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
}

// --- Stop ---------------------------------------------------------------------------------------

TEST(PlayerLife, StopIsQuick)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 10));
    ASSERT_TRUE(WaitForOutput(player));
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kAtOnce + kSlack).count());
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_TRUE(player.HasFinished());
}

TEST(PlayerLife, StopWhilePausedIsQuick)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 10));
    ASSERT_TRUE(WaitForOutput(player));
    player.SetPaused(true);
    SleepMs(50);
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kAtOnce + kSlack).count());
}

TEST(PlayerLife, RequestStopFromTheTapEndsThePlay)
{
    TovrelAudioPlayer player;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long) { player.RequestStop(); });
    ASSERT_TRUE(PlaySeconds(player, 10));
    EXPECT_TRUE(WaitForEnd(player));
}

// What the control thread may do while the worker plays; that nothing races is seen under
// ThreadSanitizer.
TEST(PlayerLife, ControlsDuringPlayAreHarmless)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 20));
    std::atomic<bool> bEnd{false};
    std::thread reader(
        [&]
        {
            while (!bEnd)
            {
                player.CurrentSeconds();
                player.CopySpectrumSamples();
                player.LastError();
                player.SetEqualizerBandGain(3, 2.0);
                player.SetAudioPCMCallback([](const float*, int, int, int, long) {});
                SleepMs(1);
            }
        });
    for (int round = 0; round < 100; ++round)
    {
        player.SetVolume(0.01 * round);
        player.SetPan(0.01 * round);
        player.TogglePaused();
        player.SeekToFraction(0.009 * round);
        SleepMs(5);
    }
    bEnd = true;
    reader.join();
    player.SetPaused(false);
    EXPECT_TRUE(player.IsPlaying());
    EXPECT_EQ(player.LastError(), "");
}

// --- Errors -------------------------------------------------------------------------------------

struct Format
{
    int rate;
    int channels;
};
void PrintTo(const Format& format, std::ostream* out)
{
    *out << format.rate << " Hz, " << format.channels << " channels";
}

class PlayerRefuses : public testing::TestWithParam<Format>
{
};

TEST_P(PlayerRefuses, WhatNoDevicePlays)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(
        player.PlayPcm(std::vector<float>(6500, 0.1f), GetParam().rate, GetParam().channels));
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
    player.Stop();
    ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, 2000), kSinkRate, kSinkChannels));
    EXPECT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), "");
}

INSTANTIATE_TEST_SUITE_P(Formats, PlayerRefuses,
                         testing::Values(Format{768001, 2}, Format{INT_MAX, 2}, Format{48000, 65},
                                         Format{48000, 6500}),
                         [](const auto& format)
                         { return "Number" + std::to_string(format.index); });

TEST(PlayerWithoutDaemon, BufferAndFileEndWithTheSinksError)
{
    const std::string path = SecondOfTone();
    const OtherRuntimeDirectory empty;
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 1));
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
    player.PlayFile(path);
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
}

TEST(PlayerWithMuteDaemon, PlayEndsWithTheSinksError)
{
    const MuteDaemon mute;
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 1));
    const auto taken = DurationOf([&] { ASSERT_TRUE(WaitForEnd(player)); });
    EXPECT_EQ(player.LastError(), kNoOutput);
    EXPECT_LE(taken.count(), (kInitLimit + kSlack).count());
}

TEST(PlayerWithMuteDaemon, StopReturnsWithinTwoSeconds)
{
    const MuteDaemon mute;
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 1));
    SleepMs(50);
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kInitLimit + kSlack).count());
}

TEST(PlayerWithStoppedDaemon, StopReturnsAtOnce)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 10));
    ASSERT_TRUE(WaitForOutput(player));
    const StoppedDaemon stopped;
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kAtOnce + kSlack).count());
}

TEST(PlayerWithDeadDaemon, StopReturnsAtOnceAndTheNextPlayTellsTheError)
{
    TovrelAudioPlayer player;
    ASSERT_TRUE(PlaySeconds(player, 10));
    ASSERT_TRUE(WaitForOutput(player));
    KillDaemon();
    player.TogglePaused();
    player.TogglePaused();
    player.SeekToSeconds(1.0);
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kAtOnce + kSlack).count());
    ASSERT_TRUE(PlaySeconds(player, 1));
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), kNoOutput);
}

TEST(PlayerWithDeadDaemon, DestructionReturnsAtOnce)
{
    auto player = std::make_unique<TovrelAudioPlayer>();
    player->PlayFile(SecondOfTone());
    ASSERT_TRUE(WaitForOutput(*player));
    KillDaemon();
    EXPECT_LE(DurationOf([&] { player.reset(); }).count(), (kAtOnce + kSlack).count());
}

} // namespace
