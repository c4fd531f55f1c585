// An open sink when one of its calls fails: in the process callback, in an operation, or when it
// connects anew.
#include "failing_calls.h"
#include "piecewise_play.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <new>
#include <string>
#include <vector>

namespace
{

constexpr size_t kFrameBytes = kSinkChannels * sizeof(float);
constexpr const char* kCallsOfConnect[] = {"pw_context_connect", "pw_properties_new",
                                           "pw_stream_new", "pw_stream_connect"};

// --- The process callback -----------------------------------------------------------------------

class SinkWithoutTime : public testing::TestWithParam<const char*>
{
};

TEST_P(SinkWithoutTime, PlaysToTheEndByTheTimesOfItsCallbacks)
{
    PiecewisePlay play;
    const FailingCalls failing(GetParam(), 0, kForever);
    RunningSink sink;
    play.PlayPiece(sink);
    double presented = -1.0;
    EXPECT_TRUE(sink.GetStreamTime(&presented, nullptr));
    EXPECT_DOUBLE_EQ(presented, Seconds(kPieceFrames));
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
    EXPECT_GE(failing.Failed(), 2);
    EXPECT_TRUE(play.IsWhole());
    double ticks = -1.0;
    double delay = -2.0;
    EXPECT_FALSE(sink.GetStreamTimePWOnly(&ticks, &delay));
    EXPECT_EQ(ticks, -1.0);
    EXPECT_EQ(delay, -2.0);
}

INSTANTIATE_TEST_SUITE_P(Time, SinkWithoutTime, testing::Values("pw_stream_get_time_n", kZeroRate),
                         [](const auto& function)
                         { return function.param == kZeroRate ? "ZeroRate" : "Error"; });

TEST(SinkWithoutBuffers, InEveryNthCycleKeepsWhatItCouldNotPassOn)
{
    PiecewisePlay play;
    RunningSink sink;
    for (const int every : {2, 3, 4})
    {
        SCOPED_TRACE(every);
        const FailingCalls failing("pw_stream_dequeue_buffer", 0, kForever, every);
        PushFrames(sink, play.NextPiece(8 * kQuantum));
        sink.SetActive(true);
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        EXPECT_GE(failing.Failed(), 2);
    }
    EXPECT_TRUE(play.IsWhole());
}

// --- The operations -----------------------------------------------------------------------------

TEST(SinkWithoutMemory, PushThrowsAndTheQueueIsAsItWas)
{
    PiecewisePlay play;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    const std::vector<float> longerThanTheQueue(2 * kSinkRate * kSinkChannels);
    PushFrames(sink, play.NextPiece());
    {
        const FailingCalls failing(kAllocation);
        EXPECT_THROW(PushFrames(sink, longerThanTheQueue), std::bad_alloc);
        EXPECT_EQ(failing.Failed(), 1);
    }
    EXPECT_EQ(sink.QueuedBytes(), kPieceFrames * kFrameBytes);
    PushFrames(sink, play.NextPiece(2 * kSinkRate / 3)); // into the room that is left
    EXPECT_THROW(
        {
            const FailingCalls failing(kAllocation);
            PushFrames(sink, longerThanTheQueue);
        },
        std::bad_alloc);
    play.PlayPiece(sink);
    EXPECT_TRUE(play.IsWhole());
}

class SinkWithoutFlush : public testing::TestWithParam<const char*>
{
};

// A resampled stream, as only that is flushed.
TEST_P(SinkWithoutFlush, ClearReturnsAndWhatFollowsIsHeard)
{
    constexpr int kRate = 44100;
    constexpr size_t kFrames = kRate / 10;
    RunningSink sink(kRate);
    PushFrames(sink, ConstantFrames(kRate));
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    const FailingCalls failing(GetParam());
    sink.Clear();
    EXPECT_EQ(failing.Failed(), 1);
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    MonitorRecording recording;
    recording.AwaitMore(4 * kQuantum); // what was on its way has been heard
    const size_t from = recording.Now();
    PushFrames(sink, ConstantFrames(kFrames));
    sink.SetActive(true);
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    std::vector<float> heard = recording.Finish();
    heard.erase(heard.begin(), heard.begin() + static_cast<ptrdiff_t>(from * kSinkChannels));
    const double frames = SumOfChannel(heard, 0) / static_cast<double>(kConstant);
    // Of some 70 frames that a resampler keeps, it had kept others before.
    EXPECT_NEAR(frames, static_cast<double>(kFrames) * kSinkRate / kRate, 100.0);
}

INSTANTIATE_TEST_SUITE_P(Call, SinkWithoutFlush,
                         testing::Values("pw_stream_flush", "pw_loop_invoke"),
                         [](const auto& function) { return std::string(function.param); });

// A stream that does not start is replaced like any that does not run.
TEST(SinkWhoseStreamStaysInactive, PlaysWithANewOne)
{
    PiecewisePlay play;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    const FailingCalls failing("pw_stream_set_active");
    play.PlayPiece(sink);
    EXPECT_EQ(failing.Failed(), 1);
    EXPECT_TRUE(play.IsWhole());
}

// --- Connecting anew ----------------------------------------------------------------------------

// A sink whose node was taken from it comes back by itself.
void RemoveNode()
{
    OutputOf({"pw-cli", "destroy", std::to_string(NodeId("tovrel"))});
}

// Held or active, with frames that were queued before the stream was lost and others after it.
TEST(SinkThatConnectsAnew, TriesAgainAfterEveryFailureAndLosesNothing)
{
    PiecewisePlay play;
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    for (const char* function : kCallsOfConnect)
    {
        SCOPED_TRACE(function);
        PushFrames(sink, play.NextPiece());
        const FailingCalls failing(function, 0, 2);
        RemoveNode();
        ASSERT_TRUE(WaitUntil([&] { return failing.Failed() == 1; }, kOftenMs));
        EXPECT_FALSE(sink.GetStreamTimePWOnly(nullptr, nullptr));
        sink.SetActive(true);
        PushFrames(sink, play.NextPiece());
        EXPECT_EQ(sink.QueuedBytes(), 2 * kPieceFrames * kFrameBytes);
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        EXPECT_EQ(failing.Failed(), 2);
    }
    EXPECT_TRUE(play.IsWhole());
}

// All of the failures one after the other, each in an attempt of its own.
TEST(SinkWithANewDaemon, ComesToItThroughEveryFailureAndLosesNothing)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    {
        PipeWirePlayer sink;
        ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
        std::deque<FailingCalls> failing;
        for (const char* function : kCallsOfConnect)
            failing.emplace_back(function);
        KillDaemon();
        const NewDaemon daemon;
        const NewSessionManager manager;
        AwaitDefaultSink("null-sink");
        ASSERT_TRUE(WaitUntil([&] { return failing.back().Failed() == 1; }));
        PiecewisePlay play;
        ASSERT_TRUE(WaitUntil([] { return EngineNodeCount() == 1; }));
        play.PlayPiece(sink);
        EXPECT_TRUE(play.IsWhole());
    }
    EXPECT_TRUE(ComesBackTo(before));
}

} // namespace
