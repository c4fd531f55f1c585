// Init when one of its calls fails: what it tells, what it leaves behind, and what comes after.
#include "failing_calls.h"
#include "init_faults.h"
#include "piecewise_play.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <map>
#include <utility>

namespace
{

bool Open(PipeWirePlayer& sink)
{
    return sink.Init(kSinkRate, kSinkChannels);
}

// No operation does anything, and no output is touched.
void ExpectClosed(PipeWirePlayer& sink)
{
    double first = -1.0;
    double second = -2.0;
    sink.SetActive(true);
    PushFrames(sink, IndexedFrames(0, kQuantum));
    sink.Clear();
    EXPECT_EQ(sink.QueuedBytes(), 0u);
    EXPECT_EQ(sink.QueuedSeconds(), 0.0);
    EXPECT_FALSE(sink.GetStreamTime(&first, &second));
    EXPECT_FALSE(sink.GetStreamTimePWOnly(&first, &second));
    EXPECT_EQ(first, -1.0);
    EXPECT_EQ(second, -2.0);
}

// --- Failures -----------------------------------------------------------------------------------

TEST(SinkInit, FailsWithEachOfItsCallsLeavesNothingAndSucceedsTheNextTime)
{
    WarmUpLibraries();
    PiecewisePlay play;
    const Resources before = Resources::Now();
    for (const auto& [name, function, skip, count] : kInitFaults)
    {
        SCOPED_TRACE(name);
        PipeWirePlayer sink;
        {
            const FailingCalls failing(function, skip, count);
            EXPECT_LT(DurationOf([&] { EXPECT_FALSE(Open(sink)); }), kSlack);
            EXPECT_GE(failing.Failed(), 1);
        }
        ExpectClosed(sink);
        EXPECT_TRUE(ComesBackTo(before));
        ASSERT_TRUE(Open(sink));
        play.PlayPiece(sink);
    }
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
    EXPECT_TRUE(play.IsWhole());
}

TEST(SinkInitOnAnOpenSink, ThatFailsClosesIt)
{
    WarmUpLibraries();
    const Resources before = Resources::Now();
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    const FailingCalls failing("pw_stream_new");
    EXPECT_FALSE(Open(sink));
    ExpectClosed(sink);
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

TEST(SinkInitWithoutADeadline, DoesNotWaitForADaemonThatSaysNothing)
{
    const MuteDaemon mute;
    const FailingCalls failing("pw_thread_loop_get_time");
    PipeWirePlayer sink;
    bool bOpened = true;
    const auto taken = DurationOf([&] { bOpened = Open(sink); });
    EXPECT_FALSE(bOpened);
    EXPECT_EQ(failing.Failed(), 1);
    EXPECT_LE(taken.count(), kSlack.count());
}

// One more of these calls in Init would be one whose failure nobody tries.
TEST(SinkInit, MakesNoOtherCallThatCanFail)
{
    const std::map<const char*, int> expected = {
        {kAllocation, 3},
        {"pw_thread_loop_new", 1},
        {"pw_context_new", 1},
        {"pw_loop_add_timer", 2}, // and for the context
        {"pw_properties_new", 2},
        {"pw_properties_setf", 1},
        {"dlopen", 1},
        {"pw_thread_loop_start", 1},
        {"pw_context_connect", 1},
        {"pw_thread_loop_get_time", 1},
        {"pw_stream_new", 1},
        {"pw_stream_connect", 1},
    };
    PipeWirePlayer sink;
    std::map<const char*, int> before;
    for (const auto& [function, calls] : expected)
        before[function] = CallCount(function);
    ASSERT_TRUE(Open(sink));
    for (const auto& [function, calls] : expected)
        EXPECT_EQ(CallCount(function) - before[function], calls) << function;
}

// --- What Init can do without -------------------------------------------------------------------

TEST(SinkInit, PlaysAllTheSameWithoutWhatItDoesNotNeed)
{
    const OtherLibraryVersion version("0.3.65"); // one that has two configurations
    PiecewisePlay play;
    for (const char* function :
         {"pw_context_new", "pw_properties_new", "pw_properties_setf", "dlopen",
          "pthread_mutexattr_init", "pthread_mutexattr_setprotocol", "pthread_mutex_init"})
    {
        SCOPED_TRACE(function);
        const FailingCalls failing(function);
        PipeWirePlayer sink;
        ASSERT_TRUE(Open(sink));
        EXPECT_EQ(failing.Failed(), 1);
        play.PlayPiece(sink);
    }
    EXPECT_TRUE(play.IsWhole());
}

// --- Versions of the library --------------------------------------------------------------------

// From 1.4 on there is one configuration only.
TEST(SinkWithLibrary, Of14AsksForOneContextOnly)
{
    const OtherLibraryVersion version("1.4.0");
    const FailingCalls failing("pw_context_new", 0, kForever);
    PipeWirePlayer sink;
    EXPECT_FALSE(Open(sink));
    EXPECT_EQ(failing.Failed(), 1);
}

// Where streams are linked channel by channel, the first cycle is not heard by all of them.
TEST(SinkWithLibrary, Of10LetsTheFirstCyclePassAndNoneBeforeDoes)
{
    PiecewisePlay play;
    for (const auto& [library, bPasses] :
         {std::pair{"0.3.65", false}, {"1.0.0", true}, {"1.4.2", true}, {"unknown", false}})
    {
        SCOPED_TRACE(library);
        const OtherLibraryVersion version(library);
        PipeWirePlayer sink;
        ASSERT_TRUE(Open(sink));
        play.PlayPiece(sink);
        EXPECT_EQ(SilentBuffersBeforeSound() > 0, bPasses);
    }
    EXPECT_TRUE(play.IsWhole());
}

} // namespace
