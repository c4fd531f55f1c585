// The sink's life: opening, closing, refusals, and daemons that are absent, mute, stopped or dead.
#include "harness.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <memory>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

constexpr std::chrono::milliseconds kInitLimit{2000}; // the longest that Init may wait
constexpr std::chrono::milliseconds kAtOnce{200};     // what needs no wait at all
const std::vector<float> kSound = IndexedFrames(0, 4800);

// --- Refusals -----------------------------------------------------------------------------------

struct Format
{
    int rate;
    int channels;
};
void PrintTo(const Format& format, std::ostream* out)
{
    *out << format.rate << " Hz, " << format.channels << " channels";
}

class SinkRefuses : public testing::TestWithParam<Format>
{
};

TEST_P(SinkRefuses, WhatNoDevicePlays)
{
    PipeWirePlayer sink;
    const Resources before = Resources::Now();
    EXPECT_FALSE(sink.Init(GetParam().rate, GetParam().channels));
    EXPECT_TRUE(ComesBackTo(before));
}

INSTANTIATE_TEST_SUITE_P(Formats, SinkRefuses,
                         testing::Values(Format{0, 2}, Format{-1, 2}, Format{768001, 2},
                                         Format{INT_MAX, 2}, Format{INT_MIN, 2}, Format{48000, 0},
                                         Format{48000, -1}, Format{48000, 65},
                                         Format{48000, INT_MAX}, Format{INT_MAX, INT_MAX}),
                         [](const auto& format)
                         { return "Number" + std::to_string(format.index); });

TEST(SinkLife, RefusalLeavesTheSinkUsable)
{
    PipeWirePlayer sink;
    EXPECT_FALSE(sink.Init(kSinkRate, 65));
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.SetActive(true);
    PushFrames(sink, kSound);
    EXPECT_TRUE(DrainAsWorkersDo(sink));
}

class SinkTakes : public testing::TestWithParam<Format>
{
};

TEST_P(SinkTakes, TheEndsOfTheRange)
{
    const Format& format = GetParam();
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(format.rate, format.channels));
    EXPECT_EQ(sink.SampleRate(), format.rate);
    EXPECT_EQ(sink.Channels(), format.channels);
    sink.SetActive(true);
    const size_t frames = static_cast<size_t>(format.rate) / 10 + 1;
    PushFrames(sink, std::vector<float>(frames * static_cast<size_t>(format.channels), 0.1f));
    EXPECT_TRUE(DrainAsWorkersDo(sink));
}

INSTANTIATE_TEST_SUITE_P(Formats, SinkTakes,
                         testing::Values(Format{1, 1}, Format{100, 1}, Format{768000, 2},
                                         Format{48000, 64}, Format{48000, 9}, Format{48000, 8}),
                         [](const auto& format)
                         { return "Number" + std::to_string(format.index); });

// Whether a stream of this size opens is for PipeWire to say: it is left clean either way.
TEST(SinkLife, GreatestFormatOfAllOpensOrFailsAndLeavesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    {
        PipeWirePlayer sink;
        const bool bOpened = sink.Init(768000, 64);
        sink.SetActive(true);
        PushFrames(sink, std::vector<float>(64 * 76800, 0.1f));
        EXPECT_EQ(sink.QueuedSeconds() > 0.0, bOpened);
        SleepMs(100);
    }
    EXPECT_TRUE(ComesBackTo(before));
}

// --- The order of calls -------------------------------------------------------------------------

TEST(SinkLife, DestructionWithoutInitIsSafe)
{
    const PipeWirePlayer sink;
    EXPECT_EQ(sink.QueuedBytes(), 0u);
}

TEST(SinkLife, DestroyTwiceAndWithoutInitIsSafe)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    PipeWirePlayer sink;
    sink.Destroy();
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.Destroy();
    sink.Destroy();
    EXPECT_TRUE(ComesBackTo(before));
}

TEST(SinkLife, DestructionWithoutDestroyLeavesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    {
        PipeWirePlayer sink;
        ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
        sink.SetActive(true);
        PushFrames(sink, kSound);
        SleepMs(30);
    }
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(SinkLife, InitOnAnOpenSinkStartsAnewAndLeavesOneStream)
{
    MonitorRecording recording;
    WarmUpLibraries();
    const Resources before = Resources::Now();
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(44100, 1));
    PushFrames(sink, std::vector<float>(44100, 0.1f));
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
    sink.SetActive(true);
    PushFrames(sink, IndexedFrames(0, 5000));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    sink.Destroy();
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, 5000)));
}

TEST(SinkLife, InitAfterDestroyPlaysAgain)
{
    MonitorRecording recording;
    PipeWirePlayer sink;
    for (const size_t first : {0u, 5000u, 10000u})
    {
        ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
        sink.SetActive(true);
        PushFrames(sink, IndexedFrames(first, 5000));
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        sink.Destroy();
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, 15000)));
}

void ExpectClosed(PipeWirePlayer& sink)
{
    sink.SetActive(true);
    PushFrames(sink, kSound);
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
    EXPECT_FALSE(sink.GetStreamTime(nullptr, nullptr));
    EXPECT_FALSE(sink.GetStreamTimePWOnly(nullptr, nullptr));
    sink.Clear();
    sink.SetActive(false);
}

TEST(SinkLife, OperationsBeforeInitAndAfterDestroyDoNothing)
{
    PipeWirePlayer sink;
    ExpectClosed(sink);
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.SetActive(true);
    PushFrames(sink, kSound);
    sink.Destroy();
    ExpectClosed(sink);
}

TEST(SinkLife, ClearBeforeAnyPushIsHarmlessAtTheLowestRate)
{
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(1, 1));
    sink.SetActive(true);
    sink.Clear();
    EXPECT_EQ(sink.QueuedBytes(), 0u);
}

TEST(SinkLife, EmptyPushesAreIgnored)
{
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.PushBytes(nullptr, 8);
    sink.PushBytes(reinterpret_cast<const uint8_t*>(kSound.data()), 0);
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
}

// The lives end everywhere between the start and the middle of the sound, also while the daemon is
// still sending what a started stream needs: messages that nobody takes any more hold descriptors.
TEST(SinkLife, ManyShortLivesLeaveNoThreadDescriptorOrNode)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    for (int life = 0; life < 300; ++life)
    {
        PipeWirePlayer sink;
        ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
        sink.SetActive(true);
        PushFrames(sink, kSound);
        std::this_thread::sleep_for(std::chrono::microseconds(life % 60 * 250));
    }
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(SinkLife, TwoSinksPlayAtTheSameTime)
{
    PipeWirePlayer one;
    PipeWirePlayer other;
    ASSERT_TRUE(one.Init(kSinkRate, kSinkChannels));
    ASSERT_TRUE(other.Init(44100, 1));
    one.SetActive(true);
    other.SetActive(true);
    PushFrames(one, kSound);
    PushFrames(other, kSound);
    EXPECT_TRUE(DrainAsWorkersDo(one));
    EXPECT_TRUE(DrainAsWorkersDo(other));
}

// --- Daemons that are not there -----------------------------------------------------------------

// Init fails within `limit` and the process is as it was before.
void ExpectInitFails(std::chrono::milliseconds limit)
{
    const Resources before = Resources::Now();
    PipeWirePlayer sink;
    bool bOpened = true;
    const auto taken = DurationOf([&] { bOpened = sink.Init(kSinkRate, kSinkChannels); });
    EXPECT_FALSE(bOpened);
    EXPECT_LE(taken.count(), (limit + kSlack).count());
    EXPECT_TRUE(ComesBackTo(before));
    ExpectClosed(sink);
}

TEST(SinkWithoutDaemon, InitFailsAtOnce)
{
    WarmUpLibraries();
    const OtherRuntimeDirectory empty;
    ExpectInitFails(kAtOnce);
}

TEST(SinkWithoutDaemon, InitSucceedsOnceThereIsOne)
{
    PipeWirePlayer sink;
    {
        const OtherRuntimeDirectory empty;
        EXPECT_FALSE(sink.Init(kSinkRate, kSinkChannels));
    }
    EXPECT_TRUE(sink.Init(kSinkRate, kSinkChannels));
}

TEST(SinkWithMuteDaemon, InitGivesUpWithinTwoSeconds)
{
    WarmUpLibraries();
    const MuteDaemon mute;
    ExpectInitFails(kInitLimit);
}

// A daemon that hangs up in the middle of the greeting.
TEST(SinkWithMuteDaemon, InitFailsSoonWhenTheConnectionBreaks)
{
    WarmUpLibraries();
    const MuteDaemon mute;
    std::thread hangUp(
        [&]
        {
            const int client = accept(mute.Socket(), nullptr, nullptr);
            SleepMs(20);
            close(client);
        });
    PipeWirePlayer sink;
    bool bOpened = true;
    const auto taken = DurationOf([&] { bOpened = sink.Init(kSinkRate, kSinkChannels); });
    hangUp.join();
    EXPECT_FALSE(bOpened);
    EXPECT_LE(taken.count(), (kInitLimit + kSlack).count());
}

TEST(SinkWithStoppedDaemon, InitGivesUpWithinTwoSeconds)
{
    WarmUpLibraries();
    const StoppedDaemon stopped;
    ExpectInitFails(kInitLimit);
}

TEST(SinkWithStoppedDaemon, NothingWaitsForItDuringPlay)
{
    MonitorRecording recording;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.SetActive(true);
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    recording.AwaitSound();
    recording.AwaitMore(4 * kQuantum);
    const StoppedDaemon stopped;
    const auto taken = DurationOf(
        [&]
        {
            sink.SetActive(false);
            sink.SetActive(true);
            sink.GetStreamTime(nullptr, nullptr);
            sink.Clear();
            sink.Destroy();
        });
    EXPECT_LE(taken.count(), (kAtOnce + kSlack).count());
}

// A daemon that goes on makes up for the cycles it missed and drops some on the way. That is its
// own affair; what the sink hands it is still each frame once, in order, and to the last.
TEST(SinkWithStoppedDaemon, PlayGoesOnToTheLastFrameWhenItDoes)
{
    MonitorRecording recording;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.SetActive(true);
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    recording.AwaitSound();
    recording.AwaitMore(4 * kQuantum);
    {
        const StoppedDaemon stopped;
        SleepMs(300);
        EXPECT_GT(sink.QueuedSeconds(), 0.5); // nobody has taken it
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, kSinkRate);
    EXPECT_EQ(heard.missingAtStart + heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder, 0u);
}

TEST(SinkWithDeadDaemon, OperationsAreHarmlessAndDestructionReturnsAtOnce)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    {
        auto sink = std::make_unique<PipeWirePlayer>();
        ASSERT_TRUE(sink->Init(kSinkRate, kSinkChannels));
        sink->SetActive(true);
        PushFrames(*sink, IndexedFrames(0, kSinkRate));
        ASSERT_TRUE(WaitUntil([&] { return sink->GetStreamTime(nullptr, nullptr); }));
        KillDaemon();
        const auto taken = DurationOf(
            [&]
            {
                sink->SetActive(false);
                sink->SetActive(true);
                PushFrames(*sink, kSound);
                sink->GetStreamTime(nullptr, nullptr);
                sink->GetStreamTimePWOnly(nullptr, nullptr);
                sink->QueuedSeconds();
                sink->Clear();
                sink.reset();
            });
        EXPECT_LE(taken.count(), (kAtOnce + kSlack).count());
    }
    EXPECT_TRUE(ComesBackTo(before));
}

TEST(SinkWithDeadDaemon, InitOnTheOpenSinkFailsAtOnce)
{
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    sink.SetActive(true);
    KillDaemon();
    bool bOpened = true;
    const auto taken = DurationOf([&] { bOpened = sink.Init(kSinkRate, kSinkChannels); });
    EXPECT_FALSE(bOpened);
    EXPECT_LE(taken.count(), (kAtOnce + kSlack).count());
}

} // namespace
