// The decode thread: set-up, loop, position, seeking, pause, end and failures, in stepped time.
#include "media.h"
#include "playback.h"
#include "wrapped_calls.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::Not;
using testing::SizeIs;

namespace
{

constexpr size_t kBlock = 512; // frames of a packet of a 48000 Hz stereo float WAV file
constexpr double kRate = 48000.0;

// A WAV file of this length at the output's own rate: every packet is one push, bit for bit.
std::string Wav(size_t frames)
{
    return Media::WriteWav("ramp.wav", Ramp(frames, 2));
}

// The part of the same file's sound from one frame to another, as it is to be pushed.
std::vector<float> Sound(size_t from, size_t to)
{
    const std::vector<float> all = Media::Played(Ramp(to, 2));
    return {all.begin() + static_cast<ptrdiff_t>(from * 2), all.end()};
}

std::vector<float> operator+(std::vector<float> first, const std::vector<float>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// A file whose length nobody knows, in blocks of 4608 frames.
std::string Endless()
{
    return Media::Make("-f lavfi -i sine=d=1:r=48000 -ac 2 -c:a flac -f matroska -live 1",
                       "endless.mkv");
}

class FilePlayback : public Playback
{
protected:
    FilePlayback()
    {
        VirtualDevice::ForgetCalls();
        ForgetReleases();
    }
    ~FilePlayback() override { VirtualDevice::FailInit(false); }

    size_t Pushes() const { return VirtualDevice::Last().pushedFrames.size(); }
    std::vector<float> Pushed() const { return VirtualDevice::Last().pushed; }

    // What was pushed after this many pushes.
    std::vector<float> PushedSince(size_t pushes) const
    {
        const std::vector<float> all = Pushed();
        return {all.begin() + static_cast<ptrdiff_t>(pushes * kBlock * 2), all.end()};
    }

    // Plays a file that pauses with its first block, so that the worker waits for the end of the
    // pause with the second one in its hands and a queue that is nearly empty.
    void PlayPaused(const std::string& path)
    {
        player.SetAudioPCMCallback(
            [this](const float*, int, int, int, long)
            {
                while (!player.IsPlaying())
                    std::this_thread::yield();
                player.SetPaused(true);
                player.SetAudioPCMCallback({});
            });
        PlayFile(path);
        ASSERT_EQ(Pushes(), 1u);
    }

    void Resume() { player.SetPaused(false); }
};

} // namespace

// --- Set-up

TEST_F(FilePlayback, OpensTheSinkForTheOutputAndStartsIt)
{
    PlayFile(Wav(96000));
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1"));
}

TEST_F(FilePlayback, ForgetsTheCallersOldMessage)
{
    std::string error = "old";
    EXPECT_TRUE(player.PlayFile(Wav(960), &error));
    EXPECT_EQ(error, "");
}

TEST_F(FilePlayback, KnowsTheDurationFromTheStream)
{
    PlayFile(Wav(96000));
    EXPECT_EQ(player.DurationSeconds(), 2.0);
}

// The film goes on after its sound.
TEST_F(FilePlayback, TakesTheStreamsDurationBeforeTheContainers)
{
    PlayFile(Media::Make("-f lavfi -i testsrc=d=2:s=64x64 -f lavfi -i sine=d=1:r=48000 "
                         "-c:v mpeg4 -c:a aac",
                         "longer.mp4"));
    EXPECT_DOUBLE_EQ(player.DurationSeconds(), 1.0);
}

TEST_F(FilePlayback, KnowsTheDurationFromTheContainer)
{
    const std::string path = Media::Make("-f lavfi -i sine=d=0.7:r=48000 -c:a flac", "length.mka");
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    int index = 0;
    ASSERT_TRUE(access.OpenDecoder(path, nullptr, &format, &codec, &index, nullptr));
    EXPECT_EQ(format->streams[index]->duration, AV_NOPTS_VALUE);
    avcodec_free_context(&codec);
    avformat_close_input(&format);

    PlayFile(path);
    EXPECT_DOUBLE_EQ(player.DurationSeconds(), 0.7);
}

TEST_F(FilePlayback, TakesAnUnknownDurationAsZero)
{
    PlayFile(Endless());
    VirtualTime::Step(0.25);
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
}

// Through a pipe the worker can be held between the start and its first look at the file.
TEST_F(FilePlayback, AnchorsTheClockOnceTheSinkIsInstalled)
{
    const std::string path = Media::MakePipe("anchor.wav");
    player.PlayFile(path);
    {
        std::ofstream pipe(path, std::ios::binary); // opens when the worker has opened
        access.PausedPresentationSec() = 7.0;
        access.PlaybackClockSourceSec() = 7.0;
        access.PlaybackClockPresentedSec() = 7.0;
        access.PlaybackClockHostMs() = 7;
        pipe << Media::Wav(Ramp(4800, 2), 48000, 2);
    }
    VirtualTime::Settle();
    EXPECT_EQ(access.PausedPresentationSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), static_cast<uint64_t>(VirtualTime::NowNs() / 1000000));
}

TEST_F(FilePlayback, PlaysAFileOverTheLimitFromTheDiskWithoutAWord)
{
    const uint64_t size = 536870912 + 1;
    std::string bytes = Media::Wav(Ramp(24000, 2), 48000, 2) + "JUNK";
    const auto rest = static_cast<uint32_t>(size - bytes.size() - 4);
    bytes.append(reinterpret_cast<const char*>(&rest), 4);
    const std::string path = Media::WriteSparse("large.wav", bytes, size);
    TovrelAudioCachedFileInput cache;
    ASSERT_FALSE(access.LoadFileIntoCache(path, cache, nullptr));

    PlayFile(path);
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 24000));
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(FilePlayback, NeedsTheFileNoMoreOnceItPlays)
{
    const std::string path = Wav(96000);
    PlayFile(path);
    std::filesystem::remove(path);
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 96000));
}

// --- Set-up fails

namespace
{

struct BadFile
{
    const char* name;
    std::string (*make)();
    const char* message;
};

void PrintTo(const BadFile& file, std::ostream* out)
{
    *out << file.name;
}

class UnplayableFile : public FilePlayback, public testing::WithParamInterface<BadFile>
{
};

} // namespace

TEST_P(UnplayableFile, TellsWhyAndMakesNoSink)
{
    const size_t sinks = VirtualDevice::Sinks().size();
    PlayFile(GetParam().make());
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.LastError(), GetParam().message);
    EXPECT_EQ(player.DurationSeconds(), 0.0);
    EXPECT_THAT(VirtualDevice::Sinks(), SizeIs(sinks));
    EXPECT_THAT(VirtualDevice::Calls(""), IsEmpty());
}

TEST_P(UnplayableFile, KeepsTheNextOneFromNothing)
{
    PlayFile(GetParam().make());
    PlayFile(Wav(9600));
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 9600));
    EXPECT_EQ(player.LastError(), "");
}

static const BadFile kBadFiles[] = {
    {"Missing", [] { return std::string("/nonexistent/file.mp3"); },
     "Failed to open audio file: No such file or directory"},
    {"NoName", [] { return std::string(); },
     "Failed to open audio file: No such file or directory"},
    {"Directory", [] { return Media::Directory().string(); },
     "Failed to open audio file: Is a directory"},
    {"Empty", [] { return Media::Write("empty.wav", ""); },
     "Failed to open audio file: Invalid data found when processing input"},
    {"Garbage", [] { return Media::Write("garbage.wav", std::string(5000, 'x')); },
     "Failed to open audio file: Invalid data found when processing input"},
    {"CutInTheHeader",
     [] { return Media::Write("header.wav", Media::Wav({}, 48000, 2).substr(0, 20)); },
     "Failed to open audio file: Invalid data found when processing input"},
    {"WithoutIndex",
     []
     {
         const std::string whole =
             Media::Read(Media::Make("-f lavfi -i sine=d=0.5:r=48000", "index.m4a"));
         return Media::Write("cut.m4a", whole.substr(0, whole.size() / 2));
     },
     "Failed to open audio file: Invalid data found when processing input"},
    {"Picture",
     [] { return Media::Make("-f lavfi -i testsrc=d=0.04:s=64x64 -frames:v 1", "picture.png"); },
     "No audio stream found."},
    {"SilentFilm", [] { return Media::Make("-f lavfi -i testsrc=d=0.2:s=64x64", "silent.mkv"); },
     "No audio stream found."},
    {"NoChannels", [] { return Media::WriteWav("none.wav", Ramp(9600, 2), 48000, 0); },
     "No audio stream found."},
    {"UnknownCodec",
     [] { return Media::Write("codec.wav", Media::Wav(Ramp(9600, 2), 48000, 2, 0x1234)); },
     "No decoder available for this audio stream."},
    {"TooManyChannelsForTheDecoder",
     [] { return Media::Write("adpcm.wav", Media::Wav(Ramp(9600, 3), 48000, 3, 0x11)); },
     "Failed to open audio decoder: Invalid argument"},
    {"NineChannels", [] { return Media::WriteWav("nine.wav", Ramp(4800, 9), 48000, 9); },
     "Failed to initialize audio resampler: Invalid argument"},
    {"SeventeenChannels", [] { return Media::WriteWav("more.wav", Ramp(4800, 17), 48000, 17); },
     "Failed to initialize audio resampler: Invalid argument"},
    {"AbsurdRate", [] { return Media::WriteWav("rate.wav", Ramp(4800, 2), INT32_MAX, 2); },
     "Failed to initialize audio resampler: Cannot allocate memory"},
    {"NoRate", [] { return Media::WriteWav("zero.wav", Ramp(4800, 2), 0, 2); },
     "Failed to open audio file: Invalid data found when processing input"},
};
INSTANTIATE_TEST_SUITE_P(All, UnplayableFile, testing::ValuesIn(kBadFiles),
                         [](const auto& testInfo) { return testInfo.param.name; });

TEST_F(FilePlayback, TellsThatAFileIsNotTheUsers)
{
    const std::string path = Wav(960);
    chmod(path.c_str(), 0);
    const uid_t user = geteuid();
    ASSERT_EQ(seteuid(user == 0 ? 65534 : user), 0); // nothing is forbidden to root
    PlayFile(path);
    ASSERT_EQ(seteuid(user), 0);
    chmod(path.c_str(), 0600);
    EXPECT_EQ(player.LastError(), "Failed to open audio file: Permission denied");
}

TEST_F(FilePlayback, ReleasesDecoderAndDemuxerWhereThereIsNoResampler)
{
    const FailingCall failing("swr_alloc_set_opts2", AVERROR(ENOMEM));
    PlayFile(Wav(960));
    EXPECT_EQ(player.LastError(), "Failed to allocate audio resampler.");
    EXPECT_THAT(Releases(), ElementsAre("avcodec_free_context", "avformat_close_input"));
    EXPECT_THAT(VirtualDevice::Calls(""), IsEmpty());
}

TEST_F(FilePlayback, DestroysASinkThatDoesNotOpen)
{
    VirtualDevice::FailInit(true);
    std::vector<std::string> before; // the rest is released
    const DuringCall release("swr_free", 0, [&] { before = VirtualDevice::Calls(); });
    PlayFile(Wav(960));
    EXPECT_EQ(player.LastError(), "Failed to initialize PipeWire audio output.");
    EXPECT_FALSE(access.HasOutput());
    EXPECT_THAT(before, ElementsAre("Init 48000 2", "delete"));
    EXPECT_THAT(Releases(),
                ElementsAre("swr_free", "avcodec_free_context", "avformat_close_input"));
}

TEST_F(FilePlayback, KeepsTheSinkAndNeverStopsItWhereThereIsNoFrame)
{
    const FailingCall failing("av_frame_alloc");
    PlayFile(Wav(960));
    EXPECT_EQ(player.LastError(), "Failed to allocate FFmpeg audio buffers.");
    EXPECT_TRUE(access.HasOutput());
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1"));
    EXPECT_THAT(Releases(), ElementsAre("av_packet_free", "swr_free", "avcodec_free_context",
                                        "avformat_close_input"));
}

TEST_F(FilePlayback, KeepsTheSinkAndNeverStopsItWhereThereIsNoPacket)
{
    const FailingCall failing("av_packet_alloc");
    PlayFile(Wav(960));
    EXPECT_EQ(player.LastError(), "Failed to allocate FFmpeg audio buffers.");
    EXPECT_TRUE(access.HasOutput());
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1"));
    EXPECT_THAT(Releases(), ElementsAre("av_frame_free", "swr_free", "avcodec_free_context",
                                        "avformat_close_input"));
}

// --- Pushing

TEST_F(FilePlayback, PushesEveryFrameOnceAndInOrder)
{
    PlayFile(Wav(96001));
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 96001));
}

TEST_F(FilePlayback, PushesOncePerDecodedFrame)
{
    const std::string path = Media::Make("-f lavfi -i sine=d=0.5:r=44100", "push.mp3");
    const int sent = CallCount("avcodec_send_packet");
    const int received = CallCount("avcodec_receive_frame");
    PlayFile(path);
    RunToEnd();
    // Every run of frames ends with one call that gives none.
    const int frames =
        CallCount("avcodec_receive_frame") - received - (CallCount("avcodec_send_packet") - sent);
    EXPECT_EQ(static_cast<int>(Pushes()), frames);
}

TEST_F(FilePlayback, StopsPushingAboveHalfASecond)
{
    PlayFile(Wav(96000));
    EXPECT_EQ(Pushes(), 47u); // of 512 frames: 46 are 0.491 s, 47 are 0.501 s
    VirtualTime::Step(0.0079);
    EXPECT_EQ(Pushes(), 47u);
}

TEST_F(FilePlayback, LooksAtTheQueueEvery8Milliseconds)
{
    PlayFile(Wav(96000));
    VirtualTime::Step(0.008);
    EXPECT_EQ(Pushes(), 48u);
    VirtualTime::Step(0.0079);
    EXPECT_EQ(Pushes(), 48u);
    VirtualTime::Step(0.0001);
    EXPECT_EQ(Pushes(), 49u);
}

TEST_F(FilePlayback, DoesNotWaitAtExactlyHalfASecond)
{
    PlayFile(
        Media::Make("-f lavfi -i sine=d=2:r=48000 -ac 2 -c:a flac -frame_size 4800", "half.flac"));
    EXPECT_EQ(VirtualDevice::Last().QueuedSeconds(), 0.6);
}

TEST_F(FilePlayback, NeverLetsTheQueueRunEmpty)
{
    PlayFile(Wav(96000));
    for (int i = 0; i < 150; ++i)
    {
        VirtualTime::Step(0.01);
        EXPECT_GT(VirtualDevice::Last().QueuedSeconds(), 0.45);
        EXPECT_LT(VirtualDevice::Last().QueuedSeconds(), 0.52);
    }
}

TEST_F(FilePlayback, SkipsPacketsOfOtherStreams)
{
    const std::string path = Media::Make("-f lavfi -i testsrc=d=0.3:s=64x64 -f lavfi "
                                         "-i sine=d=0.3:r=48000 -c:a flac -frame_size 4800",
                                         "film.mkv");
    const int sent = CallCount("avcodec_send_packet");
    PlayFile(path);
    RunToEnd();
    EXPECT_EQ(CallCount("avcodec_send_packet") - sent, 3 + 1); // the last one is the drain
    EXPECT_EQ(VirtualDevice::Last().pushedFrames, (std::vector<size_t>{4800, 4800, 4800}));
}

TEST_F(FilePlayback, LetsItsBufferGrowAndNeverShrink)
{
    PlayFile(Media::Make("-f lavfi -i sine=d=0.5:r=48000 -ac 2 -c:a flac -frame_size 4800",
                         "frames.flac"));
    RunToEnd();
    EXPECT_THAT(access.ResampleBuffer(), SizeIs(9600));
    const float* memory = access.ResampleBuffer().data();
    PlayFile(Wav(9600));
    RunToEnd();
    EXPECT_THAT(access.ResampleBuffer(), SizeIs(9600));
    EXPECT_EQ(access.ResampleBuffer().data(), memory);
    EXPECT_EQ(Pushed(), Sound(0, 9600));
}

TEST_F(FilePlayback, AppliesTheGainOfTheTags)
{
    const std::string path =
        Media::Make("-i '" + Wav(9600) + "' -c:a pcm_f32le -metadata REPLAYGAIN_TRACK_GAIN='-6 dB'",
                    "gain.mka");
    PlayFile(path);
    RunToEnd();
    EXPECT_EQ(Pushed(), Media::Played(Ramp(9600, 2), std::pow(10.0, -6.0 / 20.0)));
}

TEST_F(FilePlayback, TakesEqualizerThenVolumeForEachBlock)
{
    player.SetEqualizerBandGain(5, 6.0);
    player.SetVolume(0.5);
    std::vector<float> expected = Ramp(960, 2);
    std::thread([&] { access.ApplyEqualizer(expected.data(), 960, 2, 48000); }).join();
    access.ApplyGainAndPan(expected.data(), 960, 2, 1.0);
    PlayFile(Wav(960));
    RunToEnd();
    EXPECT_EQ(Pushed(), expected);
}

TEST_F(FilePlayback, CapturesTheSpectrumOfWhatItPushes)
{
    PlayFile(Wav(kBlock));
    const std::vector<float> pushed = Pushed();
    std::vector<float> mono;
    for (size_t i = 0; i < pushed.size(); i += 2)
        mono.push_back((pushed[i] + pushed[i + 1]) / 2.0f);
    EXPECT_EQ(player.CopySpectrumSamples(), mono);
}

// --- The tap

TEST_F(FilePlayback, TapsEachBlockJustBeforeItsPush)
{
    std::vector<float> tapped;
    std::vector<size_t> pushedBefore;
    std::vector<long> times;
    player.SetAudioPCMCallback(
        [&](const float* samples, int frames, int rate, int channels, long ptsUs)
        {
            EXPECT_EQ(rate, 48000);
            EXPECT_EQ(channels, 2);
            tapped.insert(tapped.end(), samples, samples + frames * channels);
            pushedBefore.push_back(Pushes());
            times.push_back(ptsUs);
        });
    player.SetVolume(0.25);
    PlayFile(Wav(3 * kBlock));
    RunToEnd();
    EXPECT_EQ(tapped, Pushed());
    EXPECT_THAT(pushedBefore, ElementsAre(0, 1, 2));
    EXPECT_THAT(times, ElementsAre(0, 10667, 21333)); // 512 frames are 10666.7 microseconds
}

TEST_F(FilePlayback, TellsTheTapTheTimeAfterASeek)
{
    PlayFile(Wav(96000));
    std::vector<long> times;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long us) { times.push_back(us); });
    player.SeekToSeconds(1.25);
    VirtualTime::Step(0.008);
    ASSERT_THAT(times, Not(IsEmpty()));
    EXPECT_EQ(times[0], 1250000);
}

TEST_F(FilePlayback, PushesTheBlockInWhichTheTapAsksForTheStopAndNoMore)
{
    int blocks = 0;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            if (++blocks == 3)
                player.RequestStop();
        });
    PlayFile(Wav(96000));
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(Pushed(), Sound(0, 3 * kBlock));
}

// --- Position

TEST_F(FilePlayback, RunsWithTheClock)
{
    PlayFile(Wav(96000));
    VirtualTime::Step(0.25);
    EXPECT_DOUBLE_EQ(player.CurrentSeconds(), 0.25);
}

TEST_F(FilePlayback, AnchorsTheClockOnlyAtTheStart)
{
    PlayFile(Wav(96000));
    const uint64_t anchor = access.PlaybackClockHostMs();
    VirtualTime::Step(1.0);
    EXPECT_EQ(access.PlaybackClockHostMs(), anchor);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
}

TEST_F(FilePlayback, KeepsTheEndOfWhatIsQueued)
{
    PlayFile(Wav(96000));
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), 47 * kBlock / kRate);
}

// All frames claim to begin at 0.5 s, so that taken and pushed can be told apart.
TEST_F(FilePlayback, StandsAtAFramesStartWhenItIsTakenAndAtItsEndOnceItIsPushed)
{
    const ChangedFrameTimes times(24000, 24000);
    std::vector<double> inTap;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long)
                               { inTap.push_back(access.CurrentSec()); });
    PlayFile(Wav(96000));
    EXPECT_THAT(inTap, Each(0.5));
    EXPECT_EQ(access.CurrentSec(), 0.5); // the next one is taken, and waits
    RunToEnd();
    EXPECT_DOUBLE_EQ(access.CurrentSec(), 0.5 + 256 / kRate); // the last one is half a block
}

TEST_F(FilePlayback, StandsAtTheEndAfterANaturalEnd)
{
    PlayFile(Wav(24000));
    RunToEnd();
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_EQ(player.CurrentSeconds(), 0.5);
}

TEST_F(FilePlayback, NeverStandsPastTheDuration)
{
    const ChangedFrameTimes times(48000 * 5, 0);
    PlayFile(Wav(24000));
    RunToEnd();
    EXPECT_EQ(access.CurrentSec(), 0.5);
    EXPECT_GT(access.QueuedSourceEndSec(), 5.0);
}

TEST_F(FilePlayback, StandsAtTheLastFramesStartWhereTheDurationIsUnknown)
{
    PlayFile(Endless());
    RunToEnd();
    EXPECT_DOUBLE_EQ(access.CurrentSec(), 0.96); // of ten frames of 0.096 s and a short one
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), 1.0);
}

TEST_F(FilePlayback, TakesTheFramesOwnTimeWhereTheBestEffortIsUnknown)
{
    const ChangedFrameTimes times(AV_NOPTS_VALUE, 12000);
    PlayFile(Wav(96000));
    EXPECT_EQ(access.CurrentSec(), 0.25);
}

TEST_F(FilePlayback, TakesTheBestEffortBeforeTheFramesOwnTime)
{
    const ChangedFrameTimes times(12000, 36000);
    PlayFile(Wav(96000));
    EXPECT_EQ(access.CurrentSec(), 0.25);
}

TEST_F(FilePlayback, CountsOnWhereFramesCarryNoTime)
{
    const ChangedFrameTimes times(AV_NOPTS_VALUE, AV_NOPTS_VALUE);
    PlayFile(Wav(24000));
    RunToEnd();
    EXPECT_DOUBLE_EQ(access.CurrentSec(), 0.5);
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), 0.5);
}

TEST_F(FilePlayback, TakesATimeBeforeTheStartAsTheStart)
{
    const ChangedFrameTimes times(-4800, -4800);
    long last = -1;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long us) { last = us; });
    PlayFile(Wav(96000));
    EXPECT_EQ(access.CurrentSec(), 0.0);
    EXPECT_EQ(last, 0);
    EXPECT_DOUBLE_EQ(access.QueuedSourceEndSec(), kBlock / kRate);
}

TEST_F(FilePlayback, TellsTheTapOfNoTimeThatMicrosecondsCannotTell)
{
    const ChangedFrameTimes times(INT64_MAX, INT64_MAX); // in steps of a millisecond
    long earliest = LONG_MAX;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long us)
                               { earliest = std::min(earliest, us); });
    PlayFile(Media::Make("-f lavfi -i sine -t 0.5 -c:a pcm_s16le", "far.mka"));
    RunToEnd();
    EXPECT_EQ(earliest, 9000000000000000000);
}

// --- Pause

TEST_F(FilePlayback, PushesNothingWhilePaused)
{
    PlayPaused(Wav(96000));
    VirtualTime::Step(3.0);
    EXPECT_EQ(Pushes(), 1u);
}

TEST_F(FilePlayback, LooksForTheEndOfAPauseEvery20Milliseconds)
{
    PlayPaused(Wav(96000));
    VirtualTime::Step(1.0);
    Resume();
    VirtualTime::Step(0.0199);
    EXPECT_EQ(Pushes(), 1u);
    VirtualTime::Step(0.0001);
    EXPECT_GT(Pushes(), 40u);
}

TEST_F(FilePlayback, LosesNothingInAPause)
{
    PlayPaused(Wav(48000));
    VirtualTime::Step(0.5);
    Resume();
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 48000));
}

TEST_F(FilePlayback, StopsOutOfAPause)
{
    PlayPaused(Wav(96000));
    player.RequestStop();
    VirtualTime::Step(0.02);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(Pushes(), 1u);
}

// --- Seeking

TEST_F(FilePlayback, DropsWhatIsQueuedAndTheFrameInHandForASeek)
{
    PlayFile(Wav(96000));
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.008);
    EXPECT_THAT(VirtualDevice::Calls(),
                ElementsAre("Init 48000 2", "SetActive 1", "Clear", "GetStreamTime"));
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 47 * kBlock) + Sound(48000, 96000));
}

TEST_F(FilePlayback, AnchorsTheClockAtTheTarget)
{
    PlayFile(Wav(96000));
    VirtualTime::Step(0.3);
    player.SeekToSeconds(1.5);
    VirtualTime::Step(0.1);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 1.5);
    // Taken at the worker's next poll, 304 ms after the start.
    EXPECT_DOUBLE_EQ(access.PlaybackClockPresentedSec(), 0.304);
    EXPECT_DOUBLE_EQ(player.CurrentSeconds(), 1.596);
}

TEST_F(FilePlayback, AnchorsTheClockAlsoWhereTheSinkHasNoTime)
{
    VirtualDevice::FailStreamTime(true);
    PlayFile(Wav(96000));
    VirtualTime::Step(0.3);
    player.SeekToSeconds(1.5);
    VirtualTime::Step(0.1);
    VirtualDevice::FailStreamTime(false);
    EXPECT_EQ(access.PlaybackClockPresentedSec(), 0.0);
}

TEST_F(FilePlayback, SeeksWhilePaused)
{
    PlayPaused(Wav(96000));
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.02);
    EXPECT_THAT(VirtualDevice::Calls(), Contains("Clear"));
    EXPECT_FALSE(access.SeekRequested());
    EXPECT_EQ(access.CurrentSec(), 1.0);
    EXPECT_EQ(access.PausedPresentationSec(), 1.0);
    EXPECT_EQ(access.QueuedSourceEndSec(), 1.0);
    EXPECT_EQ(Pushes(), 1u);
}

// The seek operation stores these as well, so here the request is posted without it.
TEST_F(FilePlayback, TellsItselfWhereItWent)
{
    PlayPaused(Wav(96000));
    access.SeekTargetSec() = 1.25;
    access.SeekRequested() = true;
    VirtualTime::Step(0.02);
    EXPECT_EQ(access.CurrentSec(), 1.25);
    EXPECT_EQ(access.PausedPresentationSec(), 1.25);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 1.25);
    EXPECT_EQ(access.QueuedSourceEndSec(), 1.25);
}

TEST_F(FilePlayback, GoesOnAtTheTargetAfterAPause)
{
    PlayPaused(Wav(96000));
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.5);
    Resume();
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, kBlock) + Sound(48000, 96000));
}

// The queue does not move while paused, so the worker waits for it and not for the pause's end.
TEST_F(FilePlayback, SeeksWhilePausedWithAFullQueue)
{
    PlayFile(Wav(96000));
    player.SetPaused(true);
    VirtualTime::Step(0.1);
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.008);
    EXPECT_EQ(VirtualDevice::Last().QueuedSeconds(), 0.0);
    EXPECT_EQ(access.CurrentSec(), 1.0);
    EXPECT_EQ(Pushes(), 47u);
}

TEST_F(FilePlayback, TakesTheLastOfSeveralSeeks)
{
    PlayFile(Wav(96000));
    for (const double target : {0.1, 1.9, 0.7, 1.0})
        player.SeekToSeconds(target);
    VirtualTime::Step(0.008);
    EXPECT_EQ(std::ranges::count(VirtualDevice::Calls(), "Clear"), 1);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 1.0);
}

TEST_F(FilePlayback, EndsAtTheDurationForASeekBeyondIt)
{
    PlayFile(Wav(96000));
    player.SeekToSeconds(100.0);
    VirtualTime::Step(0.008);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.CurrentSeconds(), 2.0);
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(FilePlayback, BeginsAgainForASeekBeforeTheStart)
{
    PlayFile(Wav(48000));
    player.SeekToSeconds(-5.0);
    RunToEnd();
    EXPECT_EQ(PushedSince(47), Sound(0, 48000));
}

// The target is limited again by the worker, whose duration may be a newer one.
TEST_F(FilePlayback, LimitsATargetThatIsPostedUnlimited)
{
    for (const auto& [posted, target] : {std::pair{100.0, 2.0}, std::pair{-5.0, 0.0}})
    {
        PlayFile(Wav(96000));
        access.SeekTargetSec() = posted;
        access.SeekRequested() = true;
        VirtualTime::Step(0.008);
        EXPECT_EQ(access.PlaybackClockSourceSec(), target);
    }
}

TEST_F(FilePlayback, BeginsAgainForAnySeekWhereTheDurationIsUnknown)
{
    PlayFile(Endless());
    const std::vector<float> start = Pushed();
    access.SeekTargetSec() = 0.5;
    access.SeekRequested() = true;
    VirtualTime::Step(0.008);
    EXPECT_EQ(access.PlaybackClockSourceSec(), 0.0);
    EXPECT_EQ(Pushed(), start + start);
}

TEST_F(FilePlayback, IgnoresASeekRequestWhereTheDurationIsUnknown)
{
    PlayFile(Endless());
    player.SeekToSeconds(0.5);
    VirtualTime::Step(0.1);
    EXPECT_THAT(VirtualDevice::Calls(), Not(Contains("Clear")));
}

// No sound from before the seek is left in the resampler.
TEST_F(FilePlayback, EmptiesTheResamplerForASeek)
{
    const std::vector<float> silence(44100 * 2);
    const std::vector<float> loud(44100 * 2, 0.5f);
    PlayFile(Media::WriteWav("edge.wav", loud + silence, 44100, 2));
    const size_t before = Pushed().size();
    player.SeekToSeconds(1.5);
    VirtualTime::Step(0.008);
    const std::vector<float> pushed = Pushed();
    ASSERT_GT(pushed.size(), before);
    EXPECT_THAT(std::vector<float>(pushed.begin() + static_cast<ptrdiff_t>(before), pushed.end()),
                Each(0.0f));
}

// A Vorbis block overlaps with the one before, which after a seek is none.
TEST_F(FilePlayback, EmptiesTheDecoderForASeek)
{
    PlayFile(Media::Make("-f lavfi -i sine=d=2:r=48000 -ac 2 -c:a libvorbis", "overlap.ogg"));
    const std::vector<float> start = Pushed();
    player.SeekToSeconds(0.0);
    VirtualTime::Step(0.008);
    EXPECT_EQ(Pushed(), start + start);
}

// Where sound can begin only here and there, the place before the target is taken.
TEST_F(FilePlayback, LandsNoLaterThanTheTarget)
{
    const std::string path = Media::Make("-f lavfi -i sine=d=2:r=48000 -c:a flac "
                                         "-frame_size 16384 -cluster_time_limit 300",
                                         "places.mka");
    for (const double target : {1.9, 1.6, 1.3, 1.1, 0.9, 0.7, 0.5, 0.3, 0.1})
    {
        PlayFile(path);
        std::vector<long> times;
        player.SetAudioPCMCallback([&](const float*, int, int, int, long us)
                                   { times.push_back(us); });
        player.SeekToSeconds(target);
        VirtualTime::Step(0.008);
        Stop();
        player.SetAudioPCMCallback({});
        ASSERT_THAT(times, Not(IsEmpty()));
        EXPECT_LE(static_cast<double>(times[0]), target * 1e6);
    }
}

TEST_F(FilePlayback, DrainsAfterAFailedSeek)
{
    PlayFile(Wav(96000));
    const FailingCall failing("av_seek_frame", AVERROR(EIO));
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.008);
    EXPECT_EQ(player.LastError(), "Audio seek failed.");
    EXPECT_FALSE(player.HasFinished());
    EXPECT_THAT(VirtualDevice::Calls(), Not(Contains("Clear")));
    VirtualTime::Step(0.6);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_FALSE(player.IsStopRequestedForInterrupt());
    EXPECT_GT(VirtualDevice::Last().HeardSeconds(), 47 * kBlock / kRate - 0.02);
}

TEST_F(FilePlayback, DrainsWhereTheResamplerDoesNotStartAgain)
{
    PlayFile(Wav(96000));
    const FailingCall failing("swr_init", AVERROR(ENOMEM));
    player.SeekToSeconds(1.0);
    VirtualTime::Step(0.008);
    EXPECT_EQ(player.LastError(), "Audio seek failed.");
    VirtualTime::Step(0.6);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(Pushes(), 47u);
    EXPECT_GT(VirtualDevice::Last().HeardSeconds(), 47 * kBlock / kRate - 0.02);
}

// --- Packets, frames and reads that fail

TEST_F(FilePlayback, SkipsAPacketThatTheDecoderRefuses)
{
    const FailingCall failing("avcodec_send_packet", AVERROR_INVALIDDATA, 3);
    PlayFile(Wav(9600));
    RunToEnd();
    EXPECT_EQ(Pushed(), Sound(0, 3 * kBlock) + Sound(4 * kBlock, 9600));
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(FilePlayback, EndsWithoutDrainWhereDecodingFails)
{
    const int sent = CallCount("avcodec_send_packet");
    // Two calls for each packet, the second of which asks for a frame that is not there.
    const FailingCall failing("avcodec_receive_frame", AVERROR(ENOMEM), 4);
    PlayFile(Wav(96000));
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(player.LastError(), "Audio decode failed: Cannot allocate memory");
    EXPECT_TRUE(player.IsStopRequestedForInterrupt());
    EXPECT_EQ(Pushed(), Sound(0, 2 * kBlock));
    EXPECT_EQ(VirtualDevice::Last().HeardSeconds(), 0.0);
    EXPECT_EQ(CallCount("avcodec_send_packet") - sent, 3);
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1", "SetActive 0"));
}

TEST_F(FilePlayback, TakesAReadErrorAsTheEndOfTheFile)
{
    const FailingCall failing("av_read_frame", AVERROR(EIO), 10);
    PlayFile(Wav(96000));
    RunToEnd();
    EXPECT_EQ(player.LastError(), "");
    EXPECT_EQ(Pushed(), Sound(0, 10 * kBlock));
    EXPECT_GT(VirtualDevice::Last().HeardSeconds(), 10 * kBlock / kRate - 0.02);
}

// --- The end

TEST_F(FilePlayback, PlaysTheLastSecondOutDownTo20Milliseconds)
{
    PlayFile(Wav(14400)); // 0.3 s, queued at once
    VirtualTime::Step(0.2799);
    EXPECT_FALSE(player.HasFinished());
    EXPECT_TRUE(player.IsPlaying());
    VirtualTime::Step(0.0001);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(VirtualDevice::Last().QueuedSeconds(), 0.02);
}

TEST_F(FilePlayback, WaitsAnother20MillisecondsForOneFrameMore)
{
    PlayFile(Wav(14401));
    VirtualTime::Step(0.2999);
    EXPECT_FALSE(player.HasFinished());
    VirtualTime::Step(0.0001);
    EXPECT_TRUE(player.HasFinished());
}

TEST_F(FilePlayback, SendsTheDecoderTheEndBeforeItWaits)
{
    const int sent = CallCount("avcodec_send_packet");
    PlayFile(Wav(3 * kBlock));
    EXPECT_FALSE(player.HasFinished());
    EXPECT_EQ(CallCount("avcodec_send_packet") - sent, 4);
}

TEST_F(FilePlayback, EndsAtItsEndAlsoAfterAPauseOrALateSeekInTheDrain)
{
    for (const bool bSeek : {false, true})
    {
        PlayFile(Wav(14400)); // 0.3 s: all of it queued, draining
        VirtualTime::Step(0.1);
        if (bSeek)
            player.SeekToSeconds(0.0);
        else
            player.SetPaused(true);
        player.SetPaused(false);
        RunToEnd();
        EXPECT_EQ(player.CurrentSeconds(), 0.3) << bSeek;
    }
}

TEST_F(FilePlayback, EndsADrainAtOnceForAStop)
{
    PlayFile(Wav(14400));
    VirtualTime::Step(0.1);
    player.RequestStop();
    VirtualTime::Step(0.02);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_NEAR(VirtualDevice::Last().QueuedSeconds(), 0.2, 1e-9);
}

TEST_F(FilePlayback, StopsOutOfAFullQueueWithoutADrain)
{
    const int sent = CallCount("avcodec_send_packet");
    PlayFile(Wav(96000));
    player.RequestStop();
    VirtualTime::Step(0.008);
    EXPECT_TRUE(player.HasFinished());
    EXPECT_EQ(Pushes(), 47u);
    EXPECT_EQ(CallCount("avcodec_send_packet") - sent, 48);
}

TEST_F(FilePlayback, LeavesTheSinkSilentAndInstalled)
{
    PlayFile(Wav(960));
    RunToEnd();
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 1", "SetActive 0"));
    EXPECT_TRUE(access.HasOutput());
}

TEST_F(FilePlayback, ReleasesFromPacketToDemuxer)
{
    PlayFile(Wav(960));
    RunToEnd();
    EXPECT_THAT(Releases(), ElementsAre("av_packet_free", "av_frame_free", "swr_free",
                                        "avcodec_free_context", "avformat_close_input"));
}

// In this order: everything is released, it has finished, it plays no more. Between the last two
// lie nanoseconds, so a wrong order of these would show only now and then.
TEST_F(FilePlayback, ReleasesThenFinishesThenPlaysNoMore)
{
    const std::string path = Wav(960); // few enough frames for no sleep at all
    for (int i = 0; i < 500; ++i)
    {
        ForgetReleases();
        player.PlayFile(path);
        bool bEnded = false;
        while (!bEnded)
        {
            const bool bPlaying = player.IsPlaying(); // first: the end comes between or before
            bEnded = player.HasFinished();
            ASSERT_TRUE(bPlaying || bEnded);
        }
        ASSERT_THAT(Releases(), SizeIs(5));
    }
}

TEST_F(FilePlayback, IsJoinedAndReplacedByTheNextPlay)
{
    PlayFile(Wav(960));
    RunToEnd();
    EXPECT_TRUE(access.HasThread());
    VirtualDevice::ForgetCalls();
    PlayFile(Wav(96000));
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("SetActive 0", "Clear", "Destroy", "delete",
                                                    "Init 48000 2", "SetActive 1"));
}

TEST_F(FilePlayback, IsStoppedAtAnyMoment)
{
    const std::string path = Wav(9600);
    VirtualTime::SetFreeRunning(true);
    for (int i = 0; i < 100; ++i)
    {
        player.PlayFile(path);
        for (int wait = 0; wait < i; ++wait)
            std::this_thread::yield();
        player.Stop();
        EXPECT_TRUE(player.HasFinished());
        EXPECT_FALSE(player.IsPlaying());
        EXPECT_FALSE(access.HasOutput());
    }
}

// --- Names

TEST_F(FilePlayback, PlaysFilesOfAnyName)
{
    const std::string bytes = Media::Read(Wav(960));
    for (const char* name : {"a b.wav", "ä ö 漢.wav", "a:b.wav", "a%20b.wav", "a%d.wav", "a%.wav",
                             "-a.wav", "a'b\"c.wav", "#a?b&c.wav", "a\nb.wav", "\xff\xfe.wav", "a"})
    {
        PlayFile(Media::Write(name, bytes));
        RunToEnd();
        EXPECT_EQ(Pushed(), Sound(0, 960)) << name;
        EXPECT_EQ(player.LastError(), "") << name;
    }
}

TEST_F(FilePlayback, FileWithoutAFrameEndsWhereItBegan)
{
    PlayFile(Media::Write("none.wav", Media::Wav({}, 48000, 2)));
    RunToEnd();
    EXPECT_EQ(player.LastError(), "");
    EXPECT_EQ(Pushes(), 0u);
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
}

TEST_F(FilePlayback, SeekFarIntoALongFileIsExactToTheSample)
{
    constexpr uint32_t kBytes = 2000 * 8000 * sizeof(float);
    std::string header = Media::Wav({}, 8000, 1);
    const uint32_t sizes[] = {kBytes + 36, kBytes};
    std::memcpy(&header[4], &sizes[0], 4);
    std::memcpy(&header[40], &sizes[1], 4);
    const std::string path = Media::WriteSparse("long.wav", header, header.size() + kBytes);
    std::vector<long> times;
    player.SetAudioPCMCallback([&](const float*, int, int, int, long microseconds)
                               { times.push_back(microseconds); });
    const DuringCall seek("av_read_frame", 1, [&] { player.SeekToSeconds(1999.5); });
    PlayFile(path);
    RunToEnd();
    ASSERT_GT(times.size(), 1u);
    EXPECT_EQ(times[1], 1999500000);
}

TEST_F(FilePlayback, SeekPublishesItsTargetBeforeTheNextPacketIsRead)
{
    double published = 0.0;
    const DuringCall seek("av_read_frame", 3, [&] { player.SeekToSeconds(1.0); });
    const DuringCall look("av_read_frame", 4, [&] { published = access.CurrentSec(); });
    PlayFile(Wav(96000));
    RunToEnd();
    EXPECT_EQ(published, 1.0);
}

TEST_F(FilePlayback, FinishedIsSetBeforePlayingIsCleared)
{
    VirtualTime::SetFreeRunning(true);
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(player.PlayFile("/nonexistent/file.wav"));
        ExpectFinishedBeforeNotPlaying();
    }
}

// Names that FFmpeg would take for something else than a file if it opened them itself.
TEST_F(FilePlayback, PlaysRelativeNamesThatLookLikeAddresses)
{
    const std::filesystem::path home = std::filesystem::current_path();
    const std::string bytes = Media::Read(Wav(960));
    std::filesystem::current_path(Media::Directory());
    for (const char* name : {"http:a.wav", "a:b.wav", "pipe:0", "concat:a|b", "-", "data:,a"})
    {
        Media::Write(name, bytes);
        PlayFile(name);
        RunToEnd();
        EXPECT_EQ(Pushed(), Sound(0, 960)) << name;
        EXPECT_EQ(player.LastError(), "") << name;
    }
    std::filesystem::current_path(home);
}
