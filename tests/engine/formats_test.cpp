// Real and made files in every common codec and shape, compared with ffmpeg's own conversion.
#include "media.h"
#include "playback.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <fstream>

using testing::AnyOf;

namespace
{

// A noisy tone of its own for every channel.
std::string Source(int rate, const std::string& layout, int channels, double seconds)
{
    std::string tones;
    for (int i = 0; i < channels; ++i)
        tones += (i > 0 ? "|" : "") + ("0.4*sin(2*PI*t*" + std::to_string(330 + 110 * i)) +
                 ")+0.05*random(" + std::to_string(i) + ")";
    return "-f lavfi -i \"aevalsrc='" + tones + "':s=" + std::to_string(rate) + ":c=" + layout +
           ":d=" + std::to_string(seconds) + "\" ";
}

int ChannelsOf(const std::string& layout)
{
    if (layout == "mono")
        return 1;
    if (layout == "5.1")
        return 6;
    if (layout == "7.1")
        return 8;
    return layout == "stereo" ? 2 : 16;
}

class Formats : public Playback
{
protected:
    int RateOf(const std::string& path)
    {
        AVFormatContext* format = nullptr;
        AVCodecContext* codec = nullptr;
        int index = 0;
        if (!access.OpenDecoder(path, nullptr, &format, &codec, &index, nullptr))
            return 0;
        const int rate = codec->sample_rate;
        avcodec_free_context(&codec);
        avformat_close_input(&format);
        return rate;
    }

    // The whole file, played as fast as it goes.
    std::vector<float> Play(const std::string& path)
    {
        VirtualTime::SetFreeRunning(true);
        player.PlayFile(path);
        RunToEnd();
        return VirtualDevice::Last().pushed;
    }

    // Plays it and compares bit for bit; this many frames of it stay in the resampler at the end.
    void ExpectAsConverted(const std::string& path, size_t missingFrames, double gain = 1.0)
    {
        std::vector<float> expected = Media::Played(Media::Convert(path), gain);
        ASSERT_GT(expected.size(), missingFrames * 2);
        expected.resize(expected.size() - missingFrames * 2);
        const std::vector<float> played = Play(path);
        EXPECT_EQ(player.LastError(), "");
        ASSERT_EQ(played.size() / 2, expected.size() / 2);
        const auto differing = std::ranges::mismatch(played, expected);
        EXPECT_TRUE(differing.in1 == played.end())
            << "from sample " << differing.in1 - played.begin() << ": " << *differing.in1
            << " instead of " << *differing.in2;
    }
};

// What a resampler still holds at the end, in frames of the output: half its filter, which is 16
// frames of the slower of the two rates. Without a change of rate it holds nothing.
double KeptFrames(int rate)
{
    return rate == 48000 ? 0.0 : 16.0 * 48000 / std::min(rate, 48000);
}

// --- Made files

struct FormatCase
{
    const char* name;
    int rate;
    const char* layout;
    const char* options;
    const char* extension;
    size_t missingFrames; // KeptFrames of the rate, rounded as the end falls
    double gainDb = 0.0;
};

void PrintTo(const FormatCase& format, std::ostream* out)
{
    *out << format.name;
}

class MadeFile : public Formats, public testing::WithParamInterface<FormatCase>
{
};

} // namespace

TEST_P(MadeFile, PlaysAsFfmpegConvertsIt)
{
    const FormatCase& made = GetParam();
    ASSERT_LT(std::abs(static_cast<double>(made.missingFrames) - KeptFrames(made.rate)), 1.0);
    const std::string path =
        Media::Make(Source(made.rate, made.layout, ChannelsOf(made.layout), 0.7) + made.options,
                    std::string("made.") + made.extension);
    ExpectAsConverted(path, made.missingFrames, std::pow(10.0, made.gainDb / 20.0));
}

// One line a case.
// clang-format off
static const FormatCase kFormats[] = {
    {"WavS16Mono8k",       8000, "mono",   "-c:a pcm_s16le", "wav", 96},
    {"WavS16Stereo8k",     8000, "stereo", "-c:a pcm_s16le", "wav", 96},
    {"WavU8Mono11k",      11025, "mono",   "-c:a pcm_u8",    "wav", 70},
    {"WavS16Stereo22k",   22050, "stereo", "-c:a pcm_s16le", "wav", 34},
    {"WavS16Stereo32k",   32000, "stereo", "-c:a pcm_s16le", "wav", 24},
    {"WavS16Mono44k",     44100, "mono",   "-c:a pcm_s16le", "wav", 17},
    {"WavS16Stereo44k",   44100, "stereo", "-c:a pcm_s16le", "wav", 17},
    {"WavS16Surround44k", 44100, "5.1",    "-c:a pcm_s16le", "wav", 17},
    {"WavS16Mono48k",     48000, "mono",   "-c:a pcm_s16le", "wav", 0},
    {"WavS16Stereo48k",   48000, "stereo", "-c:a pcm_s16le", "wav", 0},
    {"WavS24Stereo44k",   44100, "stereo", "-c:a pcm_s24le", "wav", 17},
    {"WavS24Surround48k", 48000, "5.1",    "-c:a pcm_s24le", "wav", 0},
    {"WavS24Stereo96k",   96000, "stereo", "-c:a pcm_s24le", "wav", 16},
    {"WavS32Stereo88k",   88200, "stereo", "-c:a pcm_s32le", "wav", 16},
    {"WavF32Mono48k",     48000, "mono",   "-c:a pcm_f32le", "wav", 0},
    {"WavF32Stereo48k",   48000, "stereo", "-c:a pcm_f32le", "wav", 0},
    {"WavF32Surround96k", 96000, "5.1",    "-c:a pcm_f32le", "wav", 16},
    {"WavF32Stereo192k", 192000, "stereo", "-c:a pcm_f32le", "wav", 16},
    {"WavF64Stereo44k",   44100, "stereo", "-c:a pcm_f64le", "wav", 17},
    {"Wav71At48k",        48000, "7.1",    "-c:a pcm_s16le", "wav", 0},
    {"AiffStereo44k",     44100, "stereo", "",               "aiff", 17},
    {"FlacMono8k",         8000, "mono",   "", "flac", 96},
    {"FlacStereo44k",     44100, "stereo", "", "flac", 17},
    {"FlacStereo48k",     48000, "stereo", "", "flac", 0},
    {"FlacSurround48k",   48000, "5.1",    "", "flac", 0},
    {"FlacStereo96k",     96000, "stereo", "", "flac", 16},
    {"FlacMono192k",     192000, "mono",   "", "flac", 16},
    {"Mp3Mono8k",          8000, "mono",   "", "mp3", 96},
    {"Mp3Mono44k",        44100, "mono",   "", "mp3", 17},
    {"Mp3Stereo44k",      44100, "stereo", "", "mp3", 17},
    {"Mp3Stereo48k",      48000, "stereo", "", "mp3", 0},
    {"VorbisMono8k",       8000, "mono",   "-c:a libvorbis", "ogg", 96},
    {"VorbisStereo44k",   44100, "stereo", "-c:a libvorbis", "ogg", 18},
    {"VorbisStereo48k",   48000, "stereo", "-c:a libvorbis", "ogg", 0},
    {"VorbisSurround48k", 48000, "5.1",    "-c:a libvorbis", "ogg", 0},
    {"Vorbis16Channels",  48000, "hexadecagonal", "-c:a libvorbis", "ogg", 0},
    {"OpusMono48k",       48000, "mono",   "-c:a libopus", "opus", 0},
    {"OpusSpeech",        48000, "mono",   "-c:a libopus -b:a 8k -application voip", "opus", 0},
    {"OpusStereo48k",     48000, "stereo", "-c:a libopus", "opus", 0},
    {"OpusSurround48k",   48000, "5.1",    "-c:a libopus -mapping_family 1", "opus", 0},
    {"Opus16Channels",    48000, "hexadecagonal", "-c:a libopus -mapping_family 255", "opus", 0},
    {"AacMono44k",        44100, "mono",   "", "m4a", 18},
    {"AacStereo44k",      44100, "stereo", "", "m4a", 18},
    {"AacStereo48k",      48000, "stereo", "", "m4a", 0},
    {"AacSurround48k",    48000, "5.1",    "", "m4a", 0},
    {"AacStereo96k",      96000, "stereo", "", "m4a", 16},
    {"AdtsStereo44k",     44100, "stereo", "", "aac", 17},
    {"AlacStereo44k",     44100, "stereo", "-c:a alac", "m4a", 17},
    {"Ac3Mono48k",        48000, "mono",   "", "ac3", 0},
    {"Ac3Stereo44k",      44100, "stereo", "", "ac3", 17},
    {"Ac3Surround48k",    48000, "5.1",    "", "ac3", 0},
    {"Mp2Stereo48k",      48000, "stereo", "", "mp2", 0},
    {"WmaStereo44k",      44100, "stereo", "", "wma", 17},
    {"WavPackStereo44k",  44100, "stereo", "", "wv", 17},
    {"TtaStereo48k",      48000, "stereo", "", "tta", 0},
    {"FlacInMatroska",    48000, "stereo", "-c:a flac", "mka", 0},
    {"OpusInMatroska",    48000, "stereo", "-c:a libopus", "mka", 0},
    {"WavSimpleGain",     48000, "stereo", "-c:a flac -metadata REPLAYGAIN_TRACK_GAIN=+3.5", "mka", 0, 3.5},
    {"FlacTrackGain",     44100, "stereo", "-metadata REPLAYGAIN_TRACK_GAIN='-6.20 dB'", "flac", 17, -6.2},
    {"FlacAlbumGain",     48000, "5.1",    "-metadata replaygain_album_gain='-3 dB'", "flac", 0, -3.0},
    {"FlacLoudGain",      48000, "stereo", "-metadata REPLAYGAIN_TRACK_GAIN='+20 dB'", "flac", 0, 12.0},
    {"FlacUselessGain",   48000, "stereo", "-metadata REPLAYGAIN_TRACK_GAIN=unknown", "flac", 0, 0.0},
    {"Mp3TrackGain",      44100, "stereo", "-metadata REPLAYGAIN_TRACK_GAIN='-40 dB'", "mp3", 17, -24.0},
    {"VorbisTrackGain",   48000, "stereo", "-c:a libvorbis -metadata REPLAYGAIN_TRACK_GAIN='-1 dB'", "ogg", 0, -1.0},
    {"OpusTrackGain",     48000, "stereo", "-c:a libopus -metadata R128_TRACK_GAIN=-1280", "opus", 0, -5.0},
    {"AacTrackGain",      48000, "stereo", "-movflags use_metadata_tags -metadata REPLAYGAIN_TRACK_GAIN='-2 dB'", "m4a", 0, -2.0},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(All, MadeFile, testing::ValuesIn(kFormats),
                         [](const auto& testInfo) { return testInfo.param.name; });

// --- Cover art and films

namespace
{

class WithPicture : public Formats, public testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_P(WithPicture, PlaysTheSound)
{
    const std::string picture =
        Media::Make("-f lavfi -i testsrc=s=96x96:d=0.1 -frames:v 1", "cover.jpg");
    ExpectAsConverted(Media::Make(Source(48000, "stereo", 2, 0.5) + "-i '" + picture +
                                      "' -map 0:a -map 1:v -c:v copy "
                                      "-disposition:v:0 attached_pic",
                                  std::string("cover.") + GetParam()),
                      0);
}

INSTANTIATE_TEST_SUITE_P(All, WithPicture, testing::Values("mp3", "flac", "m4a"),
                         [](const auto& testInfo) { return testInfo.param; });

TEST_F(Formats, FilmIsHeard)
{
    ExpectAsConverted(Media::Make("-f lavfi -i testsrc=s=96x96:d=0.5 " +
                                      Source(48000, "stereo", 2, 0.5) +
                                      "-map 0:v -map 1:a -c:v mpeg4 -c:a aac",
                                  "film.mp4"),
                      0);
}

// --- Real recordings

TEST_F(Formats, RecordingsPlayAsFfmpegConvertsThem)
{
    if (!std::filesystem::exists(Media::Recordings()))
        GTEST_SKIP() << "sound-theme-freedesktop is not installed";
    for (const auto& entry : std::filesystem::directory_iterator(Media::Recordings()))
    {
        SCOPED_TRACE(entry.path());
        const std::vector<float> converted = Media::Played(Media::Convert(entry.path()));
        const std::vector<float> played = Play(entry.path());
        EXPECT_EQ(player.LastError(), "");
        ASSERT_LE(played.size(), converted.size());
        const double kept = KeptFrames(RateOf(entry.path()));
        EXPECT_THAT((converted.size() - played.size()) / 2,
                    AnyOf(static_cast<size_t>(kept), static_cast<size_t>(std::ceil(kept))));
        EXPECT_TRUE(std::equal(played.begin(), played.end(), converted.begin()));
    }
}

// --- Streams that change inside

namespace
{

struct ChangingStream
{
    const char* name;
    const char* encoder;
    const char* extension;
    const char* first; // rate and channels
    const char* second;
    // By how many frames the whole may differ from its parts played alone.
    size_t tolerance;
};

void PrintTo(const ChangingStream& stream, std::ostream* out)
{
    *out << stream.name;
}

// How often one side of [from, to) in seconds goes from negative to positive.
int Periods(const std::vector<float>& samples, double from, double to, size_t side = 0)
{
    int periods = 0;
    for (auto i = static_cast<size_t>(from * 48000) + 1; i < static_cast<size_t>(to * 48000); ++i)
        periods += samples.at(i * 2 - 2 + side) < 0.0f && samples.at(i * 2 + side) >= 0.0f;
    return periods;
}

class Changing : public Formats, public testing::WithParamInterface<ChangingStream>
{
protected:
    std::string Part(int hertz, const char* shape)
    {
        const ChangingStream& stream = GetParam();
        return Media::Make("-f lavfi -i sine=" + std::to_string(hertz) + ":d=0.5:r=48000 " + shape +
                               " -c:a " + stream.encoder,
                           "part" + std::to_string(hertz) + "." + stream.extension);
    }
};

} // namespace

TEST_P(Changing, PlaysOnAtTheRightPitch)
{
    const ChangingStream& stream = GetParam();
    const std::string first = Part(400, stream.first);
    const std::string second = Part(1000, stream.second);
    const size_t firstFrames = Play(first).size() / 2;
    const size_t frames = firstFrames + Play(second).size() / 2;

    const std::vector<float> whole = Play(Media::Write(std::string("whole.") + stream.extension,
                                                       Media::Read(first) + Media::Read(second)));
    EXPECT_NEAR(static_cast<double>(whole.size() / 2), static_cast<double>(frames),
                static_cast<double>(stream.tolerance));
    const double border = static_cast<double>(firstFrames) / 48000.0;
    EXPECT_NEAR(Periods(whole, 0.1, 0.4), 120, 1);
    EXPECT_NEAR(Periods(whole, border + 0.1, border + 0.4), 300, 1);
    EXPECT_EQ(player.LastError(), "");
}

// What may differ: each resampler that is replaced keeps up to 18 frames. The first MP3 or AAC
// frame behind a change of rate still carries the old one's, for 102 frames more or less. The first
// block of a chained Vorbis stream gives 128 samples; a chained Opus stream of the same shape keeps
// its 312 frames of pre-skip.
// clang-format off
#define MP3 "libmp3lame -write_xing 0 -id3v2_version 0", "mp3"
static const ChangingStream kChanging[] = {
    {"Mp3StereoMono",    MP3, "-ar 44100 -ac 2", "-ar 44100 -ac 1", 18},
    {"Mp3MonoStereo",    MP3, "-ar 44100 -ac 1", "-ar 44100 -ac 2", 18},
    {"Mp3RateUp",        MP3, "-ar 44100 -ac 2", "-ar 48000 -ac 2", 102 + 18},
    {"Mp3RateDown",      MP3, "-ar 48000 -ac 2", "-ar 44100 -ac 2", 102 + 18},
    {"Mp3Both",          MP3, "-ar 48000 -ac 1", "-ar 44100 -ac 2", 102 + 18},
    {"AdtsStereoMono",   "aac", "aac", "-ar 44100 -ac 2", "-ar 44100 -ac 1", 18},
    {"AdtsMonoStereo",   "aac", "aac", "-ar 44100 -ac 1", "-ar 44100 -ac 2", 18},
    {"AdtsRateUp",       "aac", "aac", "-ar 44100 -ac 2", "-ar 48000 -ac 2", 102 + 18},
    {"AdtsRateDown",     "aac", "aac", "-ar 48000 -ac 2", "-ar 44100 -ac 2", 102 + 18},
    {"VorbisSame",       "libvorbis", "ogg", "-ar 48000 -ac 2", "-ar 48000 -ac 2", 139 + 18},
    {"VorbisStereoMono", "libvorbis", "ogg", "-ar 44100 -ac 2", "-ar 44100 -ac 1", 139 + 18},
    {"VorbisMonoStereo", "libvorbis", "ogg", "-ar 44100 -ac 1", "-ar 44100 -ac 2", 139 + 18},
    {"VorbisRateUp",     "libvorbis", "ogg", "-ar 44100 -ac 2", "-ar 48000 -ac 2", 139 + 18},
    {"VorbisRateDown",   "libvorbis", "ogg", "-ar 48000 -ac 2", "-ar 44100 -ac 2", 139 + 18},
    {"OpusSame",         "libopus", "opus", "-ac 2", "-ac 2", 312},
    {"OpusStereoMono",   "libopus", "opus", "-ac 2", "-ac 1", 312},
    {"OpusMonoStereo",   "libopus", "opus", "-ac 1", "-ac 2", 312},
    {"OggFlacStereoMono", "flac", "ogg", "-ar 44100 -ac 2", "-ar 44100 -ac 1", 18},
    {"OggFlacRateDown",  "flac", "ogg", "-ar 48000 -ac 2", "-ar 44100 -ac 2", 18},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(All, Changing, testing::ValuesIn(kChanging),
                         [](const auto& testInfo) { return testInfo.param.name; });

// A mono frame has no second plane: a resampler for stereo would read one that is not there.
TEST_F(Formats, ChangeOfChannelsIsHeardOnBothSides)
{
    const auto part = [](const char* channels, const char* name)
    {
        return Media::Read(Media::Make(std::string("-f lavfi -i sine=400:d=0.5:r=48000 ") +
                                           channels + " -write_xing 0 -id3v2_version 0",
                                       name));
    };
    const std::vector<float> whole =
        Play(Media::Write("sides.mp3", part("-ac 2", "2.mp3") + part("-ac 1", "1.mp3")));
    for (size_t i = 48000 * 2; i < 48000 * 2 + 2000; i += 2)
        ASSERT_NEAR(whole.at(i), whole.at(i + 1), 1e-6);
}

// --- Odd shapes

TEST_F(Formats, SixteenInterleavedChannelsMixDown)
{
    const std::string path = Media::WriteWav("sixteen.wav", Ramp(4800, 16), 48000, 16);
    EXPECT_EQ(Play(path).size(), 4800u * 2);
    EXPECT_EQ(player.LastError(), "");
}

// A frame has room for eight planes and a list of all. Of those behind the eighth the library's mix
// to stereo takes only the next one, the back centre.
TEST_F(Formats, PlaneBehindTheEighthIsHeard)
{
    for (const int loud : {7, 8})
    {
        std::string tones;
        for (int i = 0; i < 24; ++i)
            tones += (i > 0 ? "|" : "") + std::string(i == loud ? "sin(2*PI*t*400)" : "0");
        const std::vector<float> played = Play(Media::Make(
            "-f lavfi -i \"aevalsrc='" + tones + "':s=48000:c=22.2:d=0.5\" -c:a libvorbis",
            "plane.ogg"));
        EXPECT_NEAR(std::max(Periods(played, 0.1, 0.4, 0), Periods(played, 0.1, 0.4, 1)), 120, 1)
            << loud;
    }
}

// A thousand frames of such a file are a quarter of an hour.
TEST_F(Formats, LowestRateOfAllPlays)
{
    const size_t frames = Play(Media::WriteWav("lowest.wav", Ramp(100, 2), 1, 2)).size() / 2;
    EXPECT_EQ(frames, (100 - 16) * 48000u);
    EXPECT_EQ(player.LastError(), "");
    EXPECT_EQ(player.DurationSeconds(), 100.0);
}

// One packet of this one would be four and a half hours at once.
TEST_F(Formats, FrameTooLongForMemoryIsAnError)
{
    const std::string noise(16384 * 4, 'x');
    const std::string raw = Media::Write("long.raw", noise);
    const std::string path = Media::Make(
        "-f s16le -ar 1 -ac 2 -i '" + raw + "' -c:a flac -frame_size 16384", "long.flac");
    EXPECT_EQ(Play(path).size(), 0u);
    EXPECT_EQ(player.LastError(), "Audio decode failed: Cannot allocate memory");
}

TEST_F(Formats, FrameThatMemoryDoesNotHoldIsAnError)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer ends the process where memory runs out";
#endif
    const std::string path = Media::WriteWav("memory.wav", Ramp(512, 2), 1, 2); // 196 MB
    uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit old{};
    getrlimit(RLIMIT_AS, &old);
    const rlimit lower{pages * 4096 + 150000000, old.rlim_max};
    setrlimit(RLIMIT_AS, &lower);
    const size_t samples = Play(path).size();
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(samples, 0u);
    EXPECT_EQ(player.LastError(), "Audio decode failed: Cannot allocate memory");
}

TEST_F(Formats, HighestRateOfAllPlays)
{
    ExpectAsConverted(Media::WriteWav("highest.wav", Ramp(76800, 2), 768000, 2), 16);
}

TEST_F(Formats, FileOfOneFramePlays)
{
    EXPECT_EQ(Play(Media::WriteWav("one.wav", {0.5f, -0.5f})),
              Media::Played(std::vector<float>{0.5f, -0.5f}));
}

TEST_F(Formats, FileWithoutAnyFrameEndsQuietly)
{
    EXPECT_EQ(Play(Media::WriteWav("none.wav", {})).size(), 0u);
    EXPECT_EQ(player.LastError(), "");
}

// --- Damage

TEST_F(Formats, FileCutBetweenFramesPlaysUpToThere)
{
    const std::string whole = Media::Wav(Ramp(9600, 2), 48000, 2);
    EXPECT_EQ(Play(Media::Write("cut.wav", whole.substr(0, 44 + 5000 * 8))),
              Media::Played(Ramp(5000, 2)));
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(Formats, FileCutInsideAFrameSaysSo)
{
    const std::string whole = Media::Wav(Ramp(9600, 2), 48000, 2);
    EXPECT_EQ(Play(Media::Write("cut.wav", whole.substr(0, 44 + 5000 * 8 + 3))),
              Media::Played(Ramp(5000, 2)));
    EXPECT_EQ(player.LastError(), "Audio decode failed: Invalid data found when processing input");
}

namespace
{

class Damaged : public Formats, public testing::WithParamInterface<const char*>
{
protected:
    std::string Whole() const
    {
        return Media::Read(
            Media::Make(Source(44100, "stereo", 2, 0.7), std::string("undamaged.") + GetParam()));
    }
    std::string Name() const { return std::string("damaged.") + GetParam(); }
};

} // namespace

TEST_P(Damaged, EndsAtAnyCut)
{
    const std::string whole = Whole();
    for (size_t part = 1; part < 16; ++part)
        Play(Media::Write(Name(), whole.substr(0, whole.size() * part / 16)));
    EXPECT_TRUE(player.HasFinished());
}

TEST_P(Damaged, EndsWithNoiseInTheMiddle)
{
    std::string bytes = Whole();
    for (size_t i = bytes.size() / 4; i < bytes.size() / 2; ++i)
        bytes[i] = static_cast<char>(i * 2654435761u >> 13);
    Play(Media::Write(Name(), bytes));
    EXPECT_TRUE(player.HasFinished());
    EXPECT_LE(VirtualDevice::Last().pushed.size(), 2u * 48000 * 2);
}

INSTANTIATE_TEST_SUITE_P(All, Damaged,
                         testing::Values("wav", "flac", "mp3", "ogg", "opus", "m4a", "aac", "ac3"),
                         [](const auto& testInfo) { return testInfo.param; });

TEST_F(Formats, Mp3CutInTheMiddlePlaysItsFirstHalf)
{
    const std::string whole =
        Media::Read(Media::Make("-f lavfi -i sine=400:d=1:r=48000 -b:a 128k", "half.mp3"));
    const std::vector<float> played =
        Play(Media::Write("half-cut.mp3", whole.substr(0, whole.size() / 2)));
    EXPECT_NEAR(static_cast<double>(played.size() / 2), 24000, 2 * 1152);
    EXPECT_NEAR(Periods(played, 0.1, 0.4), 120, 1);
}
