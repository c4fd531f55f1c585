// Titles while a stream plays: the server's own in the stream, and those of Ogg's tags.
#include "radio.h"

#include <algorithm>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr size_t kInterval = 8192; // bytes between two metadata blocks

class Titles : public Radio
{
protected:
    // The title of a stream that carries one block of metadata, right at its start.
    std::string TitleOf(const std::string& block)
    {
        PlayTitled({block}, 0.9);
        return reports.LastInfo().NowPlaying;
    }

    void PlayTitled(const std::vector<std::string>& blocks, double seconds)
    {
        PlayBytes(Interleave(WavBytes(Seconds(seconds)), kInterval, blocks),
                  {"icy-metaint: " + std::to_string(kInterval)});
    }

    void PlayBytes(const std::string& bytes, const std::vector<std::string>& headers = {})
    {
        PlayScripts({Whole(bytes, headers), NotFound()});
        ASSERT_TRUE(StepToRetry(1));
    }

    // What the stream pushed is what it holds: metadata never get into the sound.
    void ExpectSound(double seconds)
    {
        EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(seconds)));
    }
};

const std::string kNone(1, '\0'); // an empty block

std::vector<std::string> AtBlocks(size_t first, const std::string& a, size_t second,
                                  const std::string& b)
{
    std::vector<std::string> blocks(std::max(first, second) + 1, kNone);
    blocks[first] = a;
    blocks[second] = b;
    return blocks;
}

} // namespace

// --- In the stream

TEST_F(Titles, ChangeIsReportedAtOnce)
{
    PlayTitled(AtBlocks(0, TitleBlock("A"), 45, TitleBlock("B")), 1.5);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Playing 0", "Reconnecting 1 retry 1/300: End of file"));
    EXPECT_EQ(reports.All()[1].info.NowPlaying, "A");
    EXPECT_EQ(reports.All()[3].info.NowPlaying, "A");
    EXPECT_EQ(reports.All()[4].info.NowPlaying, "B");
    ExpectSound(1.5);
}

TEST_F(Titles, ChangeWhileBufferingIsReportedAsBuffering)
{
    PlayTitled(AtBlocks(0, TitleBlock("A"), 31, TitleBlock("B")), 0.69);
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Buffering 0",
                                     "Reconnecting 1 retry 1/300: End of file"));
    EXPECT_THAT(reports.Titles(), ElementsAre("A", "B"));
}

TEST_F(Titles, RepeatedTitleIsNoChange)
{
    PlayTitled(AtBlocks(0, TitleBlock("A"), 45, TitleBlock("A")), 1.5);
    EXPECT_EQ(reports.Count(StreamState::Playing), 2u);
}

TEST_F(Titles, EmptyTitleKeepsTheCurrentOne)
{
    PlayTitled(AtBlocks(0, TitleBlock("A"), 45, TitleBlock("")), 1.5);
    EXPECT_THAT(reports.Titles(), ElementsAre("A"));
    EXPECT_EQ(reports.Count(StreamState::Playing), 2u);
}

TEST_F(Titles, StreamWithoutTitlesHasNone)
{
    PlayTitled({}, 0.9);
    EXPECT_THAT(reports.Titles(), IsEmpty());
    EXPECT_EQ(reports.LastInfo().LastMetadataTime, "");
}

namespace
{

struct Title
{
    const char* name;
    std::string block;
    std::string expected;
};

const Title kTitles[] = {
    {"Plain", TitleBlock("Artist - Title"), "Artist - Title"},
    {"Quotes", TitleBlock("Don't say \"stop\""), "Don't say \"stop\""},
    {"Semicolons", TitleBlock("One; two; three"), "One; two; three"},
    {"Utf8", TitleBlock("Mot\xc3\xb6rhead"), "Mot\xc3\xb6rhead"},
    {"Latin1", TitleBlock("Mot\xf6rhead \xff\xfe"), "Mot\xf6rhead \xff\xfe"},
    {"ControlBytes", TitleBlock("A\tB\x01\x1b[31m"), "A\tB\x01\x1b[31m"},
    {"MoreKeys", MetadataBlock("StreamTitle='A';StreamUrl='http://localhost/';"), "A"},
    {"OtherOrder", MetadataBlock("StreamUrl='http://localhost/';StreamTitle='A';"), "A"},
    // FFmpeg takes the first end that it sees.
    {"EndInside", TitleBlock("It's the end';really"), "It's the end"},
    {"Longest", TitleBlock(std::string(255 * 16 - 15, 'x')), std::string(255 * 16 - 15, 'x')},
    {"OtherKeyOnly", MetadataBlock("StreamUrl='http://localhost/';"), ""},
    {"Unterminated", MetadataBlock("StreamTitle='A"), ""},
    {"NoKey", MetadataBlock("nonsense"), ""},
    {"Zeros", std::string(1, '\x02') + std::string(32, '\0'), ""},
};

void PrintTo(const Title& title, std::ostream* out)
{
    *out << title.name;
}

class TitleTexts : public Titles, public testing::WithParamInterface<Title>
{
};

} // namespace

TEST_P(TitleTexts, ArriveAsTheyWereSent)
{
    EXPECT_EQ(TitleOf(GetParam().block), GetParam().expected);
    ExpectSound(0.9);
}

INSTANTIATE_TEST_SUITE_P(Blocks, TitleTexts, testing::ValuesIn(kTitles),
                         [](const auto& title) { return std::string(title.param.name); });

TEST_F(Titles, HeadersThatAreNotUtf8ArriveAsTheyWereSent)
{
    PlayBytes(WavBytes(4800), {"icy-name: Radio Fran\xe7"
                               "ais \xff"});
    EXPECT_EQ(reports.LastInfo().IcyName, "Radio Fran\xe7"
                                          "ais \xff");
}

// --- In Ogg's tags

namespace
{

struct OggCodec
{
    const char* name;
    const char* arguments;
    bool bChains; // whether FFmpeg tells of the tags at a chain border
};

const OggCodec kOggCodecs[] = {
    {"Vorbis", "-c:a libvorbis", true},
    {"Opus", "-c:a libopus", true},
    {"Flac", "-c:a flac", false},
};

void PrintTo(const OggCodec& codec, std::ostream* out)
{
    *out << codec.name;
}

class OggTitles : public Titles, public testing::WithParamInterface<OggCodec>
{
protected:
    std::string Song(const std::string& tags, const std::string& more = "", double seconds = 0.9)
    {
        return Encoded(more + " " + tags + " " + GetParam().arguments + " -f ogg", "song.ogg",
                       seconds);
    }
};

std::string Tags(const std::string& artist, const std::string& title)
{
    return "-metadata artist='" + artist + "' -metadata title='" + title + "'";
}

} // namespace

TEST_P(OggTitles, AreArtistAndTitle)
{
    PlayBytes(Song(Tags("Artist", "Song")));
    EXPECT_THAT(reports.Titles(), ElementsAre("Artist - Song"));
    EXPECT_NE(reports.LastInfo().LastMetadataTime, "");
}

TEST_P(OggTitles, MayBeTheTitleAlone)
{
    PlayBytes(Song("-metadata title=Song"));
    EXPECT_THAT(reports.Titles(), ElementsAre("Song"));
}

TEST_P(OggTitles, NeedATitle)
{
    PlayBytes(Song("-metadata artist=Artist"));
    EXPECT_THAT(reports.Titles(), IsEmpty());
}

TEST_P(OggTitles, AreThereFromTheFirstReportOfTheConnection)
{
    PlayBytes(Song(Tags("Artist", "Song")));
    EXPECT_EQ(reports.All().at(1).info.NowPlaying, "Artist - Song");
}

TEST_P(OggTitles, GiveWayToTheServersOwn)
{
    const std::string bytes = Interleave(Song(Tags("Artist", "Song")), 512, {TitleBlock("Server")});
    PlayBytes(bytes, {"icy-metaint: 512"});
    EXPECT_THAT(reports.Titles(), ElementsAre("Server"));
}

TEST_P(OggTitles, ChangeAtAChainBorder)
{
    const std::string first = Song(Tags("One", "First"));
    const std::string second = Song(Tags("Two", "Second"));
    const std::string third = Song("-metadata title=Third");
    PlayBytes(first + second + third);
    if (GetParam().bChains)
        EXPECT_THAT(reports.Titles(), ElementsAre("One - First", "Two - Second", "Third"));
    else
        EXPECT_THAT(reports.Titles(), ElementsAre("One - First"));
}

// As most encoders but FFmpeg write them.
TEST_P(OggTitles, MayHaveNamesInCapitals)
{
    PlayBytes(Song("-metadata ARTIST=One -metadata TITLE=First") +
              Song("-metadata ARTIST=Two -metadata TITLE=Second"));
    if (GetParam().bChains)
        EXPECT_THAT(reports.Titles(), ElementsAre("One - First", "Two - Second"));
    else
        EXPECT_THAT(reports.Titles(), ElementsAre("One - First"));
}

TEST_P(OggTitles, ChainPlaysAllItsLinks)
{
    const std::string link = Song(Tags("A", "B"));
    PlayBytes(link + Song(Tags("C", "D")) + link);
    EXPECT_NEAR(static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate, 2.7, 0.1);
}

TEST_P(OggTitles, ChainOfOtherRateAndChannelsKeepsItsPitch)
{
    PlayBytes(Song(Tags("A", "B")) + Song(Tags("C", "D"), "-ac 1 -ar 24000") +
              Song(Tags("E", "F")));
    const std::vector<float> pushed = VirtualDevice::Last().pushed;
    EXPECT_NEAR(static_cast<double>(pushed.size()) / 2 / kRate, 2.7, 0.05);
    EXPECT_NEAR(static_cast<double>(Periods(pushed)), 2.7 * 440.0,
                10.0); // of the sine in each link
}

INSTANTIATE_TEST_SUITE_P(Codecs, OggTitles, testing::ValuesIn(kOggCodecs),
                         [](const auto& codec) { return std::string(codec.param.name); });

// --- Formats that change inside a connection

namespace
{

std::string Mp3(const std::string& more, const std::string& name)
{
    return Media::Read(Media::Make("-f lavfi -i sine=f=1000:d=1:r=48000 " + more +
                                       " -c:a libmp3lame -b:a 64k -write_xing 0 -id3v2_version 0",
                                   name));
}

} // namespace

TEST_F(Titles, Mp3ThatTurnsMonoPlaysOn)
{
    const std::string stereo = Mp3("-ac 2", "stereo.mp3");
    PlayBytes(stereo + Mp3("-ac 1", "mono.mp3") + stereo);
    const std::vector<float> pushed = VirtualDevice::Last().pushed;
    EXPECT_NEAR(static_cast<double>(pushed.size()) / 2 / kRate, 3.0, 0.2);
    EXPECT_NEAR(static_cast<double>(Periods(pushed)), 3000.0, 30.0);
}

TEST_F(Titles, Mp3ThatChangesItsRateKeepsItsPitch)
{
    PlayBytes(Mp3("-ac 2", "fast.mp3") + Mp3("-ac 2 -ar 32000", "slow.mp3"));
    const std::vector<float> pushed = VirtualDevice::Last().pushed;
    EXPECT_NEAR(static_cast<double>(pushed.size()) / 2 / kRate, 2.0, 0.2);
    EXPECT_NEAR(static_cast<double>(Periods(pushed)), 2000.0, 30.0);
}

// No resampler for the first frame of the other kind: the next one tries again.
TEST_F(Titles, FrameThatNoResamplerFitsIsSkipped)
{
    const std::string changing = Mp3("-ac 2", "stereo.mp3") + Mp3("-ac 1", "mono.mp3");
    PlayBytes(changing);
    const VirtualSink whole = VirtualDevice::Last();
    Stop();
    const FailingCall failing("swr_init", AVERROR(ENOMEM), 1);
    PlayBytes(changing);
    EXPECT_TRUE(failing.Happened());
    const VirtualSink skipping = VirtualDevice::Last();
    const auto border = std::mismatch(skipping.pushed.begin(), skipping.pushed.end(),
                                      whole.pushed.begin(), whole.pushed.end());
    EXPECT_EQ(skipping.pushedFrames.size(), whole.pushedFrames.size() - 1);
    EXPECT_TRUE(std::equal(border.first, skipping.pushed.end(), border.second + 1152 * 2,
                           whole.pushed.end()));
    EXPECT_EQ(player.LastError(), "");
}
