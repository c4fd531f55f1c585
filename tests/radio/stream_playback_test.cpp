// A connection from its start to its end: reports, start buffer, queue, position and tap.
#include "radio.h"
#include "replaced_answers.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <stdexcept>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr double kStartBuffer = 0.7; // seconds that are queued before anything is heard
constexpr double kQueueLimit = 2.0;  // seconds above which the worker waits
constexpr double kPoll = 0.010;

static_assert(kStartBlocks * kBlockSeconds >= kStartBuffer &&
              (kStartBlocks - 1) * kBlockSeconds < kStartBuffer);

class StreamPlayback : public Radio
{
protected:
    StreamPlayback() { ForgetReleases(); }
    ~StreamPlayback() override { VirtualDevice::FailInit(false); }

    // What the device is to be given where one block was lost, counted from 0.
    static std::vector<float> WavSoundWithout(size_t block, double seconds)
    {
        std::vector<float> sound = WavSound(Seconds(seconds));
        const auto gap = sound.begin() + static_cast<ptrdiff_t>(block * kBlock * 2);
        sound.erase(gap, gap + kBlock * 2);
        return sound;
    }

    double Queued() const { return VirtualDevice::Sinks().back()->QueuedSeconds(); }
};

} // namespace

// --- Starting

TEST_F(StreamPlayback, EmptyUrlStopsWhatPlaysAndReportsNothing)
{
    PlayPcm(Ramp(480000, 2), 48000, 2);
    access.SetLastError("kept");
    VirtualTime::SetFreeRunning(true);
    std::string error = "old";
    EXPECT_FALSE(player.PlayStream("", reports.Callback(), &error));
    EXPECT_EQ(error, "No radio stream URL entered.");
    EXPECT_EQ(player.LastError(), "kept");
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_FALSE(access.HasThread());
    EXPECT_FALSE(access.HasOutput());
    EXPECT_FALSE(player.PlayStream(""));
    EXPECT_THAT(reports.All(), IsEmpty());
}

TEST_F(StreamPlayback, AcceptedUrlClearsBothErrors)
{
    access.SetLastError("of the last playback");
    std::string error = "of the last call";
    ScriptedServer silent({{Stall()}});
    EXPECT_TRUE(player.PlayStream(silent.Url(), {}, &error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(player.LastError(), "");
    EXPECT_TRUE(player.IsPlaying());
    EXPECT_FALSE(player.HasFinished());
}

TEST_F(StreamPlayback, BeginsAtZeroWhateverWasBefore)
{
    access.CurrentSec() = 7.0;
    access.PausedPresentationSec() = 7.0;
    access.QueuedSourceEndSec() = 7.0;
    ScriptedServer silent({{Stall()}});
    player.PlayStream(silent.Url());
    EXPECT_EQ(access.CurrentSec(), 0.0);
    EXPECT_EQ(access.PausedPresentationSec(), 0.0);
    EXPECT_EQ(access.QueuedSourceEndSec(), 0.0);
}

TEST_F(StreamPlayback, PlaysOnAWorkerOfItsOwnWhichReports)
{
    std::atomic<std::thread::id> reporting;
    ScriptedServer missing({NotFound()});
    player.PlayStream(missing.Url(), [&](StreamState, const StreamInfo&, const std::string&)
                      { reporting = std::this_thread::get_id(); });
    VirtualTime::Settle();
    Stop();
    EXPECT_NE(reporting.load(), std::thread::id());
    EXPECT_NE(reporting.load(), std::this_thread::get_id());
}

TEST_F(StreamPlayback, ReportsPlayingTwiceAfterBuffering)
{
    PlayWav(1.2);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: End of file"));
}

TEST_F(StreamPlayback, FirstReportKnowsNothingButTheLimit)
{
    PlayWav(0.1);
    const StreamInfo info = reports.All().at(0).info;
    EXPECT_EQ(info.MaxReconnectAttempts, 300);
    EXPECT_EQ(info.ReconnectAttempt, 0);
    EXPECT_EQ(info.Codec, "");
}

TEST_F(StreamPlayback, BufferingDescribesTheStream)
{
    const std::string wav = WavBytes(4800);
    ScriptedServer radio(
        {Whole(wav, {"Content-Type: audio/x-wav", "icy-name: A Station", "icy-genre: Noise",
                     "icy-br: 3072", "icy-sr: 48000", "icy-url: http://localhost/home",
                     "icy-pub: 1", "icy-notice1: first", "icy-notice2: second"})});
    Play(radio.Url());
    const Report report = reports.All().at(1);
    EXPECT_EQ(report.state, StreamState::Buffering);
    EXPECT_EQ(report.info.Codec, "pcm_f32le");
    EXPECT_EQ(report.info.Format, "WAV / WAVE (Waveform Audio)");
    EXPECT_EQ(report.info.ContentType, "audio/x-wav");
    EXPECT_EQ(report.info.IcyName, "A Station");
    EXPECT_EQ(report.info.IcyGenre, "Noise");
    EXPECT_EQ(report.info.IcyBitrate, "3072");
    EXPECT_EQ(report.info.IcySampleRate, "48000");
    EXPECT_EQ(report.info.IcyUrl, "http://localhost/home");
    EXPECT_EQ(report.info.IcyPublic, "1");
    EXPECT_EQ(report.info.IcyNotice1, "first");
    EXPECT_EQ(report.info.IcyNotice2, "second");
    EXPECT_EQ(report.info.BitRate, 3072000);
    EXPECT_EQ(report.info.SampleRate, 48000);
    EXPECT_EQ(report.info.Channels, 2);
    EXPECT_EQ(report.info.MaxReconnectAttempts, 300);
}

TEST_F(StreamPlayback, PlaysEverySampleOfTheStream)
{
    PlayWav(1.2);
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(1.2)));
}

TEST_F(StreamPlayback, PlaysAPacketOfOneFrame)
{
    PlayScripts({Whole(WavBytes(3 * kBlock + 1)), NotFound()});
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(3 * kBlock + 1));
}

TEST_F(StreamPlayback, EqualizerVolumeSpectrumAndTapSeeTheSound)
{
    std::vector<float> tapped;
    player.SetVolume(0.5);
    player.SetAudioPCMCallback([&](const float* samples, int frames, int, int, long)
                               { tapped.insert(tapped.end(), samples, samples + frames * 2); });
    PlayWav(0.1);
    EXPECT_EQ(tapped, Media::Played(Ramp(4800, 2), 0.5));
    EXPECT_EQ(VirtualDevice::Last().pushed, tapped);
    EXPECT_THAT(player.CopySpectrumSamples(), SizeIs(4800 % kBlock));
}

TEST_F(StreamPlayback, LoudnessTagsCountOnceAConnection)
{
    const std::string flac =
        Encoded("-metadata REPLAYGAIN_TRACK_GAIN='-6.02 dB' -c:a flac", "quiet.flac", 0.3);
    const std::string plain = Encoded("-c:a flac", "plain.flac", 0.3);
    std::vector<float> peaks;
    for (const std::string& bytes : {plain, flac})
    {
        ScriptedServer radio({Whole(bytes), NotFound()});
        Play(radio.Url());
        const std::vector<float> pushed = VirtualDevice::Last().pushed;
        peaks.push_back(*std::max_element(pushed.begin(), pushed.end()));
        Stop();
    }
    EXPECT_NEAR(peaks[1] / peaks[0], 0.5, 0.001);
}

TEST_F(StreamPlayback, PacketsOfOtherStreamsNeverReachTheDecoder)
{
    const std::string both =
        Media::Make("-f lavfi -i testsrc=d=1:s=64x64:r=25 -f lavfi -i "
                    "sine=d=1:r=48000 -ac 2 -c:v mpeg2video -c:a mp2 -f mpegts",
                    "both.ts");
    ScriptedServer radio({Whole(Media::Read(both)), NotFound()});
    const int before = CallCount("avcodec_send_packet");
    Play(radio.Url());
    EXPECT_NEAR(static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate, 1.0, 0.05);
    EXPECT_NEAR(CallCount("avcodec_send_packet") - before, kRate / 1152, 2.0); // an MP2 frame each
}

// --- Start buffer

TEST_F(StreamPlayback, NothingIsHeardBeforeTheStartBufferIsQueued)
{
    PlayWav(1.2);
    const std::vector<std::string> calls = VirtualDevice::Calls("");
    ASSERT_GT(calls.size(), 3 + kStartBlocks);
    EXPECT_EQ(calls[0], "Init 48000 2");
    EXPECT_EQ(calls[1], "SetActive 0");
    for (size_t i = 0; i < kStartBlocks; ++i)
        EXPECT_EQ(calls[2 + i], "Push 512");
    EXPECT_EQ(calls[2 + kStartBlocks], "SetActive 1");
}

TEST_F(StreamPlayback, StreamBelowTheStartBufferIsNeverHeard)
{
    PlayWav(0.69);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0",
                                     "Reconnecting 1 retry 1/300: End of file"));
    EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
}

TEST_F(StreamPlayback, ExactStartBufferIsEnough)
{
    PlayWav(0.7);
    EXPECT_EQ(reports.Count(StreamState::Playing), 2u);
}

TEST_F(StreamPlayback, HeartbeatRepeatsBufferingOnceASecond)
{
    player.SetAudioPCMCallback([](const float*, int, int, int, long)
                               { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    PlayWav(0.69); // 65 blocks of 20 ms
    ASSERT_TRUE(StepToRetry(1));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Buffering 0",
                                     "Reconnecting 1 retry 1/300: End of file"));
    EXPECT_NEAR(reports.All()[2].at - reports.All()[1].at, 1.0, 0.02);
}

// --- Queue

TEST_F(StreamPlayback, QueueIsFilledJustAboveItsLimit)
{
    PlayWav(4.0);
    EXPECT_GT(Queued(), kQueueLimit);
    EXPECT_LE(Queued(), kQueueLimit + kBlockSeconds);
}

TEST_F(StreamPlayback, QueueOfExactlyItsLimitTakesOneMoreBlock)
{
    constexpr int kFrames = 4800; // twenty of them are the limit
    const std::string bytes = Encoded("-c:a flac -frame_size " + std::to_string(kFrames) +
                                          " -strict experimental -f flac",
                                      "tenths.flac", 4.0);
    PlayScripts({Whole(bytes), NotFound()});
    ASSERT_EQ(VirtualDevice::Last().pushedFrames.front(), kFrames);
    EXPECT_DOUBLE_EQ(Queued(), kQueueLimit + kFrames / kRate);
}

TEST_F(StreamPlayback, FullQueueIsPolledEveryTenMilliseconds)
{
    PlayWav(4.0);
    const size_t before = Pushes();
    const double polls = std::ceil((Queued() - kQueueLimit) / kPoll);
    VirtualTime::Step(polls * kPoll - 0.001);
    EXPECT_EQ(Pushes(), before);
    VirtualTime::Step(0.001);
    EXPECT_GT(Pushes(), before);
}

TEST_F(StreamPlayback, QueueNeverRunsDryNorOver)
{
    PlayWav(6.0);
    for (int i = 0; i < 300; ++i)
    {
        VirtualTime::Step(kPoll);
        ASSERT_LE(Queued(), kQueueLimit + kBlockSeconds);
        ASSERT_GT(Queued(), kQueueLimit - kPoll - kBlockSeconds);
    }
    const std::vector<float> heard = VirtualDevice::Last().heard;
    const std::vector<float> sound = WavSound(Seconds(6.0));
    ASSERT_GE(heard.size(), size_t{2} * Seconds(2.9));
    EXPECT_TRUE(std::equal(heard.begin(), heard.end(), sound.begin()));
}

TEST_F(StreamPlayback, HeartbeatComesOnceASecond)
{
    PlayWav(8.0);
    VirtualTime::Step(5.5);
    const std::vector<Report> all = reports.All();
    ASSERT_THAT(all, SizeIs(9)); // Connecting, Buffering, Playing twice, five heartbeats
    for (size_t i = 4; i < all.size(); ++i)
    {
        EXPECT_EQ(all[i].state, StreamState::Playing);
        EXPECT_EQ(all[i].text, "");
        EXPECT_GE(all[i].at - all[i - 1].at, 1.0 - 1e-9);
        EXPECT_LE(all[i].at - all[i - 1].at, 1.0 + kPoll + kBlockSeconds);
    }
    // Where a packet is read after just that time, at once.
    EXPECT_TRUE(std::adjacent_find(all.begin() + 3, all.end(),
                                   [](const Report& last, const Report& next)
                                   { return next.at - last.at < 1.0 + 1e-6; }) != all.end());
}

// A slow stream: the sink is left running, so that the sound comes back by itself.
TEST_F(StreamPlayback, EmptyQueueIsNoReasonToBufferAgain)
{
    int block = 0;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            if (++block > 70)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        });
    PlayWav(1.5); // 70 blocks at once, 70 of 50 ms: dry after about a second
    ASSERT_TRUE(StepUntil([&] { return reports.LastInfo().ReconnectAttempt == 1; }));
    EXPECT_EQ(reports.Count(StreamState::Buffering), 1u);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 0", "SetActive 1",
                                                    "SetActive 0", "Clear", "Destroy", "delete"));
}

// --- Position

TEST_F(StreamPlayback, PositionIsZeroWithUnknownDuration)
{
    PlayWav(4.0);
    VirtualTime::Step(1.5);
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
    player.SetPaused(true);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
}

TEST_F(StreamPlayback, PositionOfTheQueueRunsInside)
{
    PlayWav(1.2);
    EXPECT_NEAR(access.QueuedSourceEndSec(), 1.2, 1e-9);
    EXPECT_NEAR(access.CurrentSec(), 1.2, 1e-9);
}

TEST_F(StreamPlayback, SeeksAreIgnored)
{
    PlayWav(4.0);
    access.SeekTargetSec() = 42.0;
    const size_t pushes = Pushes();
    player.SeekToSeconds(1.0);
    player.SeekToFraction(0.5);
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_EQ(access.SeekTargetSec(), 42.0);
    VirtualTime::Step(0.1);
    EXPECT_GT(Pushes(), pushes);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
}

TEST_F(StreamPlayback, EveryConnectionResetsTheClock)
{
    const auto fields = [this]
    {
        return std::vector<std::atomic<double>*>{&access.DurationSec(),
                                                 &access.CurrentSec(),
                                                 &access.PausedPresentationSec(),
                                                 &access.QueuedSourceEndSec(),
                                                 &access.PlaybackClockSourceSec(),
                                                 &access.PlaybackClockPresentedSec()};
    };
    std::vector<double> seen;
    uint64_t anchor = 0;
    ScriptedServer radio({NotFound(), Whole(WavBytes(4800)), NotFound()});
    player.PlayStream(radio.Url(),
                      [&](StreamState state, const StreamInfo&, const std::string&)
                      {
                          for (std::atomic<double>* field : fields())
                          {
                              if (state == StreamState::Buffering)
                                  seen.push_back(*field);
                              *field = 7.0;
                          }
                          if (state == StreamState::Buffering)
                              anchor = access.PlaybackClockHostMs();
                          access.PlaybackClockHostMs() = 7;
                      });
    VirtualTime::Settle();
    VirtualTime::Step(2.0);
    const uint64_t now = Internals::AudioClockMs();
    Stop();
    EXPECT_THAT(seen, ElementsAre(0.0, 0.0, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(anchor, now);
}

TEST_F(StreamPlayback, ClockIsAnchoredWhenTheSoundStarts)
{
    std::atomic<uint64_t> anchor = 0;
    std::atomic<uint64_t> expected = 0;
    ScriptedServer radio({Whole(WavBytes(Seconds(1.2))), NotFound()});
    player.SetAudioPCMCallback([](const float*, int, int, int, long)
                               { std::this_thread::sleep_for(std::chrono::milliseconds(2)); });
    player.PlayStream(radio.Url(),
                      [&](StreamState state, const StreamInfo&, const std::string&)
                      {
                          if (state != StreamState::Playing || anchor != 0)
                              return;
                          anchor = access.PlaybackClockHostMs().load();
                          expected = Internals::AudioClockMs();
                      });
    EXPECT_TRUE(StepUntil([&] { return anchor != 0; }));
    Stop();
    EXPECT_EQ(anchor, expected);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
}

// --- Tap

TEST_F(StreamPlayback, TapIsToldTheEndOfEachBlock)
{
    std::vector<long> times;
    std::vector<int> formats;
    player.SetAudioPCMCallback(
        [&](const float*, int frames, int rate, int channels, long timeUs)
        {
            times.push_back(timeUs);
            formats = {frames, rate, channels};
        });
    PlayWav(kBlockSeconds * 20);
    EXPECT_THAT(formats, ElementsAre(512, 48000, 2));
    ASSERT_THAT(times, SizeIs(20));
    for (size_t i = 0; i < times.size(); ++i)
        EXPECT_EQ(times[i], std::llround(static_cast<double>(i + 1) * kBlockSeconds * 1e6)) << i;
}

TEST_F(StreamPlayback, TapTimeStartsAnewOnEveryConnection)
{
    std::vector<long> times;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long timeUs)
                               { times.push_back(timeUs); });
    ScriptedServer radio({Whole(WavBytes(2 * kBlock)), Whole(WavBytes(2 * kBlock)), NotFound()});
    Play(radio.Url());
    VirtualTime::Step(2.0);
    EXPECT_THAT(times, ElementsAre(10667, 21333, 10667, 21333));
}

// --- Callback

TEST_F(StreamPlayback, EmptyCallbackIsNoObstacle)
{
    ScriptedServer radio({Whole(WavBytes(Seconds(1.2))), NotFound()});
    ASSERT_TRUE(player.PlayStream(radio.Url()));
    VirtualTime::Settle();
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(1.2)));
    EXPECT_TRUE(VirtualDevice::Last().bDeleted);
}

TEST_F(StreamPlayback, ThrowingCallbackDisturbsNothing)
{
    ScriptedServer radio({Whole(WavBytes(Seconds(1.2))), NotFound()});
    const auto report = reports.Callback();
    player.PlayStream(radio.Url(),
                      [&](StreamState state, const StreamInfo& info, const std::string& text)
                      {
                          report(state, info, text);
                          if (state == StreamState::Buffering)
                              throw 42;
                          throw std::runtime_error("a faulty host");
                      });
    VirtualTime::Settle();
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(1.2)));
    Stop();
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: End of file", "Stopped 1"));
}

TEST_F(StreamPlayback, StopLetsGoOfTheCallbacksCaptures)
{
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> alive = token;
    ScriptedServer radio({Whole(WavBytes(4800)), NotFound()});
    player.PlayStream(radio.Url(), [kept = std::move(token)](StreamState, const StreamInfo&,
                                                             const std::string&) { (void)kept; });
    VirtualTime::Settle();
    EXPECT_FALSE(alive.expired());
    Stop();
    EXPECT_TRUE(alive.expired());
}

// --- Failures within a connection

TEST_F(StreamPlayback, RefusedPacketIsDroppedWithoutAWord)
{
    const FailingCall failing("avcodec_send_packet", AVERROR_INVALIDDATA, 10);
    PlayWav(1.2);
    EXPECT_TRUE(failing.Happened());
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSoundWithout(10, 1.2));
    EXPECT_EQ(player.LastError(), "");
}

namespace
{

class StreamConversion : public StreamPlayback, public testing::WithParamInterface<int>
{
};

} // namespace

TEST_P(StreamConversion, WithoutSoundCostsOneFrameAndNoWord)
{
    const ConversionAnswer answer(GetParam(), 10);
    PlayWav(1.2);
    EXPECT_TRUE(answer.Happened());
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSoundWithout(10, 1.2));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_EQ(player.LastError(), "");
}

INSTANTIATE_TEST_SUITE_P(Answers, StreamConversion,
                         testing::Values(0, AVERROR(EINVAL), AVERROR(ENOMEM)));

TEST_F(StreamPlayback, DecodeErrorEndsAsAStopWithItsText)
{
    const FailingCall failing("avcodec_receive_frame", AVERROR_INVALIDDATA, 10);
    PlayWav(1.2);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Stopped 0"));
    EXPECT_EQ(player.LastError(), "Radio decode failed: Invalid data found when processing input");
    EXPECT_TRUE(player.HasFinished());
    EXPECT_TRUE(player.IsStopRequestedForInterrupt());
    EXPECT_FALSE(access.HasOutput());
}

// What FFmpeg makes of PCM that breaks off inside a frame.
TEST_F(StreamPlayback, HalfAFrameOfPcmIsADecodeError)
{
    std::string wav = WavBytes(Seconds(1.0));
    wav.resize(wav.size() - 3);
    ScriptedServer radio({Whole(wav), NotFound()});
    Play(radio.Url());
    EXPECT_THAT(Lines(),
                ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0", "Stopped 0"));
    EXPECT_EQ(player.LastError(), "Radio decode failed: Invalid data found when processing input");
}

TEST_F(StreamPlayback, StopInAFrameEndsWithThatFrame)
{
    InBlock(5, [this] { player.RequestStop(); });
    PlayWav(1.2);
    EXPECT_EQ(Pushes(), 5u);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Stopped 0"));
}

TEST_F(StreamPlayback, EndOfTheDecoderIsNoError)
{
    const FailingCall failing("avcodec_receive_frame", AVERROR_EOF, 10);
    PlayWav(1.2);
    EXPECT_TRUE(failing.Happened());
    EXPECT_EQ(reports.Count(StreamState::Stopped), 0u);
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(StreamPlayback, SinkThatCannotBeOpenedIsFinal)
{
    VirtualDevice::FailInit(true);
    std::vector<std::string> before; // the decoder is released
    const DuringCall release("swr_free", 0, [&] { before = VirtualDevice::Calls(); });
    PlayWav(1.2);
    EXPECT_THAT(before, ElementsAre("Init 48000 2"));
    EXPECT_THAT(Lines(),
                ElementsAre("Connecting 0", "Error 0 Failed to initialize PipeWire audio output."));
    EXPECT_EQ(player.LastError(), "Failed to initialize PipeWire audio output.");
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "delete"));
    EXPECT_THAT(Releases(),
                ElementsAre("swr_free", "avcodec_free_context", "avformat_close_input"));
    EXPECT_TRUE(player.HasFinished());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_FALSE(access.HasOutput());
}

namespace
{

class StreamPlaybackAllocation : public StreamPlayback,
                                 public testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_P(StreamPlaybackAllocation, FailureIsFinalAndLeavesTheSinkInactive)
{
    const FailingCall failing(GetParam());
    PlayWav(1.2);
    EXPECT_THAT(Lines(),
                ElementsAre("Connecting 0", "Error 0 Failed to allocate FFmpeg radio buffers."));
    EXPECT_EQ(player.LastError(), "Failed to allocate FFmpeg radio buffers.");
    EXPECT_TRUE(player.HasFinished());
    EXPECT_TRUE(access.HasOutput());
    EXPECT_FALSE(VirtualDevice::Last().bActive);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 0"));
    Stop();
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 0", "SetActive 0",
                                                    "Clear", "Destroy", "delete"));
}

INSTANTIATE_TEST_SUITE_P(Buffers, StreamPlaybackAllocation,
                         testing::Values("av_frame_alloc", "av_packet_alloc"),
                         [](const auto& function) { return std::string(function.param); });

// Streams that end at once, every time, with errors that FFmpeg has no text for.
TEST_F(StreamPlayback, EndWithoutAReasonSaysThatTheStreamEnded)
{
    const NoErrorTexts noTexts;
    PlayScripts({Whole(WavBytes(kBlock))});
    RunToEnd();
    EXPECT_EQ(Lines().back(), "Error 300 Radio stream ended.");
    EXPECT_EQ(player.LastError(), "");
}
