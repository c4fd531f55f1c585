// Tags: lookup, numbers, and the loudness gain that they ask for.
#include "internals.h"
#include "media.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <tuple>
#include <utility>
#include <vector>

using testing::DoubleNear;

namespace
{

using Tags = std::vector<std::pair<const char*, const char*>>;

// A dictionary of these entries, in this order, also where names repeat.
struct Dictionary
{
    AVDictionary* tags = nullptr;

    Dictionary(std::initializer_list<Tags::value_type> entries)
    {
        for (const auto& [key, value] : entries)
            av_dict_set(&tags, key, value, AV_DICT_MULTIKEY);
    }
    ~Dictionary() { av_dict_free(&tags); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    operator const AVDictionary*() const { return tags; }
};

// A container with these tags that holds one stream with those.
struct Container
{
    AVFormatContext* format = avformat_alloc_context();

    Container(const Tags& streamTags, const Tags& containerTags)
    {
        AVStream* stream = avformat_new_stream(format, nullptr);
        for (const auto& [key, value] : streamTags)
            av_dict_set(&stream->metadata, key, value, AV_DICT_MULTIKEY);
        for (const auto& [key, value] : containerTags)
            av_dict_set(&format->metadata, key, value, AV_DICT_MULTIKEY);
    }
    ~Container() { avformat_free_context(format); }
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    double Gain() const { return Internals::MetadataGainLinear(format, 0); }
};

double Linear(double dB)
{
    return std::pow(10.0, dB / 20.0);
}

// The number that a tag of this value holds; `kNone` where there is none.
constexpr double kNone = 12345.0;

double GainDb(const char* value)
{
    double out = kNone;
    const bool bFound = Internals::ReadMetadataGainDb(Dictionary{{"GAIN", value}}, "GAIN", out);
    EXPECT_EQ(bFound, out != kNone) << value;
    return out;
}

double R128Db(const char* value)
{
    double out = kNone;
    const bool bFound = Internals::ReadR128GainDb(Dictionary{{"GAIN", value}}, "GAIN", out);
    EXPECT_EQ(bFound, out != kNone) << value;
    return out;
}

} // namespace

// --- One key

TEST(MetadataValue, FindsTheValueOfAKey)
{
    const Dictionary tags{{"artist", "A"}, {"title", "T"}};
    EXPECT_EQ(Internals::MetadataValue(tags, "title"), "T");
}

TEST(MetadataValue, IgnoresCase)
{
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"Icy-Name", "N"}}, "icy-NAME"), "N");
}

TEST(MetadataValue, TakesTheFirstEntryThatBeginsWithTheKey)
{
    const Dictionary tags{{"other", "0"}, {"title-sort", "1"}, {"title", "2"}};
    EXPECT_EQ(Internals::MetadataValue(tags, "TITLE"), "1");
}

TEST(MetadataValue, TakesNoEntryThatTheKeyIsLongerThan)
{
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"titl", "1"}, {"subtitle", "2"}}, "title"), "");
}

TEST(MetadataValue, IsEmptyForAnEmptyValue)
{
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"title", ""}, {"title2", "x"}}, "title"), "");
}

TEST(MetadataValue, IsEmptyWithoutDictionaryOrKey)
{
    EXPECT_EQ(Internals::MetadataValue(nullptr, "title"), "");
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"title", "T"}}, nullptr), "");
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"title", "T"}}, "missing"), "");
}

TEST(MetadataValue, KeepsEveryByte)
{
    EXPECT_EQ(Internals::MetadataValue(Dictionary{{"t", " \xff\xc3\xa4\n "}}, "t"),
              " \xff\xc3\xa4\n ");
}

// --- The first of several keys

TEST(MetadataValueAny, TakesTheKeysInTheOrderGiven)
{
    const Dictionary tags{{"b", "B"}, {"a", "A"}};
    EXPECT_EQ(Internals::MetadataValueAny(tags, {"a", "b"}), "A");
}

TEST(MetadataValueAny, LetsNoEmptyValueHideALaterKey)
{
    const Dictionary tags{{"a", ""}, {"b", "B"}};
    EXPECT_EQ(Internals::MetadataValueAny(tags, {"a", "b"}), "B");
}

TEST(MetadataValueAny, SkipsANullKey)
{
    EXPECT_EQ(Internals::MetadataValueAny(Dictionary{{"b", "B"}}, {nullptr, "b"}), "B");
}

TEST(MetadataValueAny, IsEmptyWhereNoKeyHasAValue)
{
    EXPECT_EQ(Internals::MetadataValueAny(Dictionary{{"a", ""}}, {"a", "b"}), "");
    EXPECT_EQ(Internals::MetadataValueAny(Dictionary{{"a", "A"}}, {}), "");
    EXPECT_EQ(Internals::MetadataValueAny(nullptr, {"a"}), "");
}

// --- Numbers

TEST(GainTag, ReadsTheNumberAtTheStart)
{
    EXPECT_EQ(GainDb("-6.20 dB"), -6.2);
    EXPECT_EQ(GainDb("+3"), 3.0);
    EXPECT_EQ(GainDb(" \t1.5x"), 1.5);
    EXPECT_EQ(GainDb("1e1 dB"), 10.0);
    EXPECT_EQ(GainDb("-0"), 0.0);
    EXPECT_EQ(GainDb("0x10"), 16.0);
    EXPECT_EQ(GainDb(".5.5"), 0.5);
    EXPECT_EQ(GainDb("-6,5 dB"), -6.0);
}

TEST(GainTag, IsNotLimitedItself)
{
    EXPECT_EQ(GainDb("1000"), 1000.0);
    EXPECT_EQ(GainDb("1.7976931348623157e308"), 1.7976931348623157e308);
}

TEST(GainTag, RefusesWhatIsNoFiniteNumber)
{
    for (const char* value : {"", " ", "dB", "-", "--6", "+-6", "loud 6", "inf", "-inf", "infinity",
                              "INF dB", "nan", "-NAN", "nan(1)", "1e999", "-1e999"})
        EXPECT_EQ(GainDb(value), kNone) << value;
}

TEST(GainTag, NeedsADictionaryAndAnEntry)
{
    double out = kNone;
    EXPECT_FALSE(Internals::ReadMetadataGainDb(nullptr, "GAIN", out));
    EXPECT_FALSE(Internals::ReadMetadataGainDb(Dictionary{{"OTHER", "1"}}, "GAIN", out));
    EXPECT_FALSE(Internals::ReadR128GainDb(nullptr, "GAIN", out));
    EXPECT_FALSE(Internals::ReadR128GainDb(Dictionary{{"OTHER", "1"}}, "GAIN", out));
    EXPECT_EQ(out, kNone);
}

TEST(GainTag, CountsR128InSteps)
{
    EXPECT_EQ(R128Db("-1280"), -5.0);
    EXPECT_EQ(R128Db("256"), 1.0);
    EXPECT_EQ(R128Db("1"), 0.00390625);
    EXPECT_EQ(R128Db("-1280 etc"), -5.0);
}

TEST(GainTag, RefusesR128ThatIsNoFiniteNumber)
{
    for (const char* value : {"", "dB", "inf", "nan", "1e999"})
        EXPECT_EQ(R128Db(value), kNone) << value;
}

// Where "1.5" is written "1,5" the C library's own conversion would stop at the point.
TEST(GainTag, ReadsThePointInEveryLocale)
{
    const std::string directory = Media::Directory() / "locales";
    std::filesystem::create_directory(directory);
    std::ignore = std::system(
        ("localedef -i de_DE -f UTF-8 --no-archive '" + directory + "/de_DE.UTF-8' 2>/dev/null")
            .c_str());
    setenv("LOCPATH", directory.c_str(), 1);
    const bool bComma = std::setlocale(LC_ALL, "de_DE.UTF-8") && std::strtod("1,5", nullptr) == 1.5;
    const double read = GainDb("-6.5 dB");
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    if (!bComma)
        GTEST_SKIP() << "no locale with a decimal comma";
    EXPECT_EQ(read, -6.5);
}

// --- The gain

namespace
{

struct GainCase
{
    const char* name;
    Tags stream;
    Tags container;
    double dB;
};

void PrintTo(const GainCase& gain, std::ostream* out)
{
    *out << gain.name;
}

class LoudnessGain : public testing::TestWithParam<GainCase>
{
};

} // namespace

TEST_P(LoudnessGain, IsTheOneThatTheTagsAskFor)
{
    const GainCase& gain = GetParam();
    EXPECT_EQ(Container(gain.stream, gain.container).Gain(), Linear(gain.dB));
}

static const std::vector<GainCase> kGains = {
    {"TrackGain", {{"REPLAYGAIN_TRACK_GAIN", "-6.02 dB"}}, {}, -6.02},
    {"LowerCase", {{"replaygain_track_gain", "-3 dB"}}, {}, -3},
    {"MixedCase", {{"ReplayGain_Track_Gain", "-3 dB"}}, {}, -3},
    {"AlbumGain", {{"REPLAYGAIN_ALBUM_GAIN", "-4 dB"}}, {}, -4},
    {"LowerCaseAlbum", {{"replaygain_album_gain", "-4 dB"}}, {}, -4},
    {"R128Track", {{"R128_TRACK_GAIN", "-1280"}}, {}, -5},
    {"R128Album", {{"R128_ALBUM_GAIN", "-512"}}, {}, -2},
    {"ContainerOnly", {}, {{"REPLAYGAIN_TRACK_GAIN", "-7"}}, -7},
    {"ContainerR128", {}, {{"r128_track_gain", "512"}}, 2},
    {"TrackBeforeAlbum",
     {{"REPLAYGAIN_ALBUM_GAIN", "-1"}, {"REPLAYGAIN_TRACK_GAIN", "-2"}},
     {},
     -2},
    {"AlbumBeforeR128", {{"R128_TRACK_GAIN", "256"}, {"REPLAYGAIN_ALBUM_GAIN", "-1"}}, {}, -1},
    {"R128TrackBeforeAlbum", {{"R128_ALBUM_GAIN", "256"}, {"R128_TRACK_GAIN", "512"}}, {}, 2},
    {"StreamBeforeContainer",
     {{"REPLAYGAIN_ALBUM_GAIN", "-1"}},
     {{"REPLAYGAIN_TRACK_GAIN", "-2"}},
     -1},
    {"WorstOfStreamBeforeBestOfContainer",
     {{"R128_ALBUM_GAIN", "256"}},
     {{"REPLAYGAIN_TRACK_GAIN", "-2"}},
     1},
    {"Suffix", {{"REPLAYGAIN_TRACK_GAIN_OLD", "-8"}}, {}, -8},
    {"ClampedAbove", {{"REPLAYGAIN_TRACK_GAIN", "20"}}, {}, 12},
    {"ClampedBelow", {{"REPLAYGAIN_TRACK_GAIN", "-40"}}, {}, -24},
    {"AtUpperBound", {{"REPLAYGAIN_TRACK_GAIN", "12"}}, {}, 12},
    {"AtLowerBound", {{"REPLAYGAIN_TRACK_GAIN", "-24"}}, {}, -24},
    {"R128ClampedAbove", {{"R128_TRACK_GAIN", "32767"}}, {}, 12},
    {"R128ClampedBelow", {{"R128_TRACK_GAIN", "-32768"}}, {}, -24},
    {"Zero", {{"REPLAYGAIN_TRACK_GAIN", "0.00 dB"}, {"REPLAYGAIN_ALBUM_GAIN", "-9"}}, {}, 0},
    {"GarbageSkipped",
     {{"REPLAYGAIN_TRACK_GAIN", "loud"}, {"REPLAYGAIN_ALBUM_GAIN", "-1"}},
     {},
     -1},
    {"EmptySkipped", {{"REPLAYGAIN_TRACK_GAIN", ""}, {"REPLAYGAIN_ALBUM_GAIN", "-1"}}, {}, -1},
    {"InfinitySkipped", {{"REPLAYGAIN_TRACK_GAIN", "-inf"}, {"R128_TRACK_GAIN", "256"}}, {}, 1},
    {"NanSkipped", {{"R128_TRACK_GAIN", "nan"}, {"R128_ALBUM_GAIN", "256"}}, {}, 1},
    {"GarbageSkippedToTheContainer",
     {{"REPLAYGAIN_TRACK_GAIN", "loud"}},
     {{"R128_ALBUM_GAIN", "256"}},
     1},
    {"PeakIsNoGain", {{"REPLAYGAIN_TRACK_PEAK", "0.5"}}, {}, 0},
    {"NoTags", {}, {}, 0},
    {"OnlyGarbage", {{"REPLAYGAIN_TRACK_GAIN", "x"}}, {{"R128_TRACK_GAIN", ""}}, 0},
};
INSTANTIATE_TEST_SUITE_P(All, LoudnessGain, testing::ValuesIn(kGains),
                         [](const auto& testInfo) { return testInfo.param.name; });

TEST(LoudnessGainFactor, IsWhatTheDecibelsMean)
{
    EXPECT_THAT(Container({{"REPLAYGAIN_TRACK_GAIN", "-6.02 dB"}}, {}).Gain(),
                DoubleNear(0.5, 1e-4));
    EXPECT_THAT(Container({{"REPLAYGAIN_TRACK_GAIN", "20"}}, {}).Gain(), DoubleNear(3.981, 1e-3));
    EXPECT_THAT(Container({{"REPLAYGAIN_TRACK_GAIN", "-40"}}, {}).Gain(), DoubleNear(0.0631, 1e-4));
    EXPECT_THAT(Container({{"R128_TRACK_GAIN", "-1280"}}, {}).Gain(), DoubleNear(0.5623, 1e-4));
}

TEST(LoudnessGainFactor, IsOneWithoutAStream)
{
    const Container container({{"REPLAYGAIN_TRACK_GAIN", "-6"}}, {{"R128_TRACK_GAIN", "-6"}});
    for (const int index : {-1, 1, 2, INT_MAX, INT_MIN})
        EXPECT_EQ(Internals::MetadataGainLinear(container.format, index), 1.0) << index;
    EXPECT_EQ(Internals::MetadataGainLinear(nullptr, 0), 1.0);
}

TEST(LoudnessGainFactor, TakesTheContainerWhereTheStreamEntryIsNull)
{
    const Container container({}, {{"REPLAYGAIN_TRACK_GAIN", "-6"}});
    AVStream* const stream = std::exchange(container.format->streams[0], nullptr);
    const double gain = container.Gain();
    container.format->streams[0] = stream;
    EXPECT_EQ(gain, Linear(-6.0));
}
