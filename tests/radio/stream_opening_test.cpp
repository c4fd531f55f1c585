// Opening a radio stream: what is asked of FFmpeg and the server, and every way to fail.
#include "dictionary_log.h"
#include "radio.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

const char* const kVideoOnly = "-f lavfi -i testsrc=d=0.2:s=64x64:r=25 -c:v mpeg2video -f mpegts";

class StreamOpening : public Radio
{
protected:
    StreamOpening()
    {
        ForgetReleases();
        ForgetDictionaryEntries();
    }
    void TearDown() override
    {
        avcodec_free_context(&codec);
        avformat_close_input(&format);
        Radio::TearDown();
    }

    bool Open(const std::string& url, std::string* message)
    {
        return access.OpenStreamDecoder(url, &format, &codec, &streamIndex, message);
    }
    bool Open(const std::string& url) { return Open(url, &error); }

    // Opening fails with this message, whether it is wanted or not, and leaves the rest alone.
    void ExpectFailure(const std::string& url, const std::string& message)
    {
        EXPECT_FALSE(Open(url));
        EXPECT_EQ(error, message);
        ExpectNothingReturned();
    }

    void ExpectNothingReturned()
    {
        EXPECT_EQ(format, nullptr);
        EXPECT_EQ(codec, nullptr);
        EXPECT_EQ(streamIndex, 77);
    }

    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    int streamIndex = 77;
    std::string error = "old";
};

} // namespace

// --- What is asked for

TEST_F(StreamOpening, ReturnsAnOpenedDemuxerAndDecoder)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url()));
    EXPECT_EQ(streamIndex, 0);
    EXPECT_STREQ(format->iformat->name, "wav");
    EXPECT_EQ(codec->codec_id, AV_CODEC_ID_PCM_F32LE);
    EXPECT_TRUE(avcodec_is_open(codec));
    EXPECT_EQ(error, "old"); // a success has nothing to say
}

TEST_F(StreamOpening, IntroducesItselfAndAsksForTitles)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url("/some/mount?a=b")));
    ASSERT_EQ(radio.RequestCount(), 1u);
    EXPECT_THAT(radio.Requests()[0], StartsWith("GET /some/mount?a=b HTTP/1."));
    EXPECT_THAT(radio.Requests()[0],
                HasSubstr("\r\nIcy-MetaData: 1\r\nUser-Agent: Tovrel/1.0\r\n"));
}

TEST_F(StreamOpening, SendsItsHeadersOnlyOnce)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url()));
    const std::string request = radio.Requests().at(0);
    for (const std::string header : {"User-Agent:", "Icy-MetaData:"})
        EXPECT_EQ(request.find(header), request.rfind(header)) << header;
}

TEST_F(StreamOpening, PassesItsOptionsInTheirOrder)
{
    ScriptedServer radio({NotFound()});
    Open(radio.Url());
    EXPECT_THAT(DictionaryEntries(),
                ElementsAre("headers=Icy-MetaData: 1\r\nUser-Agent: Tovrel/1.0\r\n 0", "icy=1 0",
                            "reconnect=1 0", "reconnect_streamed=1 0",
                            "reconnect_on_network_error=1 0", "reconnect_delay_max=5 0",
                            "rw_timeout=3000000 0", "timeout=3000000 0"));
}

TEST_F(StreamOpening, ForcesNoFormatAndNoProbeLimits)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url()));
    AVFormatContext* plain = avformat_alloc_context();
    EXPECT_EQ(format->probesize, plain->probesize);
    EXPECT_EQ(format->max_analyze_duration, plain->max_analyze_duration);
    avformat_free_context(plain);
}

TEST_F(StreamOpening, StaysInterruptibleForTheLifeOfTheContext)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url()));
    const AVIOInterruptCB& interrupt = format->interrupt_callback;
    EXPECT_EQ(interrupt.opaque, &player);
    EXPECT_EQ(interrupt.callback(interrupt.opaque), 0);
    access.StopRequested() = true;
    EXPECT_EQ(interrupt.callback(interrupt.opaque), 1);
}

TEST_F(StreamOpening, InterruptAnswersZeroOrOne)
{
    EXPECT_EQ(Internals::InterruptIfStopped(nullptr), 0);
    EXPECT_EQ(Internals::InterruptIfStopped(&player), 0);
    access.StopRequested() = true;
    EXPECT_EQ(Internals::InterruptIfStopped(&player), 1);
    EXPECT_EQ(Internals::InterruptIfStopped(nullptr), 0);
}

TEST_F(StreamOpening, PublishesTheContentTypeOfTheResponse)
{
    ScriptedServer radio({Whole(WavBytes(4800), {"Content-Type: audio/x-wav"})});
    ASSERT_TRUE(Open(radio.Url()));
    EXPECT_EQ(Internals::MetadataValue(format->metadata, "content-type"), "audio/x-wav");
}

TEST_F(StreamOpening, KeepsAContentTypeThatTheStreamItselfTells)
{
    const std::string nut =
        Encoded("-metadata content-type=own -c:a pcm_s16le -f nut", "own.nut", 0.2);
    ScriptedServer radio({Whole(nut, {"Content-Type: audio/nut"})});
    ASSERT_TRUE(Open(radio.Url()));
    EXPECT_EQ(Internals::MetadataValue(format->metadata, "content-type"), "own");
}

TEST_F(StreamOpening, KnowsNoContentTypeWhereTheServerTellsNone)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    ASSERT_TRUE(Open(radio.Url()));
    EXPECT_EQ(av_dict_get(format->metadata, "content-type", nullptr, 0), nullptr);
}

// --- Failures

TEST_F(StreamOpening, ErrorStatusGivesFFmpegsText)
{
    ScriptedServer radio({NotFound()});
    ExpectFailure(radio.Url(), kNotFound);
}

TEST_F(StreamOpening, UnknownProtocolGivesFFmpegsText)
{
    ExpectFailure("nonsense://127.0.0.1/", "Failed to open radio stream: Protocol not found");
}

TEST_F(StreamOpening, GarbageGivesFFmpegsText)
{
    ScriptedServer radio({Whole(std::string(100, 'x'))});
    ExpectFailure(radio.Url(),
                  "Failed to open radio stream: Invalid data found when processing input");
}

TEST_F(StreamOpening, StopWhileTheServerIsSilentIsACancelledOpen)
{
    ScriptedServer radio({{Stall()}});
    std::thread stopper(
        [&]
        {
            while (radio.RequestCount() == 0)
                std::this_thread::yield();
            player.RequestStop();
        });
    ExpectFailure(radio.Url(), "Radio stream open cancelled.");
    stopper.join();
}

TEST_F(StreamOpening, StopWhileConnectingIsACancelledOpen)
{
    DeafServer radio;
    access.StopRequested() = true;
    ExpectFailure(radio.Url(), "Radio stream open cancelled.");
}

// Whatever the reason was: who stops does not want to hear of it.
TEST_F(StreamOpening, FailureDuringAStopIsACancelledOpen)
{
    const FailingCall failing("avformat_open_input", AVERROR(EIO));
    access.StopRequested() = true;
    ExpectFailure("http://127.0.0.1/", "Radio stream open cancelled.");
}

TEST_F(StreamOpening, VideoOnlyIsNoAudioStream)
{
    ScriptedServer radio({Whole(Media::Read(Media::Make(kVideoOnly, "video.ts")))});
    ExpectFailure(radio.Url(), "No audio stream found in radio source.");
    EXPECT_THAT(Releases(), ElementsAre("avformat_close_input"));
}

TEST_F(StreamOpening, VideoOnlyLeavesNothingOpen)
{
    ScriptedServer radio({Whole(Media::Read(Media::Make(kVideoOnly, "video.ts")))});
    const size_t before = Holdings().descriptors;
    Open(radio.Url());
    EXPECT_TRUE(Eventually([&] { return Holdings().descriptors == before; })); // the server's too
}

namespace
{

struct Failure
{
    const char* function;
    int code;
    const char* message;
    std::vector<std::string> releases; // of what lives at that point, in order
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.function;
}

class StreamOpeningFailure : public StreamOpening, public testing::WithParamInterface<Failure>
{
};

const std::vector<std::string> kDemuxer = {"avformat_close_input"};
const std::vector<std::string> kBoth = {"avcodec_free_context", "avformat_close_input"};

const Failure kFailures[] = {
    {"avformat_alloc_context", 0, "Failed to allocate radio stream context.", {}},
    {"avformat_open_input",
     AVERROR(ENOMEM),
     "Failed to open radio stream: Cannot allocate memory",
     {}},
    {"avformat_find_stream_info", AVERROR(EIO),
     "Failed to read radio stream info: Input/output error", kDemuxer},
    {"avcodec_find_decoder", 0, "No decoder available for this radio stream.", kDemuxer},
    {"avcodec_alloc_context3", 0, "Failed to allocate radio audio decoder.", kDemuxer},
    {"avcodec_parameters_to_context", AVERROR(EINVAL),
     "Failed to configure radio decoder: Invalid argument", kBoth},
    {"avcodec_open2", AVERROR(ENOSYS), "Failed to open radio decoder: Function not implemented",
     kBoth},
};

} // namespace

TEST_P(StreamOpeningFailure, SaysWhyAndLeavesNothingBehind)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    const FailingCall failing(GetParam().function, GetParam().code);
    ExpectFailure(radio.Url(), GetParam().message);
    EXPECT_TRUE(failing.Happened());
    EXPECT_EQ(Releases(), GetParam().releases);
}

TEST_P(StreamOpeningFailure, NeedsNoMessage)
{
    ScriptedServer radio({Whole(WavBytes(4800))});
    const FailingCall failing(GetParam().function, GetParam().code);
    EXPECT_FALSE(Open(radio.Url(), nullptr));
    ExpectNothingReturned();
    EXPECT_EQ(Releases(), GetParam().releases);
}

INSTANTIATE_TEST_SUITE_P(Steps, StreamOpeningFailure, testing::ValuesIn(kFailures),
                         [](const auto& failure) { return std::string(failure.param.function); });
