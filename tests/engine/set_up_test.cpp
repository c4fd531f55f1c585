// Opening demuxer, decoder and resampler: what they give, and every way in which they fail.
#include "internals.h"
#include "media.h"
#include "playback.h"
#include "wrapped_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cmath>
#include <cstdint>

extern "C"
{
#include <libavutil/opt.h>
}

using testing::Each;
using testing::ElementsAre;
using testing::FloatNear;
using testing::IsEmpty;

namespace
{

// Addresses that nobody dereferences, to see whether an output was written.
template <class T>
T* Untouched()
{
    return reinterpret_cast<T*>(uintptr_t{64});
}

std::string Stereo(const std::string& name)
{
    return Media::WriteWav(name, Ramp(4800, 2));
}

class OpenDecoder : public testing::Test
{
protected:
    ~OpenDecoder() override
    {
        if (!bOpened)
            return;
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }

    bool Open(const std::string& path, TovrelAudioCachedFileInput* from = nullptr)
    {
        ForgetReleases();
        bOpened = access.OpenDecoder(path, from, &format, &codec, &streamIndex, &error);
        return bOpened;
    }

    bool OpenCached(const std::string& path)
    {
        EXPECT_TRUE(access.LoadFileIntoCache(path, cache, nullptr));
        return Open(path, &cache);
    }

    void ExpectFailure(const std::string& message) const
    {
        EXPECT_FALSE(bOpened);
        EXPECT_EQ(error, message);
        EXPECT_EQ(format, Untouched<AVFormatContext>());
        EXPECT_EQ(codec, Untouched<AVCodecContext>());
        EXPECT_EQ(streamIndex, 77);
    }

    TovrelAudioPlayer player;
    TovrelAudioPlayerTestAccess access{player};
    TovrelAudioCachedFileInput cache;
    AVFormatContext* format = Untouched<AVFormatContext>();
    AVCodecContext* codec = Untouched<AVCodecContext>();
    int streamIndex = 77;
    bool bOpened = false;
    std::string error = "earlier text";
};

// A decoder context that nothing was decoded with.
struct Codec
{
    AVCodecContext* context = avcodec_alloc_context3(nullptr);

    Codec(int channels, int rate, AVSampleFormat format = AV_SAMPLE_FMT_FLT)
    {
        if (channels > 0)
            av_channel_layout_default(&context->ch_layout, channels);
        context->sample_rate = rate;
        context->sample_fmt = format;
    }
    ~Codec() { avcodec_free_context(&context); }
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;
};

class ConfigureResampler : public testing::Test
{
protected:
    ~ConfigureResampler() override
    {
        if (bConfigured)
            swr_free(&swr);
    }

    bool Configure(const Codec& codec)
    {
        ForgetReleases();
        bConfigured = access.ConfigureResampler(codec.context, &swr, &rate, &channels, &error);
        releases = Releases();
        return bConfigured;
    }

    // These interleaved samples as the resampler gives them.
    std::vector<float> Convert(const std::vector<float>& in, int inChannels)
    {
        std::vector<float> out(2000);
        auto* to = reinterpret_cast<uint8_t*>(out.data());
        const auto* from = reinterpret_cast<const uint8_t*>(in.data());
        const int frames =
            swr_convert(swr, &to, 1000, &from, static_cast<int>(in.size()) / inChannels);
        out.resize(static_cast<size_t>(frames) * 2);
        return out;
    }

    int64_t Option(const char* name) const
    {
        int64_t value = -1;
        EXPECT_GE(av_opt_get_int(swr, name, 0, &value), 0) << name;
        return value;
    }

    void ExpectFailure(const std::string& message) const
    {
        EXPECT_FALSE(bConfigured);
        EXPECT_EQ(error, message);
        EXPECT_EQ(swr, Untouched<SwrContext>());
        EXPECT_EQ(rate, 77);
        EXPECT_EQ(channels, 78);
    }

    TovrelAudioPlayer player;
    TovrelAudioPlayerTestAccess access{player};
    SwrContext* swr = Untouched<SwrContext>();
    int rate = 77;
    int channels = 78;
    bool bConfigured = false;
    std::vector<std::string> releases; // of that call
    std::string error = "earlier text";
};

} // namespace

// --- Opening

TEST_F(OpenDecoder, ReadsTheCopyInMemory)
{
    ASSERT_TRUE(OpenCached(Stereo("memory.wav")));
    EXPECT_EQ(format->pb, cache.Avio);
    EXPECT_TRUE(format->flags & AVFMT_FLAG_CUSTOM_IO);
    EXPECT_EQ(codec->codec_id, AV_CODEC_ID_PCM_F32LE);
    EXPECT_EQ(codec->sample_rate, 48000);
    EXPECT_EQ(streamIndex, 0);
    EXPECT_EQ(error, "earlier text");
}

TEST_F(OpenDecoder, NeedsTheFileNoMoreOnceItIsInMemory)
{
    const std::string path = Stereo("removed.wav");
    ASSERT_TRUE(access.LoadFileIntoCache(path, cache, nullptr));
    std::filesystem::remove(path);
    EXPECT_TRUE(Open(path, &cache));
}

TEST_F(OpenDecoder, ReadsTheFileWithoutACopy)
{
    ASSERT_TRUE(Open(Stereo("disk.wav"), nullptr));
    EXPECT_FALSE(format->flags & AVFMT_FLAG_CUSTOM_IO);
    EXPECT_EQ(codec->sample_rate, 48000);
}

TEST_F(OpenDecoder, ReadsTheFileWhereThePreloadFailed)
{
    ASSERT_TRUE(Open(Stereo("fallback.wav"), &cache));
    EXPECT_FALSE(format->flags & AVFMT_FLAG_CUSTOM_IO);
    EXPECT_EQ(error, "earlier text");
}

// The bytes of A-law sound look like nothing; only the file's name tells.
TEST_F(OpenDecoder, LetsTheNameOfACopyTellItsFormat)
{
    ASSERT_TRUE(OpenCached(Media::Write("speech.al", std::string(8000, '\x55'))));
    EXPECT_EQ(codec->codec_id, AV_CODEC_ID_PCM_ALAW);
}

TEST_F(OpenDecoder, FindsTheSoundAmongOtherStreams)
{
    ASSERT_TRUE(OpenCached(Media::Make("-f lavfi -i testsrc=d=0.2:s=64x64 -f lavfi "
                                       "-i sine=d=0.2:r=44100 -map 0:v -map 1:a -c:a flac",
                                       "film.mkv")));
    EXPECT_EQ(streamIndex, 1);
    EXPECT_EQ(codec->codec_id, AV_CODEC_ID_FLAC);
}

TEST_F(OpenDecoder, AsksTheDecoderForNothingSpecial)
{
    ASSERT_TRUE(OpenCached(Stereo("plain.wav")));
    EXPECT_EQ(codec->request_sample_fmt, AV_SAMPLE_FMT_NONE);
    EXPECT_EQ(codec->pkt_timebase.num, 0);
    EXPECT_EQ(codec->thread_count, 1);
}

// --- Opening fails on real files

TEST_F(OpenDecoder, NamesAMissingFile)
{
    Open("/nonexistent/file.wav");
    ExpectFailure("Failed to open audio file: No such file or directory");
}

TEST_F(OpenDecoder, NamesADirectory)
{
    Open(Media::Directory());
    ExpectFailure("Failed to open audio file: Is a directory");
}

TEST_F(OpenDecoder, RefusesGarbage)
{
    OpenCached(Media::Write("garbage.wav", std::string(5000, 'x')));
    ExpectFailure("Failed to open audio file: Invalid data found when processing input");
    EXPECT_THAT(Releases(), IsEmpty()); // FFmpeg itself has freed the demuxer
}

TEST_F(OpenDecoder, RefusesAFilmWithoutSound)
{
    OpenCached(Media::Make("-f lavfi -i testsrc=d=0.2:s=64x64", "silent.mkv"));
    ExpectFailure("No audio stream found.");
    EXPECT_THAT(Releases(), ElementsAre("avformat_close_input"));
}

TEST_F(OpenDecoder, RefusesAPicture)
{
    OpenCached(Media::Make("-f lavfi -i testsrc=d=0.04:s=64x64 -frames:v 1", "picture.png"));
    ExpectFailure("No audio stream found.");
}

TEST_F(OpenDecoder, RefusesACodecThatNobodyKnows)
{
    OpenCached(Media::Write("codec.wav", Media::Wav(Ramp(4800, 2), 48000, 2, 0x1234)));
    ExpectFailure("No decoder available for this audio stream.");
    EXPECT_THAT(Releases(), ElementsAre("avformat_close_input"));
}

// IMA ADPCM has two channels at the most.
TEST_F(OpenDecoder, RefusesWhatItsDecoderRefuses)
{
    OpenCached(Media::Write("adpcm.wav", Media::Wav(Ramp(4800, 3), 48000, 3, 0x11)));
    ExpectFailure("Failed to open audio decoder: Invalid argument");
    EXPECT_THAT(Releases(), ElementsAre("avcodec_free_context", "avformat_close_input"));
}

// --- Opening fails inside FFmpeg

namespace
{

struct OpenFailure
{
    const char* call;
    const char* message;
    std::vector<std::string> releases; // decoder before demuxer
};

void PrintTo(const OpenFailure& failure, std::ostream* out)
{
    *out << failure.call;
}

class OpenDecoderFailing : public OpenDecoder, public testing::WithParamInterface<OpenFailure>
{
};

} // namespace

TEST_P(OpenDecoderFailing, SaysWhatAndLeavesNothing)
{
    const OpenFailure& failure = GetParam();
    const FailingCall failing(failure.call, AVERROR(ENOMEM));
    OpenCached(Stereo("failing.wav"));
    ExpectFailure(failure.message);
    EXPECT_TRUE(failing.Happened());
    EXPECT_EQ(Releases(), failure.releases);
}

TEST_P(OpenDecoderFailing, NeedsNoPlaceForTheMessage)
{
    const std::string path = Stereo("failing.wav");
    ASSERT_TRUE(access.LoadFileIntoCache(path, cache, nullptr));
    const FailingCall failing(GetParam().call, AVERROR(ENOMEM));
    EXPECT_FALSE(access.OpenDecoder(path, &cache, &format, &codec, &streamIndex, nullptr));
}

// The copy is not the demuxer's: a second attempt on it succeeds.
TEST_P(OpenDecoderFailing, LeavesTheCopyUsable)
{
    {
        const FailingCall failing(GetParam().call, AVERROR(ENOMEM));
        OpenCached(Stereo("failing.wav"));
    }
    ASSERT_EQ(avio_seek(cache.Avio, 0, SEEK_SET), 0);
    EXPECT_TRUE(Open("failing.wav", &cache));
}

static const std::vector<OpenFailure> kOpenFailures = {
    {"avformat_alloc_context", "Failed to allocate audio demuxer.", {}},
    {"avformat_open_input", "Failed to open audio file: Cannot allocate memory", {}},
    {"avformat_find_stream_info",
     "Failed to read audio stream info: Cannot allocate memory",
     {"avformat_close_input"}},
    {"avcodec_find_decoder",
     "No decoder available for this audio stream.",
     {"avformat_close_input"}},
    {"avcodec_alloc_context3", "Failed to allocate audio decoder.", {"avformat_close_input"}},
    {"avcodec_parameters_to_context",
     "Failed to configure audio decoder: Cannot allocate memory",
     {"avcodec_free_context", "avformat_close_input"}},
    {"avcodec_open2",
     "Failed to open audio decoder: Cannot allocate memory",
     {"avcodec_free_context", "avformat_close_input"}},
};
INSTANTIATE_TEST_SUITE_P(All, OpenDecoderFailing, testing::ValuesIn(kOpenFailures),
                         [](const auto& testInfo) { return testInfo.param.call; });

TEST_F(OpenDecoder, AllocatesNoDemuxerForTheDisk)
{
    const FailingCall failing("avformat_alloc_context");
    EXPECT_TRUE(Open(Stereo("no-alloc.wav"), nullptr));
    EXPECT_FALSE(failing.Happened());
}

TEST_F(OpenDecoder, FailsFromTheDiskWithTheSameMessages)
{
    const FailingCall failing("avformat_open_input", AVERROR(EIO));
    Open(Stereo("eio.wav"), nullptr);
    ExpectFailure("Failed to open audio file: Input/output error");
}

TEST_F(OpenDecoder, NeverSetsTheLastError)
{
    access.SetLastError("kept");
    Open("/nonexistent/file.wav");
    EXPECT_EQ(player.LastError(), "kept");
}

// --- The resampler

TEST_F(ConfigureResampler, ConvertsToInterleavedStereoFloatAt48000)
{
    ASSERT_TRUE(Configure({6, 44100, AV_SAMPLE_FMT_S16P}));
    EXPECT_EQ(Option("in_sample_rate"), 44100);
    EXPECT_EQ(Option("in_sample_fmt"), AV_SAMPLE_FMT_S16P);
    EXPECT_EQ(Option("out_sample_rate"), 48000);
    EXPECT_EQ(Option("out_sample_fmt"), AV_SAMPLE_FMT_FLT);
    EXPECT_EQ(Option("dither_method"), 0);
    EXPECT_TRUE(swr_is_initialized(swr));
    EXPECT_EQ(error, "earlier text");
}

TEST_F(ConfigureResampler, AlwaysAnswers48000AndStereo)
{
    for (const int inChannels : {1, 2, 3, 6, 8, 16})
    {
        for (const int inRate : {1, 8000, 44100, 48000, 192000, 768000})
        {
            SwrContext* resampler = nullptr;
            rate = channels = 0;
            EXPECT_TRUE(access.ConfigureResampler(Codec(inChannels, inRate).context, &resampler,
                                                  &rate, &channels, &error));
            EXPECT_THAT((std::vector<int>{rate, channels}), ElementsAre(48000, 2)) << inRate;
            swr_free(&resampler);
        }
    }
}

TEST_F(ConfigureResampler, PassesStereoThrough)
{
    ASSERT_TRUE(Configure({2, 48000}));
    EXPECT_EQ(Convert({0.1f, 0.2f, -1.5f, 1.0f}, 2), (std::vector<float>{0.1f, 0.2f, -1.5f, 1.0f}));
}

TEST_F(ConfigureResampler, TakesADecoderWithoutChannelsAsStereo)
{
    ASSERT_TRUE(Configure({0, 48000}));
    EXPECT_EQ(Convert({0.1f, 0.2f, -1.5f, 1.0f}, 2), (std::vector<float>{0.1f, 0.2f, -1.5f, 1.0f}));
}

// By the library's own matrix: the centre goes to both sides at -3 dB.
TEST_F(ConfigureResampler, SpreadsMonoOverBothSides)
{
    ASSERT_TRUE(Configure({1, 48000}));
    const float side = 0.5f * std::sqrt(0.5f);
    EXPECT_THAT(Convert({0.5f, 0.5f, 0.5f}, 1), Each(FloatNear(side, 1e-6f)));
}

TEST_F(ConfigureResampler, MakesNothingOfAFrameWithoutSamples)
{
    ASSERT_TRUE(Configure({2, 48000}));
    AVFrame* frame = av_frame_alloc();
    frame->sample_rate = 48000;
    std::vector<float> buffer;
    const int conversions = CallCount("swr_convert");
    EXPECT_EQ(Internals::ConvertFrame(*frame, swr, buffer), 0);
    EXPECT_EQ(CallCount("swr_convert"), conversions);
    av_frame_free(&frame);
}

TEST_F(ConfigureResampler, NeedsNoPlaceForRateAndChannels)
{
    const Codec codec(2, 48000);
    SwrContext* resampler = nullptr;
    EXPECT_TRUE(access.ConfigureResampler(codec.context, &resampler, nullptr, nullptr, nullptr));
    swr_free(&resampler);
}

// What the caller held there is the caller's to free.
TEST_F(ConfigureResampler, FreesNoResamplerThatWasThere)
{
    swr = swr_alloc();
    SwrContext* old = swr;
    ASSERT_TRUE(Configure({2, 48000}));
    EXPECT_NE(swr, old);
    EXPECT_THAT(releases, IsEmpty());
    swr_free(&old);
}

TEST_F(ConfigureResampler, RefusesNullWithoutAMessage)
{
    const Codec codec(2, 48000);
    EXPECT_FALSE(access.ConfigureResampler(nullptr, &swr, &rate, &channels, &error));
    EXPECT_FALSE(access.ConfigureResampler(codec.context, nullptr, &rate, &channels, &error));
    ExpectFailure("earlier text");
}

TEST_F(ConfigureResampler, SaysThatThereIsNone)
{
    const FailingCall failing("swr_alloc_set_opts2", AVERROR(ENOMEM));
    Configure({2, 48000});
    ExpectFailure("Failed to allocate audio resampler.");
}

// A code that is no error but no resampler either.
TEST_F(ConfigureResampler, SaysThatThereIsNoneAlsoWithoutAnErrorCode)
{
    const FailingCall failing("swr_alloc_set_opts2", 0);
    Configure({2, 48000});
    ExpectFailure("Failed to allocate audio resampler.");
}

TEST_F(ConfigureResampler, SaysWhyItDoesNotStart)
{
    const FailingCall failing("swr_init", AVERROR(ENOMEM));
    Configure({2, 48000});
    ExpectFailure("Failed to initialize audio resampler: Cannot allocate memory");
    EXPECT_THAT(releases, ElementsAre("swr_free"));
}

TEST_F(ConfigureResampler, RefusesChannelsThatHaveNoPlaces)
{
    for (const int inChannels : {9, 17})
    {
        Configure({inChannels, 48000});
        ExpectFailure("Failed to initialize audio resampler: Invalid argument");
        EXPECT_THAT(releases, ElementsAre("swr_free")) << inChannels;
    }
}

TEST_F(ConfigureResampler, FailsWithoutAPlaceForTheMessage)
{
    for (const char* call : {"swr_alloc_set_opts2", "swr_init"})
    {
        const FailingCall failing(call, AVERROR(ENOMEM));
        const Codec codec(2, 48000);
        EXPECT_FALSE(access.ConfigureResampler(codec.context, &swr, &rate, &channels, nullptr));
    }
}

// A layout that names each channel is allocated, and released whatever comes of it.
TEST_F(ConfigureResampler, ReleasesTheLayouts)
{
    const Codec codec(0, 48000);
    AVChannelLayout& layout = codec.context->ch_layout;
    layout.order = AV_CHANNEL_ORDER_CUSTOM;
    layout.nb_channels = 2;
    layout.u.map =
        static_cast<AVChannelCustom*>(av_calloc(2, sizeof *layout.u.map)); // freed with the codec
    layout.u.map[0].id = AV_CHAN_FRONT_LEFT;
    layout.u.map[1].id = AV_CHAN_FRONT_RIGHT;
    const auto before = mallinfo2().uordblks;
    for (int i = 0; i < 5000; ++i)
    {
        const FailingCall failing("swr_init", AVERROR(ENOMEM));
        access.ConfigureResampler(codec.context, &swr, &rate, &channels, nullptr);
        ForgetReleases(); // which would grow, too
    }
    EXPECT_LT(mallinfo2().uordblks, before + 100000);
}
