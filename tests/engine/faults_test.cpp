// Each call into FFmpeg on the way of a file, made to fail at each of its occurrences: what is
// said, what is heard, how it ends, what is released, and whether the next file plays.
#include "faults.h"
#include "playback.h"
#include "wrapped_calls.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

using testing::AllOf;
using testing::Each;
using testing::ElementsAreArray;
using testing::Ge;
using testing::Gt;
using testing::IsEmpty;
using testing::Le;

namespace
{

// Where in a playback a call stands.
enum class Phase
{
    kSetUp,
    kRunning,
    kSeek,  // the seek itself, and what starts again after it
    kDrain, // after the last packet
};

// What the failure of a call makes of the playback.
enum class Outcome
{
    kUnnoticed,   // all of it is heard
    kNeverOpens,  // it ends without a sink
    kNeverStarts, // it ends with an active sink that is given nothing
    kFrameLost,   // all but one frame is heard
    kEndsEarly,   // as at the end of the file: what is queued is played out
    kStopsEarly,  // as for a stop
};

struct Fault
{
    std::string_view function;
    Phase phase;
    Outcome outcome;
    const char* text = ""; // ends in ": " where FFmpeg's own follows
};

constexpr const char* kNoResampler = "Failed to allocate audio resampler.";
constexpr const char* kNoBuffers = "Failed to allocate FFmpeg audio buffers.";
constexpr const char* kSeekFailed = "Audio seek failed.";

constexpr Fault kFaults[] = {
    {"av_malloc", Phase::kSetUp, Outcome::kUnnoticed},
    {"avio_alloc_context", Phase::kSetUp, Outcome::kUnnoticed},
    {"avformat_alloc_context", Phase::kSetUp, Outcome::kNeverOpens,
     "Failed to allocate audio demuxer."},
    {"avformat_open_input", Phase::kSetUp, Outcome::kNeverOpens, "Failed to open audio file: "},
    {"avformat_find_stream_info", Phase::kSetUp, Outcome::kNeverOpens,
     "Failed to read audio stream info: "},
    {"av_find_best_stream", Phase::kSetUp, Outcome::kNeverOpens, "No audio stream found."},
    {"avcodec_find_decoder", Phase::kSetUp, Outcome::kNeverOpens,
     "No decoder available for this audio stream."},
    {"avcodec_alloc_context3", Phase::kSetUp, Outcome::kNeverOpens,
     "Failed to allocate audio decoder."},
    {"avcodec_parameters_to_context", Phase::kSetUp, Outcome::kNeverOpens,
     "Failed to configure audio decoder: "},
    {"avcodec_open2", Phase::kSetUp, Outcome::kNeverOpens, "Failed to open audio decoder: "},
    {"av_channel_layout_copy", Phase::kSetUp, Outcome::kNeverOpens, kNoResampler},
    {"av_channel_layout_copy", Phase::kRunning, Outcome::kFrameLost},
    {"swr_alloc_set_opts2", Phase::kSetUp, Outcome::kNeverOpens, kNoResampler},
    {"swr_alloc_set_opts2", Phase::kRunning, Outcome::kFrameLost},
    {"swr_init", Phase::kSetUp, Outcome::kNeverOpens, "Failed to initialize audio resampler: "},
    {"swr_init", Phase::kRunning, Outcome::kFrameLost},
    {"swr_init", Phase::kSeek, Outcome::kEndsEarly, kSeekFailed},
    {"av_frame_alloc", Phase::kSetUp, Outcome::kNeverStarts, kNoBuffers},
    {"av_packet_alloc", Phase::kSetUp, Outcome::kNeverStarts, kNoBuffers},
    {"av_read_frame", Phase::kRunning, Outcome::kEndsEarly},
    {"av_seek_frame", Phase::kSeek, Outcome::kEndsEarly, kSeekFailed},
    {"avcodec_send_packet", Phase::kRunning, Outcome::kFrameLost},
    {"avcodec_send_packet", Phase::kDrain, Outcome::kUnnoticed},
    {"avcodec_receive_frame", Phase::kRunning, Outcome::kStopsEarly, "Audio decode failed: "},
    {"avcodec_receive_frame", Phase::kDrain, Outcome::kUnnoticed},
    {"swr_convert", Phase::kRunning, Outcome::kFrameLost},
};

// What a playback creates with which call, and how it is released, in the order of the releases.
constexpr std::pair<std::string_view, const char*> kReleases[] = {
    {"av_packet_alloc", "av_packet_free"},
    {"av_frame_alloc", "av_frame_free"},
    {"swr_alloc_set_opts2", "swr_free"},
    {"avcodec_alloc_context3", "avcodec_free_context"},
    {"avformat_open_input", "avformat_close_input"},
};

struct Material
{
    std::string name;
    std::string path;
    size_t settling = 0; // frames after a lost packet that are not yet as they would have been
    bool bFromDisk = false;
    std::optional<double> seek = std::nullopt; // in the middle of it
};

constexpr int kReadOfSeek = 7; // the read during which the seek is asked for

std::vector<Material> Materials()
{
    const std::string flac = Noise::Lossless(0.25, 1024);
    const std::string vorbis = Noise::Overlapping(0.25);
    const std::string changing = Media::Write("changing.mp3", Noise::Changing());
    return {
        {"lossless", flac},
        {"lossless with a seek", flac, 0, false, 0.1},
        {"lossless from the disk", flac, 0, true},
        {"lossless from the disk with a seek", flac, 0, true, 0.1},
        {"overlapping", vorbis, 1},
        {"overlapping with a seek", vorbis, 1, false, 0.1},
        {"changing", changing, 1},
        {"changing with a seek", changing, 1, false, 0.0},
    };
}

struct Reference : Undisturbed
{
    double duration = 0.0;
    double position = 0.0; // at the end

    // Whether the packet or frame that this call belongs to is pushed in the end.
    bool LeadsToAPush(size_t call) const
    {
        for (size_t i = call; i < calls.size() && calls[i] != "av_read_frame"; ++i)
            if (calls[i] == "Push")
                return true;
        return false;
    }

    Phase PhaseOf(size_t call) const
    {
        const auto isRead = [](const std::string& name)
        {
            return name == "av_read_frame";
        };
        const auto firstRead = std::find_if(calls.begin(), calls.end(), isRead);
        const auto lastRead = std::find_if(calls.rbegin(), calls.rend(), isRead).base();
        const auto at = calls.begin() + static_cast<ptrdiff_t>(call);
        if (at < firstRead)
            return Phase::kSetUp;
        if (*at == "av_seek_frame" || *(at - 1) == "av_seek_frame")
            return Phase::kSeek;
        return at < lastRead ? Phase::kRunning : Phase::kDrain;
    }
};

class FileFaults : public Playback
{
protected:
    FileFaults() { av_log_set_level(AV_LOG_QUIET); }

    // Plays it to its end, with its seek, and leaves the player as it is then.
    void PlayThrough(const Material& material)
    {
        std::optional<FailingCall> noCopy;
        if (material.bFromDisk)
            noCopy.emplace("av_malloc");
        std::optional<DuringCall> seek;
        if (material.seek)
            seek.emplace("av_read_frame", kReadOfSeek,
                         [&] { player.SeekToSeconds(*material.seek); });
        Stop();
        VirtualDevice::Reset();
        ForgetReleases();
        PlayFile(material.path);
        RunToEnd();
    }

    Reference PlayUndisturbed(const Material& material)
    {
        player.SetAudioPCMCallback([](const float*, int, int, int, long) { NoteCall("Push"); });
        const RecordedCalls recorded;
        PlayThrough(material);
        player.SetAudioPCMCallback({});
        EXPECT_EQ(player.LastError(), "");
        return {{recorded.All(), VirtualDevice::Last().pushed, VirtualDevice::Last().pushedFrames},
                player.DurationSeconds(),
                player.CurrentSeconds()};
    }

    // How the playback of which one call has failed ended, before anybody has stopped it.
    void ExpectEnd(Outcome outcome, const std::string& text, const Reference& reference,
                   size_t call)
    {
        const VirtualSink sink = VirtualDevice::Last();
        EXPECT_TRUE(player.HasFinished());
        EXPECT_EQ(player.LastError(), text);
        EXPECT_EQ(player.IsStopRequestedForInterrupt(), outcome == Outcome::kStopsEarly);
        EXPECT_EQ(player.DurationSeconds(),
                  outcome == Outcome::kNeverOpens ? 0.0 : reference.duration);
        if (outcome == Outcome::kUnnoticed)
            EXPECT_EQ(player.CurrentSeconds(), reference.position);
        else
            EXPECT_THAT(player.CurrentSeconds(), AllOf(Ge(0.0), Le(player.DurationSeconds())));
        EXPECT_EQ(access.HasOutput(), outcome != Outcome::kNeverOpens);
        EXPECT_EQ(sink.bActive, outcome == Outcome::kNeverStarts);
        EXPECT_THAT(VirtualDevice::Calls(), ElementsAreArray(SinkCalls(outcome, reference, call)));
        if (outcome == Outcome::kStopsEarly)
            EXPECT_EQ(sink.heard, std::vector<float>());
        else
            EXPECT_LE(sink.QueuedSeconds(), 0.02);
    }

    static std::vector<std::string> SinkCalls(Outcome outcome, const Reference& reference,
                                              size_t call)
    {
        if (outcome == Outcome::kNeverOpens)
            return {};
        std::vector<std::string> calls = {"Init 48000 2", "SetActive 1"};
        if (outcome == Outcome::kNeverStarts)
            return calls;
        const bool bToTheEnd = outcome == Outcome::kUnnoticed || outcome == Outcome::kFrameLost;
        const auto last = bToTheEnd ? reference.calls.end()
                                    : reference.calls.begin() + static_cast<ptrdiff_t>(call);
        if (std::find(reference.calls.begin(), last, "av_seek_frame") != last &&
            reference.PhaseOf(call) != Phase::kSeek)
            calls.insert(calls.end(), {"Clear", "GetStreamTime"});
        calls.emplace_back("SetActive 0");
        return calls;
    }

    // What was delivered is what comes before the fault, to the bit, and where the playback goes on
    // all that follows.
    static void ExpectSound(const Material& material, const Fault& fault,
                            const Reference& reference, size_t call)
    {
        const std::vector<float> pushed = VirtualDevice::Last().pushed;
        EXPECT_THAT(VirtualDevice::Last().pushedFrames, Each(Gt(0u)));
        if (fault.outcome == Outcome::kUnnoticed)
            EXPECT_EQ(pushed, reference.sound);
        else if (fault.outcome != Outcome::kFrameLost)
            EXPECT_EQ(pushed, reference.Sound(0, reference.CountBefore(call, "Push")));
        else if (material.settling > 0 && fault.function == "avcodec_send_packet")
            ExpectAllButAPacket(pushed, reference, call, material.settling);
        else
            EXPECT_EQ(pushed, reference.LeadsToAPush(call) ? reference.SoundWithoutPushAt(call)
                                                           : reference.sound);
    }

    // What lived at the end was released in the order of kReleases, after the resamplers that had
    // been replaced.
    static void ExpectReleases(const Fault& fault, const Reference& reference, size_t call)
    {
        const bool bRan =
            fault.outcome != Outcome::kNeverOpens && fault.outcome != Outcome::kNeverStarts;
        const auto bLived = [&](std::string_view creator)
        {
            const auto end = reference.calls.begin() + static_cast<ptrdiff_t>(call);
            return bRan || (fault.outcome == Outcome::kNeverStarts && creator != fault.function) ||
                   std::find(reference.calls.begin(), end, creator) != end;
        };
        std::vector<std::string> expected;
        for (const auto& [creator, release] : kReleases)
            if (bLived(creator))
                expected.emplace_back(release);
        const std::vector<std::string> releases = Releases();
        if (bRan && releases.size() > expected.size())
            expected.insert(expected.begin(), releases.size() - expected.size(), "swr_free");
        EXPECT_EQ(releases, expected);
    }

    // On the same player, from nothing.
    void ExpectNextFileToPlay()
    {
        PlayThrough(next);
        EXPECT_EQ(player.LastError(), "");
        EXPECT_FALSE(player.IsStopRequestedForInterrupt());
        EXPECT_EQ(VirtualDevice::Last().pushed, nextSound);
        EXPECT_EQ(player.CurrentSeconds(), player.DurationSeconds());
        Stop();
        EXPECT_FALSE(player.IsPlaying());
        EXPECT_FALSE(access.HasOutput());
        EXPECT_EQ(Unreleased(), unreleased);
    }

    const std::vector<float> nextSamples = Ramp(2000, 2);
    const Material next{"next", Media::WriteWav("next.wav", nextSamples)};
    const std::vector<float> nextSound = Media::Played(nextSamples);
    const std::map<std::string, int> unreleased = Unreleased();
};

class FileFaultsOf : public FileFaults, public testing::WithParamInterface<const char*>
{
};

// The table's row for this call.
const Fault* FaultOf(const std::string& function, Phase phase)
{
    const auto found =
        std::ranges::find_if(kFaults, [&](const Fault& fault)
                             { return fault.function == function && fault.phase == phase; });
    return found == std::end(kFaults) ? nullptr : found;
}

std::string TextOf(const Fault& fault, const ErrorCode& code)
{
    return std::string(fault.text) + (EndsInFFmpegsText(fault.text) ? code.text : "");
}

} // namespace

TEST_P(FileFaultsOf, EndAsTheyShouldWhereverTheyCome)
{
    const std::string function = GetParam();
    size_t faults = 0;
    std::set<const Fault*> met;
    std::set<std::string> texts;
    for (const Material& material : Materials())
    {
        const Reference reference = PlayUndisturbed(material);
        ASSERT_FALSE(reference.sound.empty());
        int occurrence = -1;
        for (size_t call = 0; call < reference.calls.size(); ++call)
        {
            if (reference.calls[call] != function)
                continue;
            ++occurrence;
            if (material.bFromDisk && function == "av_malloc")
                continue; // has failed already
            const Fault* fault = FaultOf(function, reference.PhaseOf(call));
            ASSERT_TRUE(fault) << "call " << call;
            met.insert(fault);
            const size_t codes = EndsInFFmpegsText(fault->text) && fault->phase == Phase::kSetUp
                                     ? std::size(kErrorCodes)
                                     : 1;
            for (size_t i = 0; i < codes; ++i)
            {
                const ErrorCode& code = kErrorCodes[(faults + i) % std::size(kErrorCodes)];
                const std::string text = TextOf(*fault, code);
                SCOPED_TRACE(material.name + ", occurrence " + std::to_string(occurrence) + ", " +
                             code.text);
                {
                    const FailingCall failing(function.c_str(), code.code, occurrence);
                    PlayThrough(material);
                    ASSERT_TRUE(failing.Happened());
                }
                ExpectEnd(fault->outcome, text, reference, call);
                ExpectSound(material, *fault, reference, call);
                ExpectReleases(*fault, reference, call);
                ExpectNextFileToPlay();
                texts.insert(text);
            }
            faults += codes;
        }
    }
    RecordProperty("faults", std::to_string(faults));
    RecordProperty("texts", testing::PrintToString(texts));
    EXPECT_EQ(met.size(), std::ranges::count(kFaults, function, &Fault::function));
}

INSTANTIATE_TEST_SUITE_P(All, FileFaultsOf, testing::ValuesIn(FunctionsOf(kFaults)),
                         [](const auto& testInfo) { return std::string(testInfo.param); });

// Who stops a playback while one of its calls fails hears of the failure, and waits for nothing.
TEST_F(FileFaults, EndAtOnceWhereAStopComesWithThem)
{
    const Material material = Materials()[1];
    const Reference reference = PlayUndisturbed(material);
    std::map<std::string, int> occurrences;
    for (size_t call = 0; call < reference.calls.size(); ++call)
    {
        const std::string function = reference.calls[call];
        const Fault* fault = FaultOf(function, reference.PhaseOf(call));
        if (!fault)
            continue;
        const int occurrence = occurrences[function]++;
        SCOPED_TRACE(function + ", occurrence " + std::to_string(occurrence));
        const std::string text = TextOf(*fault, kErrorCodes[0]);
        {
            const DuringCall stop(function.c_str(), occurrence, [&] { player.RequestStop(); });
            const FailingCall failing(function.c_str(), kErrorCodes[0].code, occurrence);
            PlayThrough(material);
            EXPECT_TRUE(failing.Happened());
        }
        EXPECT_TRUE(player.HasFinished());
        EXPECT_TRUE(player.IsStopRequestedForInterrupt());
        EXPECT_EQ(player.LastError(), text);
        EXPECT_EQ(VirtualDevice::Last().pushed,
                  reference.Sound(0, reference.CountBefore(call, "Push")));
        EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
        ExpectNextFileToPlay();
    }
    RecordProperty("functions", std::to_string(occurrences.size()));
    EXPECT_EQ(occurrences.size(), FunctionsOf(kFaults).size());
}

// --- What is no error

// A decoder that asks for more, or has come to its end, where it should have given a frame: the
// frame comes with the next packet, or in the drain.
TEST_F(FileFaults, LoseNothingWhereADecoderGivesItsFrameLater)
{
    for (const Material& material : Materials())
    {
        // A seek drops what is late, and after a change FFmpeg refuses what is from before it.
        if (material.seek || material.name == "changing")
            continue;
        const Reference reference = PlayUndisturbed(material);
        const auto count = std::ranges::count(reference.calls, "avcodec_receive_frame");
        ASSERT_GT(count, 0);
        for (int i = 0; i < count; ++i)
        {
            SCOPED_TRACE(material.name + ", occurrence " + std::to_string(i));
            const int code = i % 2 == 0 ? AVERROR(EAGAIN) : AVERROR_EOF;
            const FailingCall failing("avcodec_receive_frame", code, i);
            PlayThrough(material);
            EXPECT_TRUE(failing.Happened());
            EXPECT_EQ(VirtualDevice::Last().pushed, reference.sound);
            EXPECT_EQ(player.LastError(), "");
        }
    }
}

// In a host that has set no locale of its own.
TEST_F(FileFaults, KeepTheGainOfTheTagsWhereThereIsNoLocaleOfNumbers)
{
    if (testing::UnitTest::GetInstance()->test_to_run_count() > 1)
        GTEST_SKIP() << "the locale is made once in a process: other tests are to have it";
    const std::vector<float> samples = Ramp(2000, 2);
    const std::string path =
        Media::Make("-i '" + Media::WriteWav("loud.wav", samples) +
                        "' -c:a pcm_f32le -metadata REPLAYGAIN_TRACK_GAIN='-6.5 dB'",
                    "loud.mka");
    const FailingCall failing("newlocale");
    for (int i = 0; i < 2; ++i)
    {
        PlayThrough({"tagged", path});
        EXPECT_TRUE(failing.Happened());
        EXPECT_EQ(VirtualDevice::Last().pushed,
                  Media::Played(samples, std::pow(10.0, -6.5 / 20.0)));
    }
}

// --- Memory of the standard library

// An older kernel does not know what it is asked for.
TEST_F(FileFaults, PlayAllTheSameWhereMemoryIsNotFilledInAdvance)
{
    const std::vector<float> samples = Ramp(20000, 2);
    const FailingCall failing("madvise");
    PlayThrough({"large", Media::WriteWav("large.wav", samples)});
    EXPECT_TRUE(failing.Happened());
    EXPECT_EQ(VirtualDevice::Last().pushed, Media::Played(samples));
}

TEST_F(FileFaults, PlayFromTheDiskWhereThereIsNoMemoryForACopy)
{
    const Material material = Materials()[0];
    const Reference reference = PlayUndisturbed(material);
    const int copies = CallCount("avio_alloc_context");
    {
        const ShortMemory none(nullptr, 0, std::filesystem::file_size(material.path));
        PlayThrough(material);
        EXPECT_TRUE(none.Happened());
    }
    EXPECT_EQ(CallCount("avio_alloc_context"), copies);
    EXPECT_EQ(VirtualDevice::Last().pushed, reference.sound);
    EXPECT_EQ(player.LastError(), "");
    ExpectNextFileToPlay();
}

// Each time at which the buffer of converted frames grows.
TEST_F(FileFaults, TellWhereThereIsNoMemoryForAFrame)
{
    constexpr size_t kSmallestFrame = 512; // bytes
    int growths = 0;
    for (const Material& material : Materials())
    {
        const Reference reference = PlayUndisturbed(material);
        std::map<std::string, int> occurrences;
        for (size_t call = 0; call + 1 < reference.calls.size(); ++call)
        {
            const std::string function = reference.calls[call];
            const int occurrence = occurrences[function]++;
            if (reference.calls[call + 1] != "swr_convert")
                continue;
            SCOPED_TRACE(material.name + ", " + function + ", occurrence " +
                         std::to_string(occurrence));
            Stop();
            std::vector<float>().swap(access.ResampleBuffer()); // as at a player's first playback
            const ShortMemory none(function.c_str(), occurrence, kSmallestFrame);
            PlayThrough(material);
            if (!none.Happened())
            {
                EXPECT_EQ(VirtualDevice::Last().pushed, reference.sound);
                EXPECT_EQ(player.LastError(), "");
                continue;
            }
            ++growths;
            ExpectEnd(Outcome::kStopsEarly, "Audio decode failed: Cannot allocate memory",
                      reference, call);
            EXPECT_EQ(VirtualDevice::Last().pushed,
                      reference.Sound(0, reference.CountBefore(call, "Push")));
            ExpectNextFileToPlay();
        }
    }
    RecordProperty("faults", std::to_string(growths));
    EXPECT_GE(growths, static_cast<int>(Materials().size()) + 2); // overlapping frames grow
}
