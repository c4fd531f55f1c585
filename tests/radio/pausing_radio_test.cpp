// Pausing a stream in each of its phases: nothing more is heard, nothing is lost, nothing is
// skipped.
#include "radio.h"

#include <atomic>
#include <cmath>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

class PausingRadio : public Radio
{
protected:
    // This much, and from the very first frame on.
    void ExpectHeard(double seconds)
    {
        std::vector<float> sound = WavSound(Seconds(4.0));
        sound.resize(2 * Seconds(seconds));
        EXPECT_EQ(VirtualDevice::Last().heard, sound);
    }
};

constexpr double kPausePoll = 0.020;

} // namespace

// --- Playing

TEST_F(PausingRadio, PauseKeepsTheQueue)
{
    PlayWav(6.0);
    VirtualTime::Step(0.5);
    player.SetPaused(true);
    const size_t pushes = Pushes();
    const size_t heard = VirtualDevice::Last().heard.size();
    VirtualTime::Step(5.0);
    EXPECT_EQ(Pushes(), pushes);
    EXPECT_EQ(VirtualDevice::Last().heard.size(), heard);
}

TEST_F(PausingRadio, PauseLetsOneFrameThroughAtMost)
{
    PauseInBlock(kStartBlocks + 20);
    PlayWav(1.5);
    EXPECT_EQ(Pushes(), kStartBlocks + 20); // the block that was in hand
    VirtualTime::Step(5.0);
    EXPECT_EQ(Pushes(), kStartBlocks + 20);
    EXPECT_FALSE(VirtualDevice::Last().bActive);
}

TEST_F(PausingRadio, PauseIsPolledEveryTwentyMilliseconds)
{
    PauseInBlock(kStartBlocks + 20);
    PlayWav(1.5);
    VirtualTime::Step(1.0);
    player.SetPaused(false);
    VirtualTime::Step(0.019);
    EXPECT_EQ(Pushes(), kStartBlocks + 20);
    VirtualTime::Step(0.001);
    EXPECT_GT(Pushes(), kStartBlocks + 20);
}

TEST_F(PausingRadio, ResumeGoesOnWithoutALostFrame)
{
    PlayWav(6.0);
    VirtualTime::Step(0.5);
    player.SetPaused(true);
    VirtualTime::Step(3.0);
    player.SetPaused(false);
    VirtualTime::Step(1.5);
    EXPECT_TRUE(VirtualDevice::Last().bActive);
    const std::vector<float> heard = VirtualDevice::Last().heard;
    const std::vector<float> sound = WavSound(Seconds(6.0));
    EXPECT_EQ(heard.size(), 2 * Seconds(2.0));
    EXPECT_TRUE(std::equal(heard.begin(), heard.end(), sound.begin()));
}

TEST_F(PausingRadio, NothingIsReportedWhilePaused)
{
    PlayWav(4.0);
    player.SetPaused(true);
    const size_t before = Lines().size();
    VirtualTime::Step(5.0);
    EXPECT_THAT(Lines(), SizeIs(before));
}

// A live stream has no position, so that is where a pause sets the worker's own back to.
TEST_F(PausingRadio, TapTimeCountsAnewFromThePause)
{
    std::vector<long> times;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long timeUs)
                               { times.push_back(timeUs); });
    PlayWav(6.0);
    player.SetPaused(true);
    VirtualTime::Step(0.1);
    const size_t before = times.size();
    player.SetPaused(false);
    VirtualTime::Step(0.1);
    Stop();
    ASSERT_GT(times.size(), before + 2);
    EXPECT_EQ(times[before - 1], std::llround(static_cast<double>(before) * kBlockSeconds * 1e6));
    EXPECT_EQ(times[before], 10667);
    EXPECT_EQ(times[before + 1], 21333);
}

// --- Around the start buffer

TEST_F(PausingRadio, PauseInTheBlockThatFillsTheStartBufferHolds)
{
    PauseInBlock(kStartBlocks);
    PlayWav(4.0);
    VirtualTime::Step(3.0);
    EXPECT_FALSE(VirtualDevice::Last().bActive);
    EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
    EXPECT_EQ(Pushes(), kStartBlocks);
    player.SetPaused(false);
    VirtualTime::Step(1.0);
    ExpectHeard(1.0);
}

TEST_F(PausingRadio, ResumeWhileBufferingGoesOnBuffering)
{
    InBlock(Seconds(0.3) / kBlock,
            [] { std::this_thread::sleep_for(std::chrono::milliseconds(400)); });
    PlayWav(4.0);
    player.SetPaused(true);
    player.SetPaused(false);
    VirtualTime::Step(0.399);
    EXPECT_FALSE(VirtualDevice::Last().bActive);
    EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
    VirtualTime::Step(0.001 + 0.5);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0"));
    ExpectHeard(0.5);
}

TEST_F(PausingRadio, PauseWhileBufferingHolds)
{
    PauseInBlock(Seconds(0.3) / kBlock);
    PlayWav(4.0);
    VirtualTime::Step(3.0);
    EXPECT_EQ(Pushes(), Seconds(0.3) / kBlock);
    EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
    player.SetPaused(false);
    VirtualTime::Step(kPausePoll + 0.5);
    ExpectHeard(0.5);
}

TEST_F(PausingRadio, PauseWhileConnectingIsKept)
{
    std::atomic<bool> bAnswer = false;
    ScriptedServer radio(
        {Script{SilenceUntil([&] { return bAnswer.load(); })} + Whole(WavBytes(Seconds(4.0)))});
    Start(radio.Url());
    player.SetPaused(true);
    bAnswer = true;
    VirtualTime::Settle();
    VirtualTime::Step(0.5);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0"));
    EXPECT_EQ(Pushes(), 0u);
    player.SetPaused(false);
    VirtualTime::Step(kPausePoll + 0.3);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0"));
    ExpectHeard(0.3);
}

// What the broken connection had queued is gone; the next one waits with its first frame in hand.
TEST_F(PausingRadio, PauseAcrossAReconnectionHolds)
{
    PauseInBlock(94); // the last one of the first connection
    PlayScripts({Whole(WavBytes(94 * kBlock)), Whole(WavBytes(Seconds(4.0)))});
    ASSERT_TRUE(StepToRetry(1));
    VirtualTime::Step(5.0);
    EXPECT_TRUE(player.IsPaused());
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd,
                                     "Reconnecting 1 " + kEnd, "Buffering 1"));
    ASSERT_THAT(VirtualDevice::Sinks(), SizeIs(2));
    EXPECT_EQ(Pushes(), 0u);
    player.SetPaused(false);
    VirtualTime::Step(kPausePoll + 0.5);
    EXPECT_EQ(reports.Last().state, StreamState::Playing);
    ExpectHeard(0.5);
}

TEST_F(PausingRadio, PauseInTheWaitForTheNextAttemptHolds)
{
    PlayScripts({NotFound(), Whole(WavBytes(Seconds(4.0)))});
    player.SetPaused(true);
    VirtualTime::Step(5.0);
    EXPECT_EQ(Pushes(), 0u);
    player.SetPaused(false);
    VirtualTime::Step(kPausePoll + 0.5);
    ExpectHeard(0.5);
}
