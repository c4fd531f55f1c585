// Radio on a real daemon: what a server sends is what is heard, whatever becomes of the connection.
#include "harness.h"
#include "icecast.h"
#include "scripted_server.h"

#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace
{

using StreamState = TovrelAudioPlayer::StreamState;
using StreamInfo = TovrelAudioPlayer::StreamInfo;

constexpr size_t kSecond = kSinkRate; // in frames
constexpr size_t kFrameBytes = kSinkChannels * sizeof(float);
constexpr std::chrono::milliseconds kStopLimit{250}; // of a radio playback, in every phase

// What may still be heard of the old after a stop: what the graph has taken, two cycles, and what
// plays until the call gets there.
constexpr size_t kStaleLimitFrames = 4 * kQuantum;

// --- What the player tells ----------------------------------------------------------------------

class Reports
{
public:
    // `extra`, where there is one, is run on the worker with the line of every report.
    explicit Reports(std::function<void(const std::string&)> extra = {}) : m_extra(std::move(extra))
    {
    }

    TovrelAudioPlayer::StreamStatusCallback Callback()
    {
        return [this](StreamState state, const StreamInfo& info, const std::string& text)
        {
            const std::string line = Line(state, info, text);
            Store(line, info);
            if (m_extra)
                m_extra(line);
        };
    }

    // State, attempt count and text of each report, without the repetitions of the heartbeat.
    std::vector<std::string> Lines() const
    {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }

    // Every title, in their order.
    std::vector<std::string> Titles() const
    {
        const std::lock_guard lock(m_mutex);
        return m_titles;
    }

    StreamInfo Info() const
    {
        const std::lock_guard lock(m_mutex);
        return m_info;
    }

    [[nodiscard]] bool WaitForLine(const std::string& line) const
    {
        return WaitUntil(
            [&]
            {
                const std::vector<std::string> lines = Lines();
                return std::find(lines.begin(), lines.end(), line) != lines.end();
            });
    }

    [[nodiscard]] bool WaitForTitle(const std::string& title) const
    {
        return WaitUntil([&] { return Info().NowPlaying == title; });
    }

private:
    static std::string Line(StreamState state, const StreamInfo& info, const std::string& text)
    {
        static constexpr std::array kNames = {"Idle",         "Connecting", "Buffering", "Playing",
                                              "Reconnecting", "Error",      "Stopped"};
        return std::string(kNames[static_cast<size_t>(state)]) + " " +
               std::to_string(info.ReconnectAttempt) + (text.empty() ? "" : " ") + text;
    }

    void Store(const std::string& line, const StreamInfo& info)
    {
        const std::lock_guard lock(m_mutex);
        if (m_lines.empty() || m_lines.back() != line)
            m_lines.push_back(line);
        const std::string last = m_titles.empty() ? "" : m_titles.back();
        if (info.NowPlaying != last)
            m_titles.push_back(info.NowPlaying);
        m_info = info;
    }

    std::function<void(const std::string&)> m_extra;
    mutable std::mutex m_mutex; // guards the three below
    std::vector<std::string> m_lines;
    std::vector<std::string> m_titles;
    StreamInfo m_info;
};

using Lines = std::vector<std::string>;

// --- A live stream of the indexed signal --------------------------------------------------------

template <typename Number>
void Append(std::string& bytes, Number number)
{
    std::array<char, sizeof number> little;
    std::memcpy(little.data(), &number, sizeof number);
    bytes.append(little.data(), little.size());
}

constexpr uint32_t kNoEnd = std::numeric_limits<int32_t>::max(); // of a WAV file, in bytes

// The head of a WAV file of the sink's format, which passes to the sink bit for bit. It has no end
// that anybody sees where no number of bytes is given.
std::string WavHead(uint32_t bytes = kNoEnd)
{
    constexpr uint16_t kFloat = 3;
    std::string head = "RIFF";
    Append(head, kNoEnd);
    head += "WAVEfmt ";
    Append(head, uint32_t{16});
    Append(head, kFloat);
    Append(head, uint16_t{kSinkChannels});
    Append(head, uint32_t{kSinkRate});
    Append(head, uint32_t{kSinkRate * kFrameBytes});
    Append(head, uint16_t{kFrameBytes});
    Append(head, uint16_t{8 * sizeof(float)});
    head += "data";
    Append(head, bytes);
    return head;
}

std::string IndexedBytes(size_t first, size_t count)
{
    const std::vector<float> samples = IndexedFrames(first, count);
    return {reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(float)};
}

// Silence in real time until somebody hangs up. It keeps a station on the air whose sound is over.
Step SendSilence()
{
    static constexpr int kPaceMs = 20;
    return [](Connection& connection)
    {
        const std::string piece(kSinkRate * kFrameBytes * kPaceMs / 1000, '\0');
        while (connection.Send(piece))
            connection.Wait(std::chrono::milliseconds(kPaceMs));
    };
}

Step WaitMs(int milliseconds)
{
    return [=](Connection& connection)
    {
        connection.Wait(std::chrono::milliseconds(milliseconds));
    };
}

// A station that sends these frames at once, and is silent after.
Script Station(size_t first, size_t count)
{
    Script script = Live(WavHead() + IndexedBytes(first, count), {"Content-Type: audio/wav"});
    script.push_back(SendSilence());
    return script;
}

// Whether frames are on their way to the sink.
[[nodiscard]] bool WaitForSound(const Reports& reports, int attempt = 0)
{
    return reports.WaitForLine("Playing " + std::to_string(attempt));
}

// --- From the first frame on --------------------------------------------------------------------

// With a server that keeps silent for a while when it has sent most of the start buffer.
void ExpectNothingBeforeTheStartBuffer(const std::function<void(TovrelAudioPlayer&)>& meanwhile)
{
    constexpr size_t kBefore = kSecond * 6 / 10;
    constexpr size_t kTotal = 2 * kSecond;
    MonitorRecording recording;
    std::atomic<size_t> goneOnAt{0};
    Script script = Live(WavHead() + IndexedBytes(0, kBefore));
    script.push_back(WaitMs(1200));
    script.push_back([&](Connection&) { goneOnAt = recording.Now(); });
    script.push_back(Send(IndexedBytes(kBefore, kTotal - kBefore)));
    script.push_back(SendSilence());
    const ScriptedServer server({script});
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(reports.WaitForLine("Buffering 0"));
    meanwhile(player);
    ASSERT_TRUE(WaitForSound(reports));
    recording.AwaitSound();
    recording.AwaitMore(kTotal + kSecond / 2);
    player.Stop();
    const Heard heard = FindIndexed(recording.Finish(), 0, kTotal);
    EXPECT_TRUE(IsComplete(heard));
    ASSERT_FALSE(heard.positions.empty());
    EXPECT_GE(heard.positions.front(), goneOnAt);
    EXPECT_EQ(heard.gaps, 0u);
    EXPECT_EQ(reports.Lines(), (Lines{"Connecting 0", "Buffering 0", "Playing 0", "Stopped 0"}));
}

TEST(RadioSound, NothingIsHeardBeforeTheStartBufferIsFull)
{
    ExpectNothingBeforeTheStartBuffer([](TovrelAudioPlayer&) {});
}

TEST(RadioPause, ThatEndsWhileItBuffersLeavesItBuffering)
{
    ExpectNothingBeforeTheStartBuffer(
        [](TovrelAudioPlayer& player)
        {
            SleepMs(300);
            player.SetPaused(true);
            SleepMs(50);
            player.SetPaused(false);
        });
}

TEST(RadioSound, BurstThenRealTimeIsHeardOnceAndWithoutAGap)
{
    constexpr size_t kBurst = kSecond;
    constexpr size_t kTotal = 3 * kSecond;
    Script script = Live(WavHead() + IndexedBytes(0, kBurst));
    script.push_back(SendPaced(IndexedBytes(kBurst, kTotal - kBurst), kSinkRate * kFrameBytes));
    script.push_back(SendSilence());
    const ScriptedServer server({script});
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    recording.AwaitSound();
    recording.AwaitMore(kTotal + kSecond / 2);
    player.Stop();
    const Heard heard = FindIndexed(recording.Finish(), 0, kTotal);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_EQ(heard.gaps, 0u);
}

TEST(RadioPause, LosesAndRepeatsNothing)
{
    constexpr size_t kTotal = 3 * kSecond;
    constexpr size_t kPause = 6 * kQuantum;
    const ScriptedServer server({Station(0, kTotal)});
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    for (int pause = 0; pause < 3; ++pause)
    {
        recording.AwaitSound();
        recording.AwaitMore(kSecond / 4);
        player.SetPaused(true);
        recording.AwaitSilence(kPause);
        player.SetPaused(false);
    }
    recording.AwaitMore(kTotal);
    player.Stop();
    const Heard heard = FindIndexed(recording.Finish(), 0, kTotal);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.gaps, 3u);
    EXPECT_GE(heard.longestGap, kPause);
}

// --- Stop ---------------------------------------------------------------------------------------

TEST(RadioStop, LeavesSilence)
{
    const ScriptedServer server({Station(0, 10 * kSecond)});
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    recording.AwaitSound();
    recording.AwaitMore(kSecond / 2);
    const size_t stopAt = recording.Now();
    const auto taken = DurationOf([&] { player.Stop(); });
    const Heard heard = FindIndexed(recording.Finish(kSecond / 2), 0, 10 * kSecond);
    ASSERT_FALSE(heard.positions.empty());
    std::cout << "Stop took " << taken.count() << " ms, the last sound came "
              << static_cast<long>(heard.positions.back()) - static_cast<long>(stopAt)
              << " frames after its call\n";
    EXPECT_LE(heard.positions.back(), stopAt + kStaleLimitFrames);
    EXPECT_EQ(heard.missingAtStart + heard.lostBetween + heard.repeated, 0u);
    EXPECT_LE(taken.count(), (kStopLimit + kSlack).count());
}

TEST(RadioStop, LeavesNoResidueInTheNextStationOrFile)
{
    // Rising from play to play, so that whatever is stale is out of order.
    constexpr size_t kNext = 1000000;
    constexpr size_t kFile = 2000000;
    constexpr size_t kFileFrames = 5000;
    const std::string path = RuntimePath("indexed.wav");
    std::ofstream(path, std::ios::binary)
        << WavHead(kFileFrames * kFrameBytes) << IndexedBytes(kFile, kFileFrames);
    const ScriptedServer server({Station(0, 10 * kSecond), Station(kNext, 10 * kSecond)});
    MonitorRecording recording;
    Reports first;
    Reports next;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), first.Callback()));
    ASSERT_TRUE(WaitForSound(first));
    recording.AwaitSound();
    recording.AwaitMore(kSecond / 2);
    ASSERT_TRUE(player.PlayStream(server.Url(), next.Callback()));
    ASSERT_TRUE(WaitForSound(next));
    recording.AwaitIndexed(kNext);
    recording.AwaitMore(kSecond / 2);
    player.PlayFile(path);
    ASSERT_TRUE(WaitUntil([&] { return player.HasFinished(); }));
    const Heard heard = FindIndexed(recording.Finish(), kFile, kFileFrames);
    EXPECT_EQ(heard.missingAtStart + heard.lostBetween + heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
    for (const size_t start : {size_t{0}, kNext, kFile})
        EXPECT_TRUE(std::binary_search(heard.indices.begin(), heard.indices.end(), start)) << start;
}

TEST(RadioStop, WhileWaitingToReconnectIsQuick)
{
    const ScriptedServer server({NotFound()});
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(reports.WaitForLine(
        "Reconnecting 1 retry 1/300: Failed to open radio stream: Server returned 404 Not Found"));
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kStopLimit + kSlack).count());
    EXPECT_EQ(reports.Lines().back(), "Stopped 1");
}

TEST(RadioStop, WhileNoBytesComeIsQuick)
{
    Script script = Live(WavHead() + IndexedBytes(0, kSecond));
    script.push_back(Stall());
    const ScriptedServer server({script});
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    SleepMs(300); // into the blocking read
    EXPECT_LE(DurationOf([&] { player.Stop(); }).count(), (kStopLimit + kSlack).count());
    EXPECT_EQ(reports.Lines().back(), "Stopped 0");
}

// --- Reconnection -------------------------------------------------------------------------------

// The end of a body whose length is told comes at once, with a full queue: nothing of that is
// heard.
TEST(RadioReconnect, DropsTheQueueAndStartsAnewFromTheFirstFrame)
{
    constexpr size_t kFirst = 4 * kSecond;
    constexpr size_t kNext = 1000000;
    constexpr size_t kNextFrames = 2 * kSecond;
    constexpr size_t kQueueFrames = 2 * kSecond; // what the player keeps ahead
    const ScriptedServer server({Whole(WavHead(kFirst * kFrameBytes) + IndexedBytes(0, kFirst)),
                                 Station(kNext, kNextFrames)});
    std::mutex mutex;
    std::vector<long> microseconds; // the end of every block, as the tap is told
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long end)
        {
            const std::lock_guard lock(mutex);
            microseconds.push_back(end);
        });
    ASSERT_TRUE(player.PlayStream(server.Url(), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports, 1));
    EXPECT_EQ(player.CurrentSeconds(), 0.0);
    recording.AwaitIndexed(kNext);
    recording.AwaitMore(kNextFrames + kSecond / 2);
    player.Stop();

    const Heard heard = FindIndexed(recording.Finish(), kNext, kNextFrames);
    EXPECT_EQ(heard.missingAtStart + heard.lostBetween + heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
    // Of the first connection: its start in one piece, and of its end what the queue held is lost.
    ASSERT_GT(heard.foreign, 0u);
    EXPECT_EQ(heard.indices[heard.foreign - 1], heard.foreign - 1);
    EXPECT_NEAR(static_cast<double>(kFirst - heard.foreign), static_cast<double>(kQueueFrames),
                static_cast<double>(kSecond / 4));
    // The stream's time runs from 0 to the end of what was queued, on each connection.
    const auto restart =
        std::is_sorted_until(microseconds.begin(), microseconds.end()) - microseconds.begin();
    ASSERT_LT(static_cast<size_t>(restart), microseconds.size());
    EXPECT_EQ(microseconds[static_cast<size_t>(restart) - 1], 4000000);
    EXPECT_EQ(microseconds[static_cast<size_t>(restart)], microseconds[0]);
    EXPECT_NEAR(player.CurrentSeconds(), static_cast<double>(microseconds.back()) / 1e6, 1e-6);
    EXPECT_EQ(reports.Lines(),
              (Lines{"Connecting 0", "Buffering 0", "Playing 0",
                     "Reconnecting 1 retry 1/300: End of file", "Reconnecting 1 End of file",
                     "Buffering 1", "Playing 1", "Stopped 1"}));
}

// --- Nothing is left ----------------------------------------------------------------------------

TEST(RadioLife, ZappingThroughStationsLeavesNoThreadDescriptorOrNode)
{
    Script silent = Live(WavHead());
    silent.push_back(Stall());
    const ScriptedServer server(
        [live = Station(0, kSecond), silent](const std::string& request)
        { return request.find("/live") == std::string::npos ? silent : live; });
    WarmUpLibraries();
    const Resources before = Resources::Now();
    TovrelAudioPlayer player;
    const auto zap = [&](const std::string& path)
    {
        Reports reports;
        ASSERT_TRUE(player.PlayStream(server.Url(path), reports.Callback()));
        const bool bAsExpected =
            path == "/live" ? WaitForSound(reports) : reports.WaitForLine("Connecting 0");
        player.Stop();
        EXPECT_TRUE(bAsExpected);
    };
    for (int station = 0; station < 10; ++station)
        zap(station % 2 == 0 ? "/live" : "/silent");
    EXPECT_TRUE(ComesBackTo(before));
    EXPECT_TRUE(WaitUntil([] { return EngineNodeCount() == 0; }));
}

// --- Icecast ------------------------------------------------------------------------------------

const std::vector<std::string> kStationHeaders = {"-ice_name",   "Night Owl", "-ice_genre",
                                                  "Jazz",        "-ice_url",  "http://owl.example/",
                                                  "-ice_public", "1"};

struct Mount
{
    const char* name;
    const char* contentType;
    const char* codec;
    std::vector<std::string> encoding;
    int sampleRate = kToneRate;
    int bitRate = 0;        // bits per second; 0 where the decoder tells none, or none exactly
    const char* title = ""; // that the source's own tags give
    int titlesOfChain = 0;  // how many FFmpeg tells of a chain of three songs
};
void PrintTo(const Mount& mount, std::ostream* out)
{
    *out << mount.name;
}

// Ogg pages as short as live sources make them, with tags.
std::vector<std::string> Ogg(std::vector<std::string> codec)
{
    codec.insert(codec.end(), {"-metadata", "artist=Owl", "-metadata", "title=Hoot",
                               "-page_duration", "100000", "-f", "ogg"});
    return codec;
}

const Mount kMp3{
    .name = "Mp3",
    .contentType = "audio/mpeg",
    .codec = "mp3",
    .encoding = {"-c:a", "libmp3lame", "-b:a", "128k", "-write_xing", "0", "-id3v2_version", "0",
                 "-f", "mp3"},
    .bitRate = 128000,
};
const Mount kAac{
    .name = "Aac",
    .contentType = "audio/aac",
    .codec = "aac",
    .encoding = {"-c:a", "aac", "-b:a", "128k", "-f", "adts"},
};
const Mount kVorbis{
    .name = "Vorbis",
    .contentType = "application/ogg",
    .codec = "vorbis",
    .encoding = Ogg({"-c:a", "libvorbis", "-b:a", "128k"}),
    .bitRate = 128000,
    .title = "Owl - Hoot",
    .titlesOfChain = 3,
};
const Mount kOpus{
    .name = "Opus",
    .contentType = "application/ogg",
    .codec = "opus",
    .encoding = Ogg({"-c:a", "libopus", "-b:a", "128k"}),
    .sampleRate = 48000,
    .title = "Owl - Hoot",
    .titlesOfChain = 3,
};
const Mount kFlac{
    .name = "Flac",
    .contentType = "application/ogg",
    .codec = "flac",
    .encoding = Ogg({"-c:a", "flac"}),
    .title = "Owl - Hoot",
    .titlesOfChain = 1,
};

std::vector<std::string> SourceArguments(const Mount& mount)
{
    std::vector<std::string> arguments = mount.encoding;
    arguments.insert(arguments.end(), kStationHeaders.begin(), kStationHeaders.end());
    arguments.insert(arguments.end(), {"-content_type", mount.contentType});
    return arguments;
}

// A tone in a recording.
struct Tone
{
    size_t start = 0;      // frames before its first sample
    size_t periods = 0;    // in the part that is looked at
    size_t longestGap = 0; // frames of silence there
};

// Looks at this many frames, from a quarter of a second after the start on.
Tone FindTone(const std::vector<float>& recording, size_t frames)
{
    constexpr float kSilence = 1e-4f;
    constexpr float kClear = 0.1f; // of a peak of 0.5
    Tone tone;
    const auto left = [&](size_t frame)
    {
        return recording[frame * kSinkChannels];
    };
    const size_t recorded = recording.size() / kSinkChannels;
    while (tone.start < recorded && std::fabs(left(tone.start)) < kSilence)
        ++tone.start;
    const size_t from = tone.start + kSecond / 4;
    bool bLow = false;
    size_t silence = 0;
    for (size_t frame = from; frame < std::min(from + frames, recorded); ++frame)
    {
        tone.periods += bLow && left(frame) > kClear ? 1 : 0;
        bLow = left(frame) < -kClear || (bLow && left(frame) <= kClear);
        silence = std::fabs(left(frame)) < kSilence ? silence + 1 : 0;
        tone.longestGap = std::max(tone.longestGap, silence);
    }
    return tone;
}

class IcecastMount : public testing::TestWithParam<Mount>
{
};

TEST_P(IcecastMount, IsHeardAtItsPitchAndDescribed)
{
    constexpr size_t kLookedAt = kSecond;
    constexpr int kBurstMs = 1500; // enough sound in the server's burst for all that is looked at
    const Mount& mount = GetParam();
    const IcecastServer server;
    const ToneSource source(server, "/station", SourceArguments(mount));
    SleepMs(kBurstMs);
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    const size_t playedAt = recording.Now();
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    recording.AwaitSound();
    recording.AwaitMore(kLookedAt + kSecond / 2);
    const StreamInfo info = reports.Info();
    player.Stop();

    const Tone tone = FindTone(recording.Finish(), kLookedAt);
    std::cout << "heard " << (tone.start - playedAt) * 1000 / kSecond << " ms after PlayStream, "
              << tone.periods << " periods, longest gap " << tone.longestGap << " frames\n";
    EXPECT_NEAR(static_cast<double>(tone.periods), 1.0 * kToneHz, 2.0);
    EXPECT_LE(tone.longestGap, 1u);
    EXPECT_EQ(info.Codec, mount.codec);
    EXPECT_EQ(info.ContentType, mount.contentType);
    EXPECT_EQ(info.IcyName, "Night Owl");
    EXPECT_EQ(info.IcyGenre, "Jazz");
    EXPECT_EQ(info.IcyUrl, "http://owl.example/");
    EXPECT_EQ(info.IcyPublic, "1");
    EXPECT_EQ(info.SampleRate, mount.sampleRate);
    EXPECT_EQ(info.Channels, 2);
    std::cout << "bit rate " << info.BitRate << "\n";
    if (mount.bitRate > 0)
    {
        EXPECT_EQ(info.BitRate, mount.bitRate);
    }
    EXPECT_EQ(info.NowPlaying, mount.title);
    EXPECT_EQ(reports.Lines(), (Lines{"Connecting 0", "Buffering 0", "Playing 0", "Stopped 0"}));
}

INSTANTIATE_TEST_SUITE_P(Codec, IcecastMount, testing::Values(kMp3, kAac, kVorbis, kOpus, kFlac),
                         [](const auto& mount) { return mount.param.name; });

// --- Icecast's titles ---------------------------------------------------------------------------

class IcecastTitles : public testing::TestWithParam<Mount>
{
};

TEST_P(IcecastTitles, OfTheAdministratorArriveAsTheyWereSent)
{
    const IcecastServer server;
    const ToneSource source(server, "/station", SourceArguments(GetParam()));
    Reports reports;
    TovrelAudioPlayer player;
    server.SetTitle("/station", "First");
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    EXPECT_TRUE(reports.WaitForTitle("First"));
    for (const std::string title : {"Who's \"there\" & where?", "Caf\xc3\xa9 Ol\xc3\xa9"})
    {
        server.SetTitle("/station", title);
        EXPECT_TRUE(reports.WaitForTitle(title)) << reports.Info().NowPlaying;
    }
    EXPECT_EQ(reports.Info().LastMetadataTime.size(), std::string("HH:MM:SS").size());
}

INSTANTIATE_TEST_SUITE_P(Codec, IcecastTitles, testing::Values(kMp3, kAac),
                         [](const auto& mount) { return mount.param.name; });

// Two seconds with a title, in Ogg a stream of its own, as live sources send them.
std::string Song(const Mount& mount, const std::string& title, int rate, int channels)
{
    const std::string path = RuntimePath("song");
    std::vector<std::string> arguments = ToneInput(rate, 2);
    arguments.insert(arguments.end(), {"-ac", std::to_string(channels)});
    arguments.insert(arguments.end(), mount.encoding.begin(), mount.encoding.end());
    // A listener is given 64 KiB at once, which are to hold a whole song or several.
    arguments.insert(arguments.end(), {"-b:a", "64k", "-metadata", "title=" + title, path});
    RunFfmpeg(arguments);
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What may be missing where one song ends and the next begins: coders pad songs with silence, and
// decoders warm up on the first blocks. A wrong pitch is hundreds of periods off.
constexpr double kPeriodsOfBorders = 60.0;
constexpr size_t kLongestBorder = kSecond / 20;

class IcecastChain : public testing::TestWithParam<Mount>
{
};

TEST_P(IcecastChain, TellsEveryTitleAndPlaysOnAtItsPitch)
{
    constexpr size_t kLookedAt = 4 * kSecond; // of three songs of two seconds
    const Mount& mount = GetParam();
    const std::string first = Song(mount, "One", 48000, 2);
    const std::string more = Song(mount, "Two", 24000, 1) + Song(mount, "Three", 48000, 2);
    const IcecastServer server;
    HandSource source(server, "/station", "application/ogg");
    source.Send(first);
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    source.Send(more);
    recording.AwaitSound();
    recording.AwaitMore(kLookedAt + kSecond / 2);
    player.Stop();
    const Lines titles = {"Owl - One", "Owl - Two", "Owl - Three"};
    EXPECT_EQ(reports.Titles(), Lines(titles.begin(), titles.begin() + mount.titlesOfChain));
    const Tone tone = FindTone(recording.Finish(), kLookedAt);
    std::cout << tone.periods << " periods, longest gap " << tone.longestGap << " frames\n";
    EXPECT_NEAR(static_cast<double>(tone.periods), 4.0 * kToneHz, kPeriodsOfBorders);
    EXPECT_LE(tone.longestGap, kLongestBorder);
}

INSTANTIATE_TEST_SUITE_P(Codec, IcecastChain, testing::Values(kVorbis, kOpus, kFlac),
                         [](const auto& mount) { return mount.param.name; });

// A header for which the ffmpeg program has no option, and texts in the encoding of old.
TEST(Icecast, BitRateAndBytesThatAreNotUtf8ArePassedOn)
{
    const std::string bytes = "Caf\xe9";
    const std::string song = Song(kMp3, "", kToneRate, 2);
    const IcecastServer server;
    HandSource source(server, "/station", "audio/mpeg",
                      "Ice-Name: " + bytes + "\r\nIce-Bitrate: 64\r\n");
    server.SetTitle("/station", bytes);
    source.Send(song + song); // titles come every 16000 bytes
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    EXPECT_TRUE(reports.WaitForTitle(bytes)) << reports.Info().NowPlaying;
    EXPECT_EQ(reports.Info().IcyName, bytes);
    EXPECT_EQ(reports.Info().IcyBitrate, "64");
    EXPECT_EQ(reports.Info().BitRate, 64000);
}

// --- Icecast's sources come and go --------------------------------------------------------------

constexpr const char* kNotFound = "Failed to open radio stream: Server returned 404 Not Found";

TEST(Icecast, MissingMountIsTold)
{
    const std::string retry = "Reconnecting 1 retry 1/300: " + std::string(kNotFound);
    const IcecastServer server;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url("/nowhere"), reports.Callback()));
    ASSERT_TRUE(reports.WaitForLine(retry));
    EXPECT_EQ(player.LastError(), kNotFound);
    player.Stop();
    EXPECT_EQ(reports.Lines(), (Lines{"Connecting 0", retry, "Stopped 1"}));
}

class IcecastReturn : public testing::TestWithParam<Mount>
{
};

// FFmpeg's HTTP layer comes back within a second, and what is queued lasts for longer.
TEST_P(IcecastReturn, AtOnceIsNeitherToldNorHeard)
{
    constexpr size_t kLookedAt = 5 * kSecond; // of four seconds from either source
    const Mount& mount = GetParam();
    const std::string song = Song(mount, "Song", kToneRate, 2);
    const IcecastServer server;
    std::optional<HandSource> source;
    source.emplace(server, "/station", mount.contentType);
    source->Send(song + song);
    MonitorRecording recording;
    Reports reports;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    source.reset();
    source.emplace(server, "/station", mount.contentType);
    source->Send(song + song);
    recording.AwaitSound();
    recording.AwaitMore(kLookedAt + kSecond / 2);
    player.Stop();
    const Tone tone = FindTone(recording.Finish(), kLookedAt);
    std::cout << tone.periods << " periods, longest gap " << tone.longestGap << " frames\n";
    EXPECT_NEAR(static_cast<double>(tone.periods), 5.0 * kToneHz, kPeriodsOfBorders);
    EXPECT_LE(tone.longestGap, kLongestBorder);
    EXPECT_EQ(reports.Lines(), (Lines{"Connecting 0", "Buffering 0", "Playing 0", "Stopped 0"}));
}

INSTANTIATE_TEST_SUITE_P(Codec, IcecastReturn, testing::Values(kMp3, kVorbis),
                         [](const auto& mount) { return mount.param.name; });

TEST(Icecast, SourceThatStaysAwayAndReturnsIsPlayedAgain)
{
    const IcecastServer server;
    std::optional<ToneSource> source;
    // It returns while the player waits for its third attempt, which then finds it.
    const std::string lastFailure = "Reconnecting 2 retry 2/300: " + std::string(kNotFound);
    Reports reports(
        [&](const std::string& line)
        {
            if (line == lastFailure)
                source.emplace(server, "/station", SourceArguments(kMp3));
        });
    source.emplace(server, "/station", SourceArguments(kMp3));
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayStream(server.Url("/station"), reports.Callback()));
    ASSERT_TRUE(WaitForSound(reports));
    source->Drop();
    ASSERT_TRUE(WaitForSound(reports, 2));
    MonitorRecording recording;
    recording.AwaitSound();
    recording.AwaitMore(3 * kSecond / 2);
    const Tone tone = FindTone(recording.Finish(), kSecond);
    player.Stop();
    EXPECT_NEAR(static_cast<double>(tone.periods), kToneHz, 2.0);
    EXPECT_EQ(reports.Lines(), (Lines{"Connecting 0", "Buffering 0", "Playing 0",
                                      "Reconnecting 1 retry 1/300: Input/output error",
                                      "Reconnecting 1 Input/output error", lastFailure,
                                      "Reconnecting 2 " + std::string(kNotFound), "Buffering 2",
                                      "Playing 2", "Stopped 2"}));
}

} // namespace
