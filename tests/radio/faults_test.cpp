// Each call into FFmpeg on the way of a radio stream, made to fail at each of its occurrences in a
// connection: what is said and reported, what is heard, whether it is tried again, and how it plays
// then.
#include "dictionary_log.h"
#include "faults.h"
#include "radio.h"

#include <optional>
#include <set>
#include <string_view>

using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::IsEmpty;

namespace
{

// What the failure of a call makes of the playback.
enum class Outcome
{
    kUnnoticed,    // all of it is heard
    kNotConnected, // there is no sink; the next attempt follows
    kNoBuffers,    // it ends with an error and leaves its sink inactive
    kFrameLost,    // all but one frame is heard
    kBreaks,       // as at the end of the connection: the next attempt follows
    kStops,        // it ends as for a stop
};

struct Fault
{
    std::string_view function;
    bool bSetUp; // whether this is about calls before the first packet is read
    Outcome outcome;
    const char* text = ""; // ends in ": ", or is empty, where FFmpeg's own follows
};

constexpr const char* kNoResampler = "Failed to allocate audio resampler.";
constexpr const char* kNoBuffers = "Failed to allocate FFmpeg radio buffers.";

constexpr Fault kFaults[] = {
    {"avformat_alloc_context", true, Outcome::kNotConnected,
     "Failed to allocate radio stream context."},
    {"avformat_open_input", true, Outcome::kNotConnected, "Failed to open radio stream: "},
    {"avformat_find_stream_info", true, Outcome::kNotConnected,
     "Failed to read radio stream info: "},
    {"av_find_best_stream", true, Outcome::kNotConnected, "No audio stream found in radio source."},
    {"avcodec_find_decoder", true, Outcome::kNotConnected,
     "No decoder available for this radio stream."},
    {"avcodec_alloc_context3", true, Outcome::kNotConnected,
     "Failed to allocate radio audio decoder."},
    {"avcodec_parameters_to_context", true, Outcome::kNotConnected,
     "Failed to configure radio decoder: "},
    {"avcodec_open2", true, Outcome::kNotConnected, "Failed to open radio decoder: "},
    {"av_channel_layout_copy", true, Outcome::kNotConnected, kNoResampler},
    {"av_channel_layout_copy", false, Outcome::kFrameLost},
    {"swr_alloc_set_opts2", true, Outcome::kNotConnected, kNoResampler},
    {"swr_alloc_set_opts2", false, Outcome::kFrameLost},
    {"swr_init", true, Outcome::kNotConnected, "Failed to initialize audio resampler: "},
    {"swr_init", false, Outcome::kFrameLost},
    {"av_frame_alloc", true, Outcome::kNoBuffers, kNoBuffers},
    {"av_packet_alloc", true, Outcome::kNoBuffers, kNoBuffers},
    {"av_read_frame", false, Outcome::kBreaks},
    {"avcodec_send_packet", false, Outcome::kFrameLost},
    {"avcodec_receive_frame", false, Outcome::kStops, "Radio decode failed: "},
    {"swr_convert", false, Outcome::kFrameLost},
    {"av_dict_set", true, Outcome::kUnnoticed},
    {"av_opt_get", true, Outcome::kUnnoticed},
};

constexpr double kRetryWait = 2.0;

struct Material
{
    std::string name;
    std::string bytes;
    size_t settling = 0;   // frames after a lost packet that are not yet as they would have been
    bool bIsHeard = false; // whether it is long enough for that
};

std::vector<Material> Materials()
{
    const std::string tags = "-metadata title=Title -metadata artist=Artist";
    return {
        {"lossless", Media::Read(Noise::Lossless(1.0, 4608)), 0, true},
        {"overlapping", Media::Read(Noise::Overlapping(0.2, tags)), 1},
        {"changing", Noise::Changing(), 1},
    };
}

// One undisturbed connection, with each report as "Report".
struct Reference : Undisturbed
{
    bool IsSetUp(size_t call) const
    {
        return CountBefore(call, "av_read_frame") == 0 && calls[call] != "av_read_frame";
    }
};

// The table's row for this call.
const Fault* FaultOf(const Reference& reference, size_t call)
{
    const auto found = std::ranges::find_if(kFaults,
                                            [&](const Fault& fault) {
                                                return fault.function == reference.calls[call] &&
                                                       fault.bSetUp == reference.IsSetUp(call);
                                            });
    return found == std::end(kFaults) ? nullptr : found;
}

std::string TextOf(const Fault& fault, const ErrorCode& code)
{
    const std::string_view text = fault.text;
    const bool bFFmpegs = EndsInFFmpegsText(text) || fault.outcome == Outcome::kBreaks;
    return std::string(text) + (bFFmpegs ? code.text : "");
}

class RadioFaults : public Radio
{
protected:
    RadioFaults() { VirtualDevice::ForgetCalls(); }

    // The stream's reports end with the playback that they are about.
    ~RadioFaults() override { Stop(); }

    // From nothing, up to the wait after the first connection, or to the end.
    void PlayAnew(const std::string& bytes)
    {
        Stop();
        VirtualDevice::Reset();
        ForgetReleases();
        told = std::make_unique<Reports>();
        server = std::make_unique<ScriptedServer>(
            std::vector<Script>{Whole(bytes, {"Content-Type: audio/test"})});
        const auto note = [report = told->Callback()](StreamState state, const StreamInfo& info,
                                                      const std::string& text)
        {
            report(state, info, text);
            NoteCall("Report");
        };
        ASSERT_TRUE(player.PlayStream(server->Url(), note));
        VirtualTime::Settle();
    }

    Reference PlayUndisturbed(const Material& material)
    {
        player.SetAudioPCMCallback([](const float*, int, int, int, long) { NoteCall("Push"); });
        const RecordedCalls recorded;
        PlayAnew(material.bytes);
        Reference reference{
            {recorded.All(), VirtualDevice::Last().pushed, VirtualDevice::Last().pushedFrames}};
        player.SetAudioPCMCallback({});
        EXPECT_EQ(player.LastError(), "");
        EXPECT_EQ(told->Lines(), ExpectedLines(material, reference, nullptr, 0, -1, "", 1));
        return reference;
    }

    // The reports of this many connections, one of which has this fault.
    static std::vector<std::string> ExpectedLines(const Material& material,
                                                  const Reference& reference, const Fault* fault,
                                                  size_t call, int faulty, const std::string& text,
                                                  int connections)
    {
        std::vector<std::string> lines;
        std::string last;
        for (int i = 0; i < connections; ++i)
        {
            const std::string attempt = " " + std::to_string(i);
            const std::string next = std::to_string(i + 1);
            const Outcome outcome = i == faulty ? fault->outcome : Outcome::kUnnoticed;
            lines.push_back(i == 0 ? "Connecting 0" : "Reconnecting" + attempt + " " + last);
            last = kEnd;
            std::vector<std::string> reports = {"Buffering" + attempt};
            if (material.bIsHeard)
                reports.insert(reports.end(), 2, "Playing" + attempt);
            if (outcome != Outcome::kUnnoticed && outcome != Outcome::kFrameLost)
            {
                reports.resize(reference.CountBefore(call, "Report") - 1); // after Connecting
                last = text;
            }
            lines.insert(lines.end(), reports.begin(), reports.end());
            if (outcome == Outcome::kNoBuffers || outcome == Outcome::kStops)
            {
                lines.push_back(outcome == Outcome::kStops ? "Stopped" + attempt
                                                           : "Error" + attempt + " " + text);
                return lines;
            }
            lines.push_back("Reconnecting " + next + " retry " + next + "/300: " + last);
        }
        return lines;
    }

    // What was delivered is what comes before the fault, to the bit, and where the playback goes on
    // all that follows.
    static void ExpectSound(const std::vector<float>& pushed, const Material& material,
                            const Reference& reference, const Fault& fault, size_t call)
    {
        if (fault.outcome == Outcome::kUnnoticed)
            EXPECT_EQ(pushed, reference.sound);
        else if (fault.outcome != Outcome::kFrameLost)
            EXPECT_EQ(pushed, reference.Sound(0, reference.CountBefore(call, "Push")));
        else if (material.settling > 0 && fault.function == "avcodec_send_packet")
            ExpectAllButAPacket(pushed, reference, call, material.settling);
        else
            EXPECT_EQ(pushed, reference.SoundWithoutPushAt(call));
    }

    // Every connection had a sink, but for one that was none, and all of them are gone.
    static void ExpectSinks(const Material& material, const Reference& reference,
                            const Fault& fault, size_t call, int faulty, int connections)
    {
        const auto sinks = VirtualDevice::Sinks();
        auto sink = sinks.begin();
        for (int i = 0; i < connections; ++i)
        {
            if (i == faulty && fault.outcome == Outcome::kNotConnected)
                continue;
            ASSERT_NE(sink, sinks.end());
            EXPECT_FALSE((*sink)->bActive);
            EXPECT_THAT((*sink)->pushedFrames, Each(Gt(0u)));
            EXPECT_EQ((*sink)->bDeleted, fault.outcome != Outcome::kNoBuffers || i != faulty);
            if (i == faulty)
                ExpectSound((*sink)->pushed, material, reference, fault, call);
            else
                EXPECT_EQ((*sink)->pushed, reference.sound);
            ++sink;
        }
        EXPECT_EQ(sink, sinks.end());
    }

    // What was created was released, packets before frames before decoders before demuxers; the
    // resamplers, which are replaced as well, are counted alone.
    static void ExpectReleases(const Reference& reference, const Fault& fault, size_t call,
                               int faulty, int connections)
    {
        constexpr std::pair<std::string_view, const char*> kReleases[] = {
            {"av_packet_alloc", "av_packet_free"},
            {"av_frame_alloc", "av_frame_free"},
            {"avcodec_alloc_context3", "avcodec_free_context"},
            {"avformat_open_input", "avformat_close_input"},
        };
        std::vector<std::string> expected;
        for (int i = 0; i < connections; ++i)
        {
            for (const auto& [creator, release] : kReleases)
            {
                if (i != faulty || (fault.outcome == Outcome::kNotConnected
                                        ? reference.CountBefore(call, creator) > 0
                                        : creator != fault.function))
                    expected.emplace_back(release);
            }
        }
        std::vector<std::string> releases = Releases();
        std::erase(releases, "swr_free");
        EXPECT_EQ(releases, expected);
    }

    void ExpectState(const Fault& fault, const std::string& text)
    {
        const bool bEnded =
            fault.outcome == Outcome::kNoBuffers || fault.outcome == Outcome::kStops;
        const bool bTold = bEnded || fault.outcome == Outcome::kNotConnected;
        EXPECT_EQ(player.HasFinished(), bEnded);
        EXPECT_EQ(player.LastError(), bTold ? text : "");
        EXPECT_EQ(player.IsStopRequestedForInterrupt(), fault.outcome == Outcome::kStops);
        EXPECT_EQ(access.HasOutput(), fault.outcome == Outcome::kNoBuffers);
        EXPECT_EQ(player.DurationSeconds(), 0.0);
        if (!bEnded)
        {
            EXPECT_TRUE(player.IsPlaying());
            EXPECT_EQ(player.CurrentSeconds(), 0.0);
        }
    }

    // On the same player, from nothing.
    void ExpectNextStreamToPlay()
    {
        PlayAnew(WavBytes(3 * kBlock));
        EXPECT_EQ(player.LastError(), "");
        EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(3 * kBlock));
        EXPECT_THAT(told->Lines(), ElementsAre("Connecting 0", "Buffering 0",
                                               "Reconnecting 1 retry 1/300: " + kEnd));
    }

    void ExpectNothingHeld()
    {
        Stop();
        EXPECT_FALSE(player.IsPlaying());
        EXPECT_FALSE(access.HasOutput());
        EXPECT_EQ(Unreleased(), unreleased);
    }

    std::unique_ptr<Reports> told;
    const std::map<std::string, int> unreleased = Unreleased();
};

class RadioFaultsOf : public RadioFaults, public testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_P(RadioFaultsOf, EndAsTheyShouldWhereverTheyCome)
{
    const std::string function = GetParam();
    size_t faults = 0;
    std::set<const Fault*> met;
    std::set<std::string> texts;
    for (const Material& material : Materials())
    {
        const Reference reference = PlayUndisturbed(material);
        ASSERT_FALSE(reference.sound.empty());
        const auto perConnection =
            static_cast<int>(reference.CountBefore(reference.calls.size(), function));
        int occurrence = 0;
        for (size_t call = 0; call < reference.calls.size(); ++call)
        {
            if (reference.calls[call] != function)
                continue;
            const Fault* fault = FaultOf(reference, call);
            ASSERT_TRUE(fault) << "call " << call;
            met.insert(fault);
            // What leads to the next connection has to come after one as well.
            const bool bLeadsOn =
                fault->outcome == Outcome::kNotConnected || fault->outcome == Outcome::kBreaks;
            for (int faulty = 0; faulty < (bLeadsOn ? 2 : 1); ++faulty)
            {
                const ErrorCode& code = kErrorCodes[faults++ % std::size(kErrorCodes)];
                const std::string text = TextOf(*fault, code);
                SCOPED_TRACE(material.name + ", connection " + std::to_string(faulty) +
                             ", occurrence " + std::to_string(occurrence) + ", " + code.text);
                const FailingCall failing(function.c_str(), code.code,
                                          faulty * perConnection + occurrence);
                PlayAnew(material.bytes);
                for (int i = 0; i <= faulty; ++i)
                    VirtualTime::Step(kRetryWait);
                ASSERT_TRUE(failing.Happened());
                const bool bEnds =
                    fault->outcome == Outcome::kNoBuffers || fault->outcome == Outcome::kStops;
                const int connections = faulty + (bEnds ? 1 : 2);
                EXPECT_EQ(told->Lines(), ExpectedLines(material, reference, fault, call, faulty,
                                                       text, connections));
                ExpectState(*fault, text);
                ExpectSinks(material, reference, *fault, call, faulty, connections);
                ExpectReleases(reference, *fault, call, faulty, connections);
                if (bEnds)
                    ExpectNextStreamToPlay();
                ExpectNothingHeld();
                texts.insert(text);
            }
            ++occurrence;
        }
    }
    RecordProperty("faults", std::to_string(faults));
    RecordProperty("texts", testing::PrintToString(texts));
    EXPECT_EQ(met.size(), std::ranges::count(kFaults, function, &Fault::function));
}

INSTANTIATE_TEST_SUITE_P(All, RadioFaultsOf, testing::ValuesIn(FunctionsOf(kFaults)),
                         [](const auto& testInfo) { return std::string(testInfo.param); });

// Every text that ends in FFmpeg's own, with every one of these.
TEST_F(RadioFaults, NameEveryCode)
{
    const Material material{"short", WavBytes(3 * kBlock)};
    const Reference reference = PlayUndisturbed(material);
    size_t faults = 0;
    for (const Fault& fault : kFaults)
    {
        const auto call = std::ranges::find(reference.calls, fault.function);
        if (call == reference.calls.end() ||
            TextOf(fault, kErrorCodes[0]) == TextOf(fault, kErrorCodes[1]))
            continue;
        for (const ErrorCode& code : kErrorCodes)
        {
            SCOPED_TRACE(std::string(fault.function) + ", " + code.text);
            const FailingCall failing(fault.function.data(), code.code);
            PlayAnew(material.bytes);
            const std::string text = TextOf(fault, code);
            EXPECT_EQ(told->Lines(),
                      ExpectedLines(material, reference, &fault,
                                    static_cast<size_t>(call - reference.calls.begin()), 0, text,
                                    1));
            ExpectState(fault, text);
            ++faults;
        }
    }
    RecordProperty("faults", std::to_string(faults));
    EXPECT_EQ(faults, 7 * std::size(kErrorCodes));
}

// Who stops a playback while one of its calls fails hears of the failure, and waits for nothing.
TEST_F(RadioFaults, EndAtOnceWhereAStopComesWithThem)
{
    const Material material = Materials()[0];
    const Reference reference = PlayUndisturbed(material);
    std::map<std::string, int> occurrences;
    for (size_t call = 0; call < reference.calls.size(); ++call)
    {
        const std::string function = reference.calls[call];
        const Fault* fault = FaultOf(reference, call);
        if (!fault || fault->outcome == Outcome::kUnnoticed)
            continue;
        const int occurrence = occurrences[function]++;
        SCOPED_TRACE(function + ", occurrence " + std::to_string(occurrence));
        const DuringCall stop(function.c_str(), occurrence, [&] { player.RequestStop(); });
        const FailingCall failing(function.c_str(), kErrorCodes[0].code, occurrence);
        PlayAnew(material.bytes);
        ASSERT_TRUE(failing.Happened());

        const std::string text = function == "avformat_open_input" ? "Radio stream open cancelled."
                                                                   : TextOf(*fault, kErrorCodes[0]);
        std::vector<std::string> lines = ExpectedLines(material, reference, nullptr, 0, -1, "", 1);
        lines.resize(reference.CountBefore(call, "Report"));
        const bool bConnected = fault->outcome != Outcome::kNotConnected;
        if (!bConnected)
            lines.push_back("Reconnecting 1 retry 1/300: " + text);
        lines.push_back(bConnected ? "Stopped 0" : "Stopped 1");
        EXPECT_EQ(told->Lines(), lines);
        EXPECT_TRUE(player.HasFinished());
        const bool bTold = fault->outcome != Outcome::kBreaks;
        EXPECT_EQ(player.LastError(), bTold ? text : "");
        EXPECT_EQ(VirtualDevice::Last().pushed,
                  reference.Sound(0, reference.CountBefore(call, "Push")));
        EXPECT_THAT(VirtualDevice::Last().heard, IsEmpty());
        ExpectNothingHeld();
    }
    RecordProperty("functions", std::to_string(occurrences.size()));
    EXPECT_EQ(occurrences.size(), FunctionsOf(kFaults).size() - 2); // without the unnoticed ones
}

// --- What is no error

// A decoder that asks for more, or has come to its end, where it should have given a frame: the
// frame comes with the next packet. Behind the last packet there is none.
TEST_F(RadioFaults, LoseNothingWhereADecoderGivesItsFrameLater)
{
    const Material material = Materials()[0];
    const Reference reference = PlayUndisturbed(material);
    const auto count =
        static_cast<int>(reference.CountBefore(reference.calls.size(), "avcodec_receive_frame"));
    ASSERT_GT(count, 0);
    for (int i = 0; i < count; ++i)
    {
        SCOPED_TRACE("occurrence " + std::to_string(i));
        const FailingCall failing("avcodec_receive_frame",
                                  i % 2 == 0 ? AVERROR(EAGAIN) : AVERROR_EOF, i);
        PlayAnew(material.bytes);
        EXPECT_TRUE(failing.Happened());
        const size_t lost = i == count - 2 ? 1 : 0; // the last frame
        EXPECT_EQ(VirtualDevice::Last().pushed, reference.Sound(0, reference.frames.size() - lost));
        EXPECT_EQ(player.LastError(), "");
    }
}

// Whether there is no memory for the question, or for the answer.
TEST_F(RadioFaults, GoWithoutAContentTypeThatThereIsNoMemoryFor)
{
    const std::string bytes = WavBytes(3 * kBlock);
    ForgetDictionaryEntries();
    PlayAnew(bytes);
    ASSERT_EQ(told->LastInfo().ContentType, "audio/test");
    const std::vector<std::string> entries = DictionaryEntries();
    const auto entry = std::ranges::find(entries, "content-type=audio/test 0");
    ASSERT_NE(entry, entries.end());
    for (const auto& [function, skip] :
         {std::pair{"av_opt_get", 0},
          std::pair{"av_dict_set", static_cast<int>(entry - entries.begin())}})
    {
        const FailingCall failing(function, AVERROR(ENOMEM), skip);
        PlayAnew(bytes);
        EXPECT_EQ(told->LastInfo().ContentType, "") << function;
        EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(3 * kBlock)) << function;
        VirtualTime::Step(kRetryWait);
        EXPECT_EQ(told->LastInfo().ContentType, "audio/test") << function;
    }
}

TEST_F(RadioFaults, TellTheTitleAfterOneThatThereWasNoMemoryFor)
{
    const auto song = [](const char* name)
    {
        return Encoded("-c:a libvorbis -metadata title=" + std::string(name), "song.ogg", 0.2);
    };
    const std::string songs = song("First") + song("Second") + song("Third");
    ForgetDictionaryEntries();
    PlayAnew(songs);
    ASSERT_THAT(told->Titles(), ElementsAre("First", "Second", "Third"));
    const std::vector<std::string> entries = DictionaryEntries();
    const auto entry = std::ranges::find(entries, "StreamTitle=First 0");
    ASSERT_NE(entry, entries.end());
    const FailingCall failing("av_dict_set", AVERROR(ENOMEM),
                              static_cast<int>(entry - entries.begin()));
    PlayAnew(songs);
    EXPECT_TRUE(failing.Happened());
    EXPECT_THAT(told->Titles(), ElementsAre("Second", "Third"));
}

// --- Memory of the standard library

// Each time at which the buffer of converted frames grows.
TEST_F(RadioFaults, CostAFrameThatThereIsNoMemoryFor)
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
            PlayAnew(material.bytes);
            growths += none.Happened();
            EXPECT_EQ(VirtualDevice::Last().pushed,
                      none.Happened() ? reference.SoundWithoutPushAt(call) : reference.sound);
            EXPECT_EQ(player.LastError(), "");
            EXPECT_EQ(told->Lines(), ExpectedLines(material, reference, nullptr, 0, -1, "", 1));
        }
    }
    RecordProperty("faults", std::to_string(growths));
    EXPECT_GT(growths, static_cast<int>(Materials().size())); // overlapping frames grow
}
