// What happens after a connection fails or breaks off: texts, counts, waits and the tear-down.
#include "radio.h"

#include <memory>

using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::SizeIs;

namespace
{

constexpr double kRetryWait = 2.0;
constexpr int kMaxAttempts = 300;

class Reconnecting : public Radio
{
protected:
    Reconnecting() { ForgetReleases(); }
};

} // namespace

TEST_F(Reconnecting, TextsAlternate)
{
    PlayScripts({NotFound()});
    VirtualTime::Step(2 * kRetryWait);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0",                             //
                                     "Reconnecting 1 retry 1/300: " + kNotFound, //
                                     "Reconnecting 1 " + kNotFound,              //
                                     "Reconnecting 2 retry 2/300: " + kNotFound, //
                                     "Reconnecting 2 " + kNotFound,              //
                                     "Reconnecting 3 retry 3/300: " + kNotFound));
}

TEST_F(Reconnecting, WaitsTwoSecondsBetweenAttempts)
{
    PlayScripts({NotFound()});
    VirtualTime::Step(kRetryWait - 0.001);
    EXPECT_EQ(server->RequestCount(), 1u);
    VirtualTime::Step(0.001);
    EXPECT_EQ(server->RequestCount(), 2u);
}

TEST_F(Reconnecting, StopDuringTheWaitTakesOneStepOfIt)
{
    PlayScripts({NotFound()});
    VirtualTime::Step(0.55);
    player.RequestStop();
    VirtualTime::Step(0.1);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Reconnecting 1 retry 1/300: " + kNotFound,
                                     "Stopped 1"));
}

TEST_F(Reconnecting, GivesUpAtTheFailureAfterTheLastAttempt)
{
    VirtualTime::SetFreeRunning(true);
    server = std::make_unique<ScriptedServer>(std::vector<Script>{NotFound()});
    Start(server->Url());
    RunToEnd();
    std::vector<std::string> expected = {"Connecting 0"};
    for (int n = 1; n <= kMaxAttempts; ++n)
    {
        const std::string attempt = std::to_string(n);
        expected.push_back("Reconnecting " + attempt + " retry " + attempt + "/300: " + kNotFound);
        expected.push_back("Reconnecting " + attempt + " " + kNotFound);
    }
    expected.push_back("Error 300 " + kNotFound);
    EXPECT_EQ(Lines(), expected);
    EXPECT_EQ(server->RequestCount(), kMaxAttempts + 1u);
    EXPECT_EQ(player.LastError(), kNotFound);
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_NEAR(reports.Last().at - reports.All()[1].at, kMaxAttempts * kRetryWait, 1e-6);
}

TEST_F(Reconnecting, LastErrorIsTheOneReportedAtTheEnd)
{
    std::vector<Script> scripts(kMaxAttempts, NotFound());
    scripts.push_back(Whole("garbage"));
    PlayScripts(scripts);
    RunToEnd();
    EXPECT_EQ(Lines().back(),
              "Error 300 Failed to open radio stream: Invalid data found when processing input");
}

TEST_F(Reconnecting, EveryReportTellsTheLimit)
{
    PlayScripts({Whole(WavBytes(4800)), NotFound()});
    VirtualTime::Step(kRetryWait);
    for (const Report& report : reports.All())
        EXPECT_EQ(report.info.MaxReconnectAttempts, kMaxAttempts);
}

TEST_F(Reconnecting, SuccessDoesNotResetTheCount)
{
    PlayScripts({NotFound(), NotFound(), Whole(WavBytes(Seconds(1.0))), NotFound()});
    VirtualTime::Step(2 * kRetryWait);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0",                             //
                                     "Reconnecting 1 retry 1/300: " + kNotFound, //
                                     "Reconnecting 1 " + kNotFound,              //
                                     "Reconnecting 2 retry 2/300: " + kNotFound, //
                                     "Reconnecting 2 " + kNotFound,              //
                                     "Buffering 2", "Playing 2", "Playing 2",    //
                                     "Reconnecting 3 retry 3/300: " + kEnd));
}

TEST_F(Reconnecting, PlaysOnAfterABreak)
{
    PlayScripts({Whole(WavBytes(Seconds(1.0))), Whole(WavBytes(Seconds(1.5))), NotFound()});
    VirtualTime::Step(kRetryWait);
    const auto sinks = VirtualDevice::Sinks();
    ASSERT_THAT(sinks, SizeIs(2));
    EXPECT_EQ(sinks[0]->pushed, WavSound(Seconds(1.0)));
    EXPECT_EQ(sinks[1]->pushed, WavSound(Seconds(1.5)));
}

TEST_F(Reconnecting, BrokenConnectionTearsItsSinkDown)
{
    PlayScripts({Whole(WavBytes(Seconds(1.0))), NotFound()});
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 0", "SetActive 1",
                                                    "SetActive 0", "Clear", "Destroy", "delete"));
    EXPECT_FALSE(access.HasOutput());
    EXPECT_TRUE(player.IsPlaying());
}

TEST_F(Reconnecting, BrokenConnectionFreesEverythingBeforeTheWait)
{
    PlayScripts({Whole(WavBytes(Seconds(1.0))), NotFound()});
    EXPECT_THAT(Releases(), ElementsAre("av_packet_free", "av_frame_free", "swr_free",
                                        "avcodec_free_context", "avformat_close_input"));
}

TEST_F(Reconnecting, NewConnectionBuffersAgain)
{
    PlayScripts({Whole(WavBytes(Seconds(1.0))), Whole(WavBytes(Seconds(0.5))), NotFound()});
    VirtualTime::Step(kRetryWait);
    EXPECT_THAT(Lines(),
                ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                            "Reconnecting 1 retry 1/300: " + kEnd, "Reconnecting 1 " + kEnd,
                            "Buffering 1", "Reconnecting 2 retry 2/300: " + kEnd));
}

TEST_F(Reconnecting, ReadFailureIsNotThePlayersError)
{
    PlayScripts({Whole(WavBytes(4800)), NotFound()});
    EXPECT_EQ(player.LastError(), "");
    VirtualTime::Step(kRetryWait);
    EXPECT_EQ(player.LastError(), kNotFound); // a failed opening is
}

namespace
{

class ReconnectingAfterRead : public Reconnecting,
                              public testing::WithParamInterface<std::pair<int, const char*>>
{
};

} // namespace

TEST_P(ReconnectingAfterRead, AnyReadErrorIsABreak)
{
    const auto [code, text] = GetParam();
    const FailingCall failing("av_read_frame", code, 10);
    PlayScripts({Whole(WavBytes(Seconds(1.0))), NotFound()});
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0",
                                     std::string("Reconnecting 1 retry 1/300: ") + text));
    EXPECT_EQ(Pushes(), 10u);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, ReconnectingAfterRead,
    testing::Values(std::pair{AVERROR(EIO), "Input/output error"},
                    std::pair{AVERROR(EAGAIN), "Resource temporarily unavailable"},
                    std::pair{AVERROR_EOF, "End of file"},
                    std::pair{AVERROR_INVALIDDATA, "Invalid data found when processing input"}));

TEST_F(Reconnecting, ResamplerThatCannotBeSetUpIsRetried)
{
    const FailingCall failing("swr_init", AVERROR(EINVAL));
    PlayScripts({Whole(WavBytes(Seconds(1.0))), Whole(WavBytes(Seconds(1.0))), NotFound()});
    ASSERT_TRUE(failing.Happened());
    const std::string error = player.LastError();
    EXPECT_NE(error, "");
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Reconnecting 1 retry 1/300: " + error));
    EXPECT_THAT(VirtualDevice::Sinks(), SizeIs(0));
    EXPECT_THAT(Releases(),
                testing::IsSupersetOf({"avcodec_free_context", "avformat_close_input"}));
    VirtualTime::Step(kRetryWait);
    EXPECT_EQ(Pushes(), (Seconds(1.0) + kBlock - 1) / kBlock);
}

TEST_F(Reconnecting, TitleAndItsTimeSurvive)
{
    const std::string titled = Interleave(WavBytes(Seconds(1.0)), 8192, {TitleBlock("Kept")});
    PlayScripts({Whole(titled, {"icy-metaint: 8192", "icy-name: First"}),
                 Whole(WavBytes(Seconds(1.0)), {"icy-name: Second"}), NotFound()});
    const std::string time = reports.LastInfo().LastMetadataTime;
    VirtualTime::Step(kRetryWait);
    EXPECT_EQ(reports.LastInfo().NowPlaying, "Kept");
    EXPECT_EQ(reports.LastInfo().LastMetadataTime, time);
    EXPECT_EQ(reports.LastInfo().IcyName, "Second");
}

TEST_F(Reconnecting, HeaderThatDisappearsIsForgotten)
{
    PlayScripts({Whole(WavBytes(4800), {"icy-name: First", "icy-genre: Noise"}),
                 Whole(WavBytes(4800), {"icy-name: Second"}), NotFound()});
    VirtualTime::Step(kRetryWait);
    EXPECT_EQ(reports.LastInfo().IcyName, "Second");
    EXPECT_EQ(reports.LastInfo().IcyGenre, "");
}

TEST_F(Reconnecting, CodecMayChange)
{
    PlayScripts({Whole(Mp3Bytes(1.0)), Whole(Encoded("-c:a aac -f adts", "sine.aac", 1.0)),
                 Whole(Encoded("-c:a libopus -f ogg", "sine.opus", 1.0)), NotFound()});
    const StreamInfo first = reports.LastInfo();
    VirtualTime::Step(kRetryWait);
    const StreamInfo second = reports.LastInfo();
    VirtualTime::Step(kRetryWait);
    EXPECT_THAT((std::vector{first.Codec, second.Codec, reports.LastInfo().Codec}),
                ElementsAre("mp3", "aac", "opus"));
    EXPECT_EQ(reports.Count(StreamState::Playing), 6u);
}

// The sound's frequency does not depend on the connection's own rate.
TEST_F(Reconnecting, RateAndChannelsMayChange)
{
    const std::string mono = Media::Read(
        Media::Make("-f lavfi -i sine=f=1000:d=1:r=22050 -ac 1 -c:a pcm_s16le", "mono.wav"));
    const std::string stereo = Media::Read(
        Media::Make("-f lavfi -i sine=f=1000:d=1:r=44100 -ac 2 -c:a pcm_s16le", "stereo.wav"));
    PlayScripts({Whole(mono), Whole(stereo), NotFound()});
    VirtualTime::Step(kRetryWait);
    for (const auto& sink : VirtualDevice::Sinks())
    {
        EXPECT_NEAR(static_cast<double>(sink->pushed.size()) / 2, 48000.0, 100.0);
        EXPECT_NEAR(static_cast<double>(Periods(sink->pushed)), 1000.0, 3.0);
    }
}
