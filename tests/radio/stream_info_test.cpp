// The description of a stream: where each of its fields comes from, and when it changes.
#include "radio.h"

#include <ctime>

using testing::AnyOf;
using testing::MatchesRegex;

namespace
{

// Not std::time, whose clock is coarse: for some milliseconds it still tells the last second.
std::time_t SystemTime()
{
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

std::string LocalTime()
{
    const std::time_t now = SystemTime();
    std::tm local{};
    localtime_r(&now, &local);
    char text[16] = {};
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

class Description : public testing::Test
{
protected:
    Description() { format->iformat = av_find_input_format("mp3"); }
    ~Description() override
    {
        avformat_free_context(format);
        avcodec_free_context(&codec);
    }

    void Fill() { Internals::FillStreamInfo(info, format, codec); }
    void Tag(const char* key, const char* value) { av_dict_set(&format->metadata, key, value, 0); }

    StreamInfo info;
    AVFormatContext* format = avformat_alloc_context();
    AVCodecContext* codec = avcodec_alloc_context3(nullptr);
};

} // namespace

TEST(StreamDescription, StatesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(StreamState::Idle), 0);
    EXPECT_EQ(static_cast<int>(StreamState::Connecting), 1);
    EXPECT_EQ(static_cast<int>(StreamState::Buffering), 2);
    EXPECT_EQ(static_cast<int>(StreamState::Playing), 3);
    EXPECT_EQ(static_cast<int>(StreamState::Reconnecting), 4);
    EXPECT_EQ(static_cast<int>(StreamState::Error), 5);
    EXPECT_EQ(static_cast<int>(StreamState::Stopped), 6);
    EXPECT_EQ(sizeof(StreamState), sizeof(int));
}

TEST(StreamDescription, StartsEmpty)
{
    const StreamInfo info;
    for (const std::string& text :
         {info.Codec, info.Format, info.ContentType, info.IcyName, info.IcyGenre, info.IcyBitrate,
          info.IcySampleRate, info.IcyUrl, info.IcyPublic, info.IcyNotice1, info.IcyNotice2,
          info.NowPlaying, info.LastMetadataTime})
        EXPECT_EQ(text, "");
    for (const int number : {info.BitRate, info.SampleRate, info.Channels, info.ReconnectAttempt,
                             info.MaxReconnectAttempts})
        EXPECT_EQ(number, 0);
}

TEST_F(Description, NullContextsLeaveTheRecordAlone)
{
    Tag("icy-name", "new");
    info.IcyName = "old";
    info.Codec = "old";
    Internals::FillStreamInfo(info, nullptr, codec);
    Internals::FillStreamInfo(info, format, nullptr);
    Internals::FillStreamInfo(info, nullptr, nullptr);
    EXPECT_EQ(info.IcyName, "old");
    EXPECT_EQ(info.Codec, "old");
}

TEST_F(Description, NeverTouchesTheAttemptCounts)
{
    info.ReconnectAttempt = 7;
    info.MaxReconnectAttempts = 8;
    Fill();
    EXPECT_EQ(info.ReconnectAttempt, 7);
    EXPECT_EQ(info.MaxReconnectAttempts, 8);
}

TEST_F(Description, CodecIsTheShortName)
{
    codec->codec_id = AV_CODEC_ID_AAC;
    Fill();
    EXPECT_EQ(info.Codec, "aac");
}

TEST_F(Description, FormatIsTheLongName)
{
    Fill();
    EXPECT_EQ(info.Format, "MP2/3 (MPEG audio layer 2/3)");
}

TEST_F(Description, FormatFallsBackToTheShortNameAndToNothing)
{
    AVInputFormat input{};
    input.name = "short";
    format->iformat = &input;
    Fill();
    EXPECT_EQ(info.Format, "short");
    input.name = nullptr;
    Fill();
    EXPECT_EQ(info.Format, "");
    info.Format = "old";
    format->iformat = nullptr;
    Fill();
    EXPECT_EQ(info.Format, "");
}

TEST_F(Description, BitRateIsTheDecodersThenTheContainersThenUnknown)
{
    codec->bit_rate = 64000;
    format->bit_rate = 128000;
    Fill();
    EXPECT_EQ(info.BitRate, 64000);
    codec->bit_rate = 0;
    Fill();
    EXPECT_EQ(info.BitRate, 128000);
    codec->bit_rate = -1;
    format->bit_rate = -1;
    Fill();
    EXPECT_EQ(info.BitRate, 0);
}

TEST_F(Description, SmallestBitRateCounts)
{
    codec->bit_rate = 1;
    format->bit_rate = 128000;
    Fill();
    EXPECT_EQ(info.BitRate, 1);
}

TEST_F(Description, BitRateKeepsItsLow32Bits)
{
    codec->bit_rate = (int64_t{5} << 32) + 1234;
    Fill();
    EXPECT_EQ(info.BitRate, 1234);
}

TEST_F(Description, RateAndChannelsAreTheDecoders)
{
    codec->sample_rate = 22050;
    av_channel_layout_default(&codec->ch_layout, 6);
    Fill();
    EXPECT_EQ(info.SampleRate, 22050);
    EXPECT_EQ(info.Channels, 6);
}

namespace
{

struct Header
{
    const char* name;
    std::string StreamInfo::*field;
    std::vector<const char*> keys; // the preferred one first
};

const Header kHeaders[] = {
    {"Name", &StreamInfo::IcyName, {"icy-name", "icy_name"}},
    {"Genre", &StreamInfo::IcyGenre, {"icy-genre", "icy_genre"}},
    {"Bitrate", &StreamInfo::IcyBitrate, {"icy-br", "icy-bitrate", "icy_bitrate"}},
    {"SampleRate", &StreamInfo::IcySampleRate, {"icy-sr", "icy-samplerate", "icy_samplerate"}},
    {"Url", &StreamInfo::IcyUrl, {"icy-url", "icy_url"}},
    {"Public", &StreamInfo::IcyPublic, {"icy-pub", "icy_public"}},
    {"Notice1", &StreamInfo::IcyNotice1, {"icy-notice1", "icy_notice1"}},
    {"Notice2", &StreamInfo::IcyNotice2, {"icy-notice2", "icy_notice2"}},
    {"ContentType", &StreamInfo::ContentType, {"content-type", "mime-type"}},
};

void PrintTo(const Header& header, std::ostream* out)
{
    *out << header.name;
}

class DescriptionHeader : public Description, public testing::WithParamInterface<Header>
{
protected:
    const std::string& Field() const { return info.*GetParam().field; }
};

} // namespace

TEST_P(DescriptionHeader, EachKeyServesAlone)
{
    for (const char* key : GetParam().keys)
    {
        Tag(key, key);
        Fill();
        EXPECT_EQ(Field(), key);
        Tag(key, nullptr);
    }
}

TEST_P(DescriptionHeader, EarlierKeysWin)
{
    for (auto key = GetParam().keys.rbegin(); key != GetParam().keys.rend(); ++key)
    {
        Tag(*key, *key);
        Fill();
        EXPECT_EQ(Field(), *key);
    }
}

TEST_P(DescriptionHeader, DisappearingHeaderClearsItsField)
{
    info.*GetParam().field = "of the last connection";
    Fill();
    EXPECT_EQ(Field(), "");
}

TEST_P(DescriptionHeader, TextIsKeptAsItCame)
{
    Tag(GetParam().keys[0], " 128, \xff\xfe;' 192 ");
    Fill();
    EXPECT_EQ(Field(), " 128, \xff\xfe;' 192 ");
}

INSTANTIATE_TEST_SUITE_P(Headers, DescriptionHeader, testing::ValuesIn(kHeaders),
                         [](const auto& header) { return std::string(header.param.name); });

TEST_F(Description, ContentTypeIsFoundInEitherCase)
{
    Tag("Content-Type", "audio/mpeg");
    Fill();
    EXPECT_EQ(info.ContentType, "audio/mpeg");
}

TEST_F(Description, TitleIsTakenWithTheTimeOfItsChange)
{
    const std::string before = LocalTime();
    Tag("StreamTitle", "Artist - Title");
    Fill();
    EXPECT_EQ(info.NowPlaying, "Artist - Title");
    EXPECT_THAT(info.LastMetadataTime, AnyOf(before, LocalTime()));
    EXPECT_THAT(info.LastMetadataTime, MatchesRegex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"));
}

TEST_F(Description, TimeIsLocal)
{
    setenv("TZ", "TST-5:17", 1); // 5 hours 17 minutes east of Greenwich
    tzset();
    const auto shifted = []
    {
        const std::time_t east = SystemTime() + (5 * 60 + 17) * 60;
        std::tm utc{};
        gmtime_r(&east, &utc);
        char text[16] = {};
        std::strftime(text, sizeof text, "%H:%M:%S", &utc);
        return std::string(text);
    };
    const std::string before = shifted();
    Tag("StreamTitle", "A");
    Fill();
    const std::string after = shifted();
    unsetenv("TZ");
    tzset();
    EXPECT_THAT(info.LastMetadataTime, AnyOf(before, after));
}

TEST_F(Description, LowerCaseTitleKeyServesToo)
{
    Tag("streamtitle", "A");
    Fill();
    EXPECT_EQ(info.NowPlaying, "A");
}

TEST_F(Description, SameTitleKeepsItsTime)
{
    info.NowPlaying = "A";
    info.LastMetadataTime = "earlier";
    Tag("StreamTitle", "A");
    Fill();
    EXPECT_EQ(info.LastMetadataTime, "earlier");
}

TEST_F(Description, OtherTitleRefreshesTheTime)
{
    info.NowPlaying = "A";
    info.LastMetadataTime = "earlier";
    Tag("StreamTitle", "a");
    Fill();
    EXPECT_EQ(info.NowPlaying, "a");
    EXPECT_NE(info.LastMetadataTime, "earlier");
}

TEST_F(Description, MissingAndEmptyTitlesKeepTheCurrentOne)
{
    info.NowPlaying = "A";
    info.LastMetadataTime = "earlier";
    Fill();
    Tag("StreamTitle", "");
    Fill();
    EXPECT_EQ(info.NowPlaying, "A");
    EXPECT_EQ(info.LastMetadataTime, "earlier");
}

TEST_F(Description, RestIsRefreshedUnderAnUnchangedTitle)
{
    info.NowPlaying = "A";
    Tag("StreamTitle", "A");
    Tag("icy-name", "Station");
    codec->sample_rate = 44100;
    Fill();
    EXPECT_EQ(info.IcyName, "Station");
    EXPECT_EQ(info.SampleRate, 44100);
}
