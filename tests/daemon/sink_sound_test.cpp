// The sink alone: what is pushed is what is heard.
#include "harness.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iostream>
#include <ostream>
#include <thread>
#include <vector>

namespace
{

// Around every border of the end rule (960 frames) and of the graph's cycle (1024).
const std::vector<size_t> kLengths = {1,    2,    100,  480,  511,  512,  513,
                                      959,  960,  961,  1023, 1024, 1025, 1983,
                                      1984, 2047, 2048, 2049, 3007, 3008, 5000};

// Plays signals of these lengths one after another, each through a sink of its own that is pushed
// to and drained as the workers do it, and returns what was heard.
Heard PlayInARow(const std::vector<size_t>& lengths, size_t quantum = kQuantum)
{
    MonitorRecording recording;
    size_t next = 0;
    for (const size_t length : lengths)
    {
        RunningSink sink;
        PushFrames(sink, IndexedFrames(next, length));
        EXPECT_TRUE(DrainAsWorkersDo(sink));
        sink.Destroy();
        next += length;
    }
    return FindIndexed(recording.Finish(4 * std::max(quantum, kQuantum)), 0, next);
}

// --- Lengths and cycles -------------------------------------------------------------------------

TEST(SinkSound, EveryFrameOfEveryLengthIsHeardToItsEnd)
{
    EXPECT_TRUE(IsComplete(PlayInARow(kLengths)));
}

TEST(SinkSound, SingleFramesAreHeard)
{
    EXPECT_TRUE(IsComplete(PlayInARow(std::vector<size_t>(20, 1))));
}

// The end rule of the workers knows nothing of the cycle: it must hold for short and long ones. A
// graph without real-time priority drops cycles of its own when they are shorter than these.
class SinkSoundAtQuantum : public testing::TestWithParam<size_t>
{
};

TEST_P(SinkSoundAtQuantum, EveryFrameIsHeardToItsEnd)
{
    ForceQuantum(GetParam());
    EXPECT_TRUE(IsComplete(PlayInARow({1, 480, 960, 961, 1024, 5000, 12000}, GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Frames, SinkSoundAtQuantum, testing::Values(256, 960, 2048, 8192),
                         testing::PrintToStringParamName());

// --- The queue ----------------------------------------------------------------------------------

TEST(SinkSound, FramesPushedBeforeTheStreamIsActiveAreHeard)
{
    MonitorRecording recording;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    PushFrames(sink, IndexedFrames(0, 10000));
    SleepMs(100);
    EXPECT_EQ(sink.QueuedBytes(), 10000 * kSinkChannels * sizeof(float));
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, 10000)));
}

TEST(SinkSound, UnderrunIsSilenceAndLosesNothing)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 1000));
    ASSERT_TRUE(WaitUntil([&] { return sink.QueuedSeconds() == 0.0; }));
    recording.AwaitMore(4 * kQuantum);
    PushFrames(sink, IndexedFrames(1000, 3000));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, 4000);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.longestGap, 2 * kQuantum);
}

TEST(SinkSound, QueueFarBeyondItsFirstRoomIsHeard)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 2 * kSinkRate));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, 2 * kSinkRate)));
}

TEST(SinkSound, QueueThatGrowsWhileItIsTakenFromLosesNothing)
{
    constexpr size_t kPush = 4801; // every push makes the queue longer: it grows many times
    constexpr size_t kPushes = 30;
    MonitorRecording recording;
    RunningSink sink;
    for (size_t push = 0; push < kPushes; ++push)
    {
        PushFrames(sink, IndexedFrames(push * kPush, kPush));
        SleepMs(5);
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kPushes * kPush)));
}

TEST(SinkSound, QueueThatGoesRoundManyTimesLosesNothing)
{
    constexpr size_t kPush = 487; // no divisor of anything here
    constexpr size_t kTotal = 300 * kPush;
    MonitorRecording recording;
    RunningSink sink;
    for (size_t pushed = 0; pushed < kTotal; pushed += kPush)
    {
        ASSERT_TRUE(WaitUntil([&] { return sink.QueuedSeconds() <= 0.35; }));
        PushFrames(sink, IndexedFrames(pushed, kPush));
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kTotal)));
}

TEST(SinkSound, InactiveStreamHoldsItsQueueAndGoesOnWithoutALostOrRepeatedFrame)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    for (int pause = 0; pause < 3; ++pause)
    {
        recording.AwaitSound();
        recording.AwaitMore(5 * kQuantum);
        sink.SetActive(false);
        recording.AwaitMore(2 * kQuantum); // what PipeWire has taken is still heard
        const size_t held = sink.QueuedBytes();
        recording.AwaitMore(5 * kQuantum);
        EXPECT_EQ(sink.QueuedBytes(), held);
        EXPECT_GT(held, 0u);
        sink.SetActive(true);
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, kSinkRate);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.gaps, 3u);
}

TEST(SinkSound, ClearDropsTheQueueAndWhatFollowsIsHeardFromItsFirstFrame)
{
    constexpr size_t kFollowing = 500000;
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    recording.AwaitSound();
    recording.AwaitMore(6 * kQuantum);
    sink.Clear();
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    PushFrames(sink, IndexedFrames(kFollowing, 5000));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::vector<float> recorded = recording.Finish();

    const Heard before = FindIndexed(recorded, 0, kSinkRate);
    EXPECT_EQ(before.missingAtStart + before.lostBetween + before.repeated, 0u);
    EXPECT_EQ(before.outOfOrder, 0u);
    EXPECT_GT(before.missingAtEnd, size_t{kSinkRate} / 4);
    const Heard following = FindIndexed(recorded, kFollowing, 5000);
    EXPECT_EQ(following.missingAtStart + following.missingAtEnd + following.lostBetween, 0u);
    EXPECT_EQ(following.repeated + following.outOfOrder + following.altered, 0u);
}

// --- The queue's time ---------------------------------------------------------------------------

TEST(SinkSound, QueuedSecondsTellsThePushedLengthBeforeAnythingIsTaken)
{
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    PushFrames(sink, IndexedFrames(0, 24000));
    EXPECT_DOUBLE_EQ(sink.QueuedSeconds(), 0.5);
}

TEST(SinkSound, QueuedSecondsCountsDownToZeroWithTheClock)
{
    constexpr double kLengthSeconds = 0.5;
    constexpr double kLateSeconds = 2.0; // a busy machine inserts silence
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 24000));
    const auto playing = DurationOf([&] { ASSERT_TRUE(DrainAsWorkersDo(sink)); });
    EXPECT_GE(static_cast<double>(playing.count()) / 1000.0, kLengthSeconds);
    EXPECT_LE(static_cast<double>(playing.count()) / 1000.0, kLengthSeconds + kLateSeconds);
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
}

// --- Other rates and channels -------------------------------------------------------------------

double HeardFrames(const std::vector<float>& recorded, int sampleRate, size_t channel)
{
    return SumOfChannel(recorded, channel) / static_cast<double>(kConstant) * sampleRate /
           kSinkRate;
}

class SinkSoundAtRate : public testing::TestWithParam<int>
{
};

TEST_P(SinkSoundAtRate, NothingIsCutAtEitherEnd)
{
    // PipeWire's resampler starts in the middle of the first frame's rise, which half a frame of
    // the sum goes for, and has a gain that is off by a part in ten thousand.
    constexpr double kHalfAFrame = 0.5;
    constexpr double kGainTolerance = 0.0001;
    const int rate = GetParam();
    for (const int frames : {rate / 100, rate / 50, rate / 4})
    {
        MonitorRecording recording;
        RunningSink sink(rate);
        PushFrames(sink, std::vector<float>(static_cast<size_t>(frames) * 2, kConstant));
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        sink.Destroy();
        const double heard = HeardFrames(recording.Finish(), rate, 0);
        std::cout << "of " << frames << " frames heard " << heard << std::endl;
        EXPECT_NEAR(heard, frames, kHalfAFrame + frames * kGainTolerance);
    }
}

// How many frames PipeWire takes at once from a stream that has plenty.
size_t FramesOfFirstCycle(int rate)
{
    const std::vector<float> plenty(static_cast<size_t>(rate) * 2, 0.0f);
    RunningSink sink(rate);
    PushFrames(sink, plenty);
    size_t left = plenty.size() * sizeof(float);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            left = sink.QueuedBytes();
            return left < plenty.size() * sizeof(float);
        },
        kOftenMs));
    return plenty.size() / 2 - left / (2 * sizeof(float));
}

// The last frames of the first cycle are still in PipeWire's resampler when it ends.
TEST_P(SinkSoundAtRate, WhatTheResamplerHoldsBackAtTheEndIsHeard)
{
    constexpr double kFrameOfEachPlay = 1.0; // half of it lost at the start, as above
    const size_t cycle = FramesOfFirstCycle(GetParam());
    size_t pushed = 0;
    size_t plays = 0;
    MonitorRecording recording;
    for (size_t spare = 0; spare <= 16; spare += 2)
    {
        RunningSink sink(GetParam());
        PushFrames(sink, std::vector<float>((cycle - spare) * 2, kConstant));
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        pushed += cycle - spare;
        ++plays;
    }
    const double heard = HeardFrames(recording.Finish(), GetParam(), 0);
    std::cout << "of " << pushed << " frames in " << plays << " plays heard " << heard << std::endl;
    EXPECT_NEAR(heard, static_cast<double>(pushed), static_cast<double>(plays) * kFrameOfEachPlay);
}

INSTANTIATE_TEST_SUITE_P(Hz, SinkSoundAtRate, testing::Values(8000, 44100, 96000, 192000),
                         testing::PrintToStringParamName());

TEST(SinkSound, ToneAt44100HzKeepsItsPitchAndLevel)
{
    constexpr int kRate = 44100;
    constexpr double kToneHz = 441.0;
    constexpr double kLevel = 0.5;
    std::vector<float> tone;
    for (int frame = 0; frame < kRate / 2; ++frame)
    {
        const double value = kLevel * std::sin(2.0 * M_PI * kToneHz * frame / kRate);
        tone.insert(tone.end(), kSinkChannels, static_cast<float>(value));
    }
    MonitorRecording recording;
    RunningSink sink(kRate);
    PushFrames(sink, tone);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::vector<float> recorded = recording.Finish();

    // The amplitude at the tone's frequency in the middle of what was heard, whatever its phase.
    const auto sound = std::find_if(recorded.begin(), recorded.end(),
                                    [](float sample) { return std::fabs(sample) > 0.1f; });
    const size_t start = static_cast<size_t>(sound - recorded.begin()) / kSinkChannels + 1000;
    constexpr size_t kWindow = 4800; // a whole number of periods, short of any inserted silence
    double re = 0.0;
    double im = 0.0;
    ASSERT_LT((start + kWindow) * kSinkChannels, recorded.size());
    for (size_t frame = 0; frame < kWindow; ++frame)
    {
        const double sample = static_cast<double>(recorded[(start + frame) * kSinkChannels]);
        const double angle = 2.0 * M_PI * kToneHz * static_cast<double>(frame) / kSinkRate;
        re += sample * std::cos(angle);
        im += sample * std::sin(angle);
    }
    EXPECT_NEAR(2.0 * std::hypot(re, im) / kWindow, kLevel, 0.01 * kLevel);
}

// One channel of many that sounds alone, and what the stereo sink makes of it.
struct ChannelCase
{
    const char* name;
    int channels;
    int channel;
    double left;
    double right;
};
void PrintTo(const ChannelCase& place, std::ostream* out)
{
    *out << place.name;
}

class SinkSoundOfChannel : public testing::TestWithParam<ChannelCase>
{
};

TEST_P(SinkSoundOfChannel, ArrivesAtItsPlace)
{
    constexpr size_t kFrames = 5000;
    const ChannelCase& place = GetParam();
    std::vector<float> samples(kFrames * static_cast<size_t>(place.channels));
    for (size_t frame = 0; frame < kFrames; ++frame)
        samples[frame * static_cast<size_t>(place.channels) + static_cast<size_t>(place.channel)] =
            kConstant;
    MonitorRecording recording;
    RunningSink sink(kSinkRate, place.channels);
    PushFrames(sink, samples);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::vector<float> recorded = recording.Finish();
    EXPECT_NEAR(HeardFrames(recorded, kSinkRate, 0), kFrames * place.left, 0.5);
    EXPECT_NEAR(HeardFrames(recorded, kSinkRate, 1), kFrames * place.right, 0.5);
}

constexpr double kMinus3Db = 0.70710678;
INSTANTIATE_TEST_SUITE_P(Place, SinkSoundOfChannel,
                         testing::Values(ChannelCase{"Mono", 1, 0, 1.0, 1.0},
                                         ChannelCase{"StereoLeft", 2, 0, 1.0, 0.0},
                                         ChannelCase{"StereoRight", 2, 1, 0.0, 1.0},
                                         ChannelCase{"SurroundFrontLeft", 6, 0, 1.0, 0.0},
                                         ChannelCase{"SurroundFrontRight", 6, 1, 0.0, 1.0},
                                         ChannelCase{"SurroundCentre", 6, 2, kMinus3Db, kMinus3Db},
                                         ChannelCase{"SurroundRearLeft", 6, 4, kMinus3Db, 0.0},
                                         ChannelCase{"SurroundRearRight", 6, 5, 0.0, kMinus3Db}),
                         [](const auto& place) { return place.param.name; });

// --- Threads ------------------------------------------------------------------------------------

// What the control thread may call while the worker pushes. The sound of it is nobody's concern
// here; that nothing races is seen under ThreadSanitizer.
TEST(SinkThreads, ControlAndWorkerUseTheSinkAtTheSameTime)
{
    RunningSink sink;
    std::atomic<bool> bEnd{false};
    std::thread control(
        [&]
        {
            bool bActive = false;
            while (!bEnd)
            {
                double seconds = 0.0;
                sink.GetStreamTime(&seconds, &seconds);
                sink.GetStreamTimePWOnly(&seconds, &seconds);
                sink.SetActive(bActive);
                bActive = !bActive;
                SleepMs(1);
            }
        });
    const std::vector<float> block = IndexedFrames(0, 480);
    for (int round = 0; round < 500; ++round)
    {
        PushFrames(sink, block);
        if (sink.QueuedSeconds() > 0.5 || round % 100 == 99)
            sink.Clear();
        EXPECT_LE(sink.QueuedBytes(), 500 * block.size() * sizeof(float));
        SleepMs(1);
    }
    bEnd = true;
    control.join();
}

} // namespace
