// The player: what is in the buffer or the file is what is heard.
#include "harness.h"

#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

namespace
{

constexpr size_t kSecond = kSinkRate; // in frames

void PlayIndexed(TovrelAudioPlayer& player, size_t first, size_t count)
{
    ASSERT_TRUE(player.PlayPcm(IndexedFrames(first, count), kSinkRate, kSinkChannels));
}

// A file of the indexed signal in the given codec, 48000 Hz stereo.
std::string IndexedFile(size_t first, size_t count, const std::string& name,
                        const std::string& codec)
{
    const std::string raw = RuntimePath("indexed.raw");
    const std::string path = RuntimePath(name);
    WriteFloats(raw, IndexedFrames(first, count));
    RunFfmpeg({"-f", "f32le", "-ar", "48000", "-ac", "2", "-i", raw, "-c:a", codec, path});
    return path;
}

// What the ffmpeg program makes of a file in the format of the sink.
std::vector<float> ConvertedByFfmpeg(const std::string& path)
{
    const std::string raw = RuntimePath("converted.raw");
    RunFfmpeg({"-i", path, "-map", "0:a:0", "-ar", "48000", "-ac", "2", "-f", "f32le", raw});
    return ReadFloats(raw);
}

std::vector<float> RecordFile(const std::string& path)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    player.PlayFile(path);
    EXPECT_TRUE(WaitForEnd(player));
    EXPECT_EQ(player.LastError(), "");
    return recording.Finish();
}

// --- From the first frame to the last -----------------------------------------------------------

class PlayPcmOfLength : public testing::TestWithParam<size_t>
{
};

TEST_P(PlayPcmOfLength, EveryFrameIsHeard)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    PlayIndexed(player, 0, GetParam());
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Frames, PlayPcmOfLength,
                         testing::Values(1, 480, 960, 961, 1024, 5000, 2 * kSecond),
                         testing::PrintToStringParamName());

TEST(PlayerSound, TwentyPlaysInARowAreHeardFromFirstFrameToLast)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    size_t next = 0;
    for (size_t play = 0; play < 20; ++play)
    {
        const size_t length = 1 + play * 311; // across the borders of chunk, cycle and end rule
        PlayIndexed(player, next, length);
        ASSERT_TRUE(WaitForEnd(player));
        next += length;
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, next)));
}

TEST(PlayerSound, PlayPcmFromAStartIsHeardFromThere)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, kSecond), kSinkRate, kSinkChannels, 0.75));
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), kSecond * 3 / 4, kSecond / 4)));
}

TEST(PlayerSound, WavFileIsHeardFromFirstFrameToLast)
{
    const std::string path = IndexedFile(0, 2 * kSecond + 17, "indexed.wav", "pcm_f32le");
    EXPECT_TRUE(IsComplete(FindIndexed(RecordFile(path), 0, 2 * kSecond + 17)));
}

TEST(PlayerSound, ShortWavFilesAreHeardFromFirstFrameToLast)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    size_t next = 0;
    for (const size_t length : {1, 959, 961, 1024, 1025, 4097})
    {
        player.PlayFile(IndexedFile(next, length, "indexed.wav", "pcm_f32le"));
        ASSERT_TRUE(WaitForEnd(player));
        EXPECT_EQ(player.LastError(), "");
        next += length;
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, next)));
}

// --- Files as they are --------------------------------------------------------------------------

// A tone that rises through the audible range, with a click at both ends.
void MakeSweep(int rate, const std::string& path, const std::vector<std::string>& codec)
{
    std::vector<std::string> arguments = {
        "-f", "lavfi", "-i",
        "aevalsrc=0.4*sin(2*PI*(200*t+2000*t*t))+0.3*lt(t\\,0.001)+0.3*gt(t\\,1.499)|"
        "0.4*cos(2*PI*(300*t+1500*t*t)):d=1.5:s=" +
            std::to_string(rate)};
    arguments.insert(arguments.end(), codec.begin(), codec.end());
    arguments.push_back(path);
    RunFfmpeg(arguments);
}

struct FileCase
{
    const char* name;
    int rate;
    const char* extension;
    std::vector<std::string> codec;
};
void PrintTo(const FileCase& file, std::ostream* out)
{
    *out << file.name;
}

// The engine does not drain its resampler, in which half of its filter stays: sixteen frames of the
// lower one of the two rates, and what is left of a frame, here in frames of the sink's.
size_t ResamplerDelayFrames(int fileRate)
{
    if (fileRate == kSinkRate)
        return 0;
    return 1 + static_cast<size_t>(16 * kSinkRate / std::min(fileRate, kSinkRate));
}

class PlayedFile : public testing::TestWithParam<FileCase>
{
};

TEST_P(PlayedFile, SoundsAsTheFfmpegProgramConvertsIt)
{
    const FileCase& file = GetParam();
    const std::string path = RuntimePath(std::string("sweep.") + file.extension);
    MakeSweep(file.rate, path, file.codec);
    EXPECT_TRUE(HoldsInOrder(RecordFile(path), ConvertedByFfmpeg(path), 0.0f,
                             ResamplerDelayFrames(file.rate)));
}

INSTANTIATE_TEST_SUITE_P(
    Codec, PlayedFile,
    testing::Values(FileCase{"Flac44100", 44100, "flac", {"-c:a", "flac"}},
                    FileCase{"Flac48000", 48000, "flac", {"-c:a", "flac"}},
                    FileCase{"Vorbis44100", 44100, "ogg", {"-c:a", "libvorbis"}},
                    FileCase{"Wav24At96000", 96000, "wav", {"-c:a", "pcm_s24le"}},
                    FileCase{"Wav16MonoAt8000", 8000, "wav", {"-ac", "1", "-c:a", "pcm_s16le"}}),
    [](const auto& file) { return file.param.name; });

struct RealRecording
{
    const char* name;
    int rate;
};
void PrintTo(const RealRecording& sound, std::ostream* out)
{
    *out << sound.name;
}

class PlayedRecording : public testing::TestWithParam<RealRecording>
{
};

TEST_P(PlayedRecording, SoundsAsTheFfmpegProgramConvertsIt)
{
    const std::string path =
        std::string("/usr/share/sounds/freedesktop/stereo/") + GetParam().name + ".oga";
    if (!std::filesystem::exists(path))
        GTEST_SKIP() << "sound-theme-freedesktop is not installed";
    EXPECT_TRUE(HoldsInOrder(RecordFile(path), ConvertedByFfmpeg(path), 0.0f,
                             ResamplerDelayFrames(GetParam().rate)));
}

INSTANTIATE_TEST_SUITE_P(Freedesktop, PlayedRecording,
                         testing::Values(RealRecording{"bell", 44100},
                                         RealRecording{"complete", 44100},
                                         RealRecording{"dialog-warning", 44100},
                                         RealRecording{"message", 44100},
                                         RealRecording{"service-login", 22050},
                                         RealRecording{"audio-volume-change", 44100},
                                         RealRecording{"audio-channel-front-left", 48000}),
                         [](const auto& sound)
                         {
                             std::string word = sound.param.name;
                             std::replace(word.begin(), word.end(), '-', '_');
                             return word;
                         });

// --- Pause --------------------------------------------------------------------------------------

constexpr size_t kPauseFrames = 6 * kQuantum;

// Pauses three times in the middle of the sound; nothing may be lost or repeated.
void PauseThreeTimes(TovrelAudioPlayer& player, const MonitorRecording& recording)
{
    for (int pause = 0; pause < 3; ++pause)
    {
        recording.AwaitSound();
        recording.AwaitMore(8 * kQuantum);
        player.SetPaused(true);
        recording.AwaitSilence(kPauseFrames);
        EXPECT_FALSE(player.HasFinished());
        player.SetPaused(false);
    }
}

void ExpectThreePauses(const Heard& heard)
{
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.gaps, 3u);
    EXPECT_GE(heard.longestGap, kPauseFrames);
}

TEST(PlayerPause, LosesAndRepeatsNothingOfABuffer)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    PlayIndexed(player, 0, 2 * kSecond);
    PauseThreeTimes(player, recording);
    ASSERT_TRUE(WaitForEnd(player));
    ExpectThreePauses(FindIndexed(recording.Finish(), 0, 2 * kSecond));
}

TEST(PlayerPause, LosesAndRepeatsNothingOfAFile)
{
    const std::string path = IndexedFile(0, 2 * kSecond, "indexed.wav", "pcm_f32le");
    MonitorRecording recording;
    TovrelAudioPlayer player;
    player.PlayFile(path);
    PauseThreeTimes(player, recording);
    ASSERT_TRUE(WaitForEnd(player));
    ExpectThreePauses(FindIndexed(recording.Finish(), 0, 2 * kSecond));
}

TEST(PlayerPause, InTheLastFramesLosesNothing)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    size_t next = 0;
    for (const int pauseAfterMs : {1, 10, 20, 30, 40, 50, 60, 70, 80})
    {
        PlayIndexed(player, next, 3000);
        SleepMs(pauseAfterMs);
        player.SetPaused(true);
        SleepMs(60);
        player.SetPaused(false);
        ASSERT_TRUE(WaitForEnd(player));
        next += 3000;
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, next)));
}

// --- Seek ---------------------------------------------------------------------------------------

// How much from before a seek may still be heard after it: what the graph has taken, two cycles,
// and what plays until the worker looks, 8 ms on an idle machine. A queue that was not dropped is
// 16800 frames.
constexpr size_t kStaleLimitFrames = 4 * kQuantum;

struct SeekOutcome
{
    size_t stale = 0;      // frames from before the seek that were recorded after it
    size_t firstAfter = 0; // the index of the first frame from after it
    Heard heard;
};

// Plays, seeks, and takes apart what was heard; `bPlayed` starts the playback.
template <typename Play>
SeekOutcome SeekWhilePlaying(double targetSeconds, size_t total, const Play& play)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    play(player);
    recording.AwaitSound();
    recording.AwaitMore(kSecond);
    const size_t seekAt = recording.Now();
    player.SeekToSeconds(targetSeconds);
    EXPECT_NEAR(player.CurrentSeconds(), targetSeconds, 0.05);
    EXPECT_TRUE(WaitForEnd(player));

    SeekOutcome outcome;
    outcome.heard = FindIndexed(recording.Finish(), 0, total);
    const auto& indices = outcome.heard.indices;
    size_t jump = 1; // where the sequence breaks
    while (jump < indices.size() && indices[jump] == indices[jump - 1] + 1)
        ++jump;
    if (jump == indices.size())
        return outcome;
    outcome.firstAfter = indices[jump];
    for (size_t at = 0; at < jump; ++at)
        outcome.stale += outcome.heard.positions[at] >= seekAt ? 1 : 0;
    // Nothing but the one jump.
    for (size_t at = jump + 1; at < indices.size(); ++at)
        EXPECT_EQ(indices[at], indices[at - 1] + 1) << "a second jump";
    EXPECT_EQ(indices.front(), 0u);
    EXPECT_EQ(indices.back(), total - 1);
    std::cout << "stale frames after the seek: " << outcome.stale << ", first frame after it "
              << outcome.firstAfter << std::endl;
    return outcome;
}

class SeekTarget : public testing::TestWithParam<double>
{
};

TEST_P(SeekTarget, InABufferIsHeardExactlyAndNothingStale)
{
    constexpr size_t kTotal = 4 * kSecond;
    const double target = GetParam();
    const SeekOutcome outcome = SeekWhilePlaying(
        target, kTotal, [](TovrelAudioPlayer& player) { PlayIndexed(player, 0, kTotal); });
    EXPECT_EQ(outcome.firstAfter, static_cast<size_t>(target * kSinkRate));
    EXPECT_LE(outcome.stale, kStaleLimitFrames);
    EXPECT_EQ(outcome.heard.altered, 0u);
}

TEST_P(SeekTarget, InAFileIsHeardNearbyAndNothingStale)
{
    constexpr size_t kTotal = 4 * kSecond;
    // FFmpeg lands on the packet at or before the target: of a WAV file, 4096 bytes or 1024 frames
    // at the most.
    constexpr size_t kPacketFrames = 1024;
    const double target = GetParam();
    const std::string path = IndexedFile(0, kTotal, "indexed.wav", "pcm_f32le");
    const SeekOutcome outcome =
        SeekWhilePlaying(target, kTotal, [&](TovrelAudioPlayer& player) { player.PlayFile(path); });
    EXPECT_LE(outcome.firstAfter, static_cast<size_t>(target * kSinkRate));
    EXPECT_GE(outcome.firstAfter + kPacketFrames, static_cast<size_t>(target * kSinkRate));
    EXPECT_LE(outcome.stale, kStaleLimitFrames);
    EXPECT_EQ(outcome.heard.altered, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seconds, SeekTarget, testing::Values(0.25, 3.0),
                         [](const auto& seconds)
                         { return seconds.index == 0 ? "Backward" : "Forward"; });

TEST(PlayerSeek, WhilePausedPlaysFromTheTargetAndNothingStale)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    PlayIndexed(player, 0, 3 * kSecond);
    recording.AwaitSound();
    recording.AwaitMore(kSecond / 2);
    player.SetPaused(true);
    recording.AwaitMore(4 * kQuantum);
    const size_t seekAt = recording.Now();
    player.SeekToSeconds(2.5);
    SleepMs(100);
    player.SetPaused(false);
    ASSERT_TRUE(WaitForEnd(player));
    const Heard heard = FindIndexed(recording.Finish(), 0, 3 * kSecond);
    size_t stale = 0;
    for (size_t at = 0; at < heard.indices.size(); ++at)
        stale += heard.indices[at] < 5 * kSecond / 2 && heard.positions[at] >= seekAt ? 1 : 0;
    EXPECT_LE(stale, 2 * kQuantum); // what the graph had taken before the pause
    EXPECT_EQ(heard.missingAtEnd, 0u);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
}

// --- Stop ---------------------------------------------------------------------------------------

TEST(PlayerStop, LeavesSilence)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    PlayIndexed(player, 0, 4 * kSecond);
    recording.AwaitSound();
    recording.AwaitMore(kSecond / 2);
    const size_t stopAt = recording.Now();
    player.Stop();
    const Heard heard = FindIndexed(recording.Finish(kSecond / 2), 0, 4 * kSecond);
    ASSERT_FALSE(heard.positions.empty());
    EXPECT_LE(heard.positions.back(), stopAt + 4 * kQuantum);
    EXPECT_EQ(heard.missingAtStart + heard.lostBetween + heard.repeated, 0u);
}

TEST(PlayerStop, LeavesNoResidueInTheNextPlay)
{
    constexpr size_t kOther = 1000000; // apart from every index of the stopped plays
    MonitorRecording recording;
    TovrelAudioPlayer player;
    for (size_t round = 0; round < 3; ++round)
    {
        PlayIndexed(player, 0, 4 * kSecond);
        recording.AwaitSound();
        recording.AwaitMore(8 * kQuantum);
        PlayIndexed(player, kOther + round * 5000, 5000); // stops the one before
        ASSERT_TRUE(WaitForEnd(player));
    }
    const Heard heard = FindIndexed(recording.Finish(), kOther, 15000);
    EXPECT_EQ(heard.missingAtStart + heard.missingAtEnd + heard.lostBetween, 0u);
    EXPECT_EQ(heard.repeated + heard.altered, 0u);
    // Each short play is heard as one piece, without a frame of the stopped one in it.
    for (size_t at = 1; at < heard.indices.size(); ++at)
    {
        const bool bOther = heard.indices[at] >= kOther;
        const bool bOtherBefore = heard.indices[at - 1] >= kOther;
        if (bOther && bOtherBefore)
        {
            EXPECT_EQ(heard.indices[at], heard.indices[at - 1] + 1);
        }
        else if (bOtherBefore)
        {
            EXPECT_EQ(heard.indices[at], 0u) << "not the start of the next play";
        }
    }
}

// --- Processing on the way ----------------------------------------------------------------------

TEST(PlayerVolume, ScalesWhatIsHeardExactly)
{
    constexpr float kHalf = 0.5f;
    std::vector<float> expected = IndexedFrames(0, 10000);
    for (float& sample : expected)
        sample *= kHalf;
    MonitorRecording recording;
    TovrelAudioPlayer player;
    player.SetVolume(static_cast<double>(kHalf));
    PlayIndexed(player, 0, 10000);
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_TRUE(HoldsInOrder(recording.Finish(), expected, 0.0f));
}

TEST(PlayerPosition, FollowsWhatIsHeard)
{
    constexpr double kToleranceSeconds = 0.25;
    MonitorRecording recording;
    TovrelAudioPlayer player;
    PlayIndexed(player, 0, 2 * kSecond);
    ASSERT_TRUE(WaitForOutput(player));
    const auto startedAt = static_cast<double>(recording.Now());
    recording.AwaitSound();
    recording.AwaitMore(kSecond);
    const double position = player.CurrentSeconds();
    const size_t recordedSoFar = recording.Now();
    ASSERT_TRUE(WaitForEnd(player));
    EXPECT_DOUBLE_EQ(player.CurrentSeconds(), 2.0);
    const Heard heard = FindIndexed(recording.Finish(), 0, 2 * kSecond);
    const auto after =
        std::lower_bound(heard.positions.begin(), heard.positions.end(), recordedSoFar);
    const auto heardSoFar = static_cast<double>(after - heard.positions.begin());
    // The clock runs from the start of the stream, which may have to wait to be linked.
    const double late = heard.positions.front() - startedAt;
    EXPECT_NEAR(position, (late + heardSoFar) / kSinkRate, kToleranceSeconds);
}

} // namespace
