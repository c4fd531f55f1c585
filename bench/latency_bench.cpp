// How long it takes from a call, or from a program's start, until it can be heard, and how long
// until it cannot be heard any more: the player beside others, at the monitor of a null sink.
// scripts/with-null-sink brings one. PIPEWIRE_LATENCY sets the length of the cycles for all.
//
// Calls come at random moments of the graph's cycle, as users' do.
#include "bare_stream.h"
#include "cases.h"
#include "contenders.h"
#include "monitor.h"
#include "scripted_server.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern "C"
{
#include <libavutil/log.h>
}

namespace
{

constexpr std::chrono::seconds kPatience{10};
constexpr int64_t kQuietNs = 100'000'000;         // for so long: silence, not a gap
constexpr std::chrono::milliseconds kSteady{200}; // until the queues of a player are full
constexpr int kTurns = 4;                         // of what can be done again in one playback
constexpr int kShortSounds = 20;                  // in a row
constexpr size_t kShortFrames = kGraphRate / 20;  // of 50 ms
constexpr size_t kBurstBytes = 65536;             // what a radio server sends at once
constexpr size_t kRadioFrameBytes = 384;          // of MP3 with 128 kbit/s at 48 kHz, all alike

double Ms(int64_t ns)
{
    return static_cast<double>(ns) / 1e6;
}

// --- What all cases share -----------------------------------------------------------------------

class Stage
{
public:
    // Made for the first case that runs.
    static Stage& Get()
    {
        static Stage stage;
        return stage;
    }

    Media media;
    Monitor monitor;

    ResidentPlayer& Resident(const std::string& name)
    {
        if (name == "tovrel")
            return m_tovrel;
        if (!m_mpv)
            m_mpv = std::make_unique<ResidentMpv>();
        return *m_mpv;
    }

    std::string RadioUrl(const std::string& path) const { return m_server.Url("/" + path); }

    // Returns in silence, at a moment of the cycle that is as good as any.
    void AwaitSilence()
    {
        AwaitEndOfSound(NowNs());
        AwaitAnyMoment();
    }

    void AwaitAnyMoment()
    {
        const double cycleNs = static_cast<double>(FramesToNs(monitor.Quantum()));
        std::uniform_real_distribution<double> part(0.0, 1.0);
        std::this_thread::sleep_for(
            std::chrono::nanoseconds(static_cast<int64_t>(part(m_random) * cycleNs)));
    }

    // The first loud frame from a moment on.
    int64_t AwaitSound(
        int64_t afterNs, Channel channel = Channel::kAny,
        const std::function<void()>& check = [] {}) const
    {
        return Await("no sound",
                     [&]
                     {
                         const auto sound = monitor.FirstSound(channel, afterNs);
                         if (!sound)
                             check();
                         return sound;
                     });
    }

    // Until when there was sound, if there was any from a moment on.
    int64_t AwaitEndOfSound(int64_t afterNs) const
    {
        return Await("no silence",
                     [&]() -> std::optional<int64_t>
                     {
                         const int64_t last = monitor.LastSound(afterNs);
                         if (monitor.HeardUntilNs() - last < kQuietNs)
                             return std::nullopt;
                         return last;
                     });
    }

private:
    Stage() : m_server([this](const std::string& request) { return RadioScript(request); }) {}

    template <typename Look>
    static int64_t Await(const char* complaint, Look look)
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (std::chrono::steady_clock::now() < deadline)
        {
            if (const std::optional<int64_t> ns = look())
                return *ns;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        throw std::runtime_error(complaint);
    }

    // A server that sends what has gathered at once and goes on in real time.
    Script RadioScript(const std::string& request)
    {
        const bool bMidFrame = request.find("midframe") != std::string::npos;
        const std::string format = request.find("/mp3") != std::string::npos   ? "mp3"
                                   : request.find("/aac") != std::string::npos ? "aac"
                                                                               : "opus";
        const std::string type = format == "mp3"   ? "audio/mpeg"
                                 : format == "aac" ? "audio/aac"
                                                   : "application/ogg";
        const std::string_view bytes = media.Radio(format);
        const size_t start = bMidFrame ? 100 * kRadioFrameBytes + kRadioFrameBytes / 2 : 0;
        const auto bytesPerSecond =
            static_cast<size_t>(static_cast<double>(bytes.size()) / kRadioSeconds);
        return {Reply("HTTP/1.0 200 OK", {"Content-Type: " + type, "icy-name: Benchmark",
                                          "icy-br: 128", "Cache-Control: no-cache"}),
                [=](Connection& client)
                {
                    client.Send(bytes.substr(start, kBurstBytes));
                    client.SendPaced(bytes.substr(start + kBurstBytes), bytesPerSecond);
                }};
    }

    std::minstd_rand m_random{std::random_device{}()};
    ResidentTovrel m_tovrel;
    std::unique_ptr<ResidentMpv> m_mpv;
    ScriptedServer m_server;
};

// The cycles in which it was heard, and whether the figures may be wrong for holes in the
// listening.
class Listening
{
public:
    explicit Listening(benchmark::State& state) :
        m_state(state), m_holesBefore(Stage::Get().monitor.Holes())
    {
    }
    ~Listening()
    {
        const Monitor& monitor = Stage::Get().monitor;
        m_state.counters["quantum"] = static_cast<double>(m_quantum);
        m_state.counters["holes"] = static_cast<double>(monitor.Holes() - m_holesBefore);
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    void NoteQuantum() { m_quantum = Stage::Get().monitor.Quantum(); }

private:
    benchmark::State& m_state;
    uint64_t m_holesBefore;
    size_t m_quantum = 0;
};

// Leaves a player stopped and not paused, also where a case gives up.
class StoppedInTheEnd
{
public:
    explicit StoppedInTheEnd(ResidentPlayer& player) : m_player(player) {}
    ~StoppedInTheEnd()
    {
        try
        {
            m_player.Stop();
            m_player.SetPaused(false);
        }
        catch (const std::exception&)
        {
            // A player that is gone is stopped; the next case that needs it complains.
        }
    }
    StoppedInTheEnd(const StoppedInTheEnd&) = delete;
    StoppedInTheEnd& operator=(const StoppedInTheEnd&) = delete;

private:
    ResidentPlayer& m_player;
};

// A file that plays steadily, at its beginning, for the life of the object.
class Playback
{
public:
    Playback(ResidentPlayer& player, const std::string& path) : m_stopped(player)
    {
        Stage& stage = Stage::Get();
        stage.AwaitSilence();
        const int64_t calledNs = NowNs();
        player.PlayFile(path);
        stage.AwaitSound(calledNs);
        std::this_thread::sleep_for(kSteady);
        stage.AwaitAnyMoment();
    }

private:
    StoppedInTheEnd m_stopped;
};

// What several turns of one case have brought, in nanoseconds.
class Turns
{
public:
    void Add(int64_t ns)
    {
        m_totalNs += ns;
        m_worstNs = std::max(m_worstNs, ns);
        ++m_count;
    }

    double MeanMs() const { return Ms(m_totalNs) / m_count; }
    double WorstMs() const { return Ms(m_worstNs); }

private:
    int64_t m_totalNs = 0;
    int64_t m_worstNs = 0;
    int m_count = 0;
};

// --- The cases: each returns milliseconds ------------------------------------------------------

double FirstSound(benchmark::State& state, const std::string& format, const std::string& contender)
{
    Stage& stage = Stage::Get();
    ResidentPlayer& player = stage.Resident(contender);
    const std::string path = stage.media.FilePath(format);
    stage.AwaitSilence();
    Listening listening(state);
    const StoppedInTheEnd stopped(player);
    const int64_t calledNs = NowNs();
    player.PlayFile(path);
    const int64_t soundNs = stage.AwaitSound(calledNs);
    listening.NoteQuantum();
    return Ms(soundNs - calledNs);
}

double FirstSoundOfBare(benchmark::State& state)
{
    Stage& stage = Stage::Get();
    stage.AwaitSilence();
    Listening listening(state);
    const int64_t calledNs = NowNs();
    const BareStream stream;
    const int64_t soundNs = stage.AwaitSound(calledNs);
    listening.NoteQuantum();
    return Ms(soundNs - calledNs);
}

double ProcessStart(benchmark::State& state, const std::string& format,
                    const std::string& contender)
{
    Stage& stage = Stage::Get();
    const Arguments command = CommandOf(contender, stage.media.FilePath(format));
    stage.AwaitSilence();
    Listening listening(state);
    const int64_t calledNs = NowNs();
    ChildProcess process(command);
    const auto mustRun = [&]
    {
        if (process.HasEnded())
            throw std::runtime_error(contender + " ends without a sound");
    };
    const int64_t soundNs = stage.AwaitSound(calledNs, Channel::kAny, mustRun);
    listening.NoteQuantum();
    return Ms(soundNs - calledNs);
}

// There and back between the halves, which are told by their channels. The time is until the new
// half is heard; the silence stands between it and the old one.
double Seek(benchmark::State& state, const std::string& format, const std::string& contender)
{
    Stage& stage = Stage::Get();
    ResidentPlayer& player = stage.Resident(contender);
    const Playback playback(player, stage.media.FilePath(format));
    Listening listening(state);
    Turns seeks;
    Turns silences;
    for (int turn = 0; turn < kTurns; ++turn)
    {
        const bool bRight = turn % 2 == 0;
        const int64_t calledNs = NowNs();
        player.Seek(kMediaSeconds * (bRight ? 0.75 : 0.25));
        const int64_t soundNs =
            stage.AwaitSound(calledNs, bRight ? Channel::kRight : Channel::kLeft);
        seeks.Add(soundNs - calledNs);
        silences.Add(stage.monitor.LongestSilenceNs(calledNs, soundNs));
        std::this_thread::sleep_for(kSteady);
        stage.AwaitAnyMoment();
    }
    listening.NoteQuantum();
    state.counters["worst_ms"] = seeks.WorstMs();
    state.counters["silence_ms"] = silences.WorstMs();
    return seeks.MeanMs();
}

double Stop(benchmark::State& state, const std::string& format, const std::string& contender)
{
    Stage& stage = Stage::Get();
    ResidentPlayer& player = stage.Resident(contender);
    const Playback playback(player, stage.media.FilePath(format));
    Listening listening(state);
    listening.NoteQuantum();
    const int64_t calledNs = NowNs();
    player.Stop();
    return Ms(stage.AwaitEndOfSound(calledNs) - calledNs);
}

// Pauses and resumes several times; `bResume` tells which of the two is measured.
double PauseAndResume(benchmark::State& state, const std::string& format,
                      const std::string& contender, bool bResume)
{
    Stage& stage = Stage::Get();
    ResidentPlayer& player = stage.Resident(contender);
    const Playback playback(player, stage.media.FilePath(format));
    Listening listening(state);
    listening.NoteQuantum();
    Turns pauses;
    Turns resumes;
    for (int turn = 0; turn < kTurns; ++turn)
    {
        const int64_t pausedNs = NowNs();
        player.SetPaused(true);
        pauses.Add(stage.AwaitEndOfSound(pausedNs) - pausedNs);
        stage.AwaitAnyMoment();

        const int64_t resumedNs = NowNs();
        player.SetPaused(false);
        resumes.Add(stage.AwaitSound(resumedNs) - resumedNs);
        std::this_thread::sleep_for(kSteady);
        stage.AwaitAnyMoment();
    }
    const Turns& measured = bResume ? resumes : pauses;
    state.counters["worst_ms"] = measured.WorstMs();
    return measured.MeanMs();
}

double Radio(benchmark::State& state, const std::string& stream, const std::string& contender)
{
    Stage& stage = Stage::Get();
    ResidentPlayer& player = stage.Resident(contender);
    stage.media.Radio(stream.substr(0, stream.find('-'))); // is there before it is asked for
    stage.AwaitSilence();
    Listening listening(state);
    const StoppedInTheEnd stopped(player);
    const int64_t calledNs = NowNs();
    player.PlayRadio(stage.RadioUrl(stream));
    const int64_t soundNs = stage.AwaitSound(calledNs);
    listening.NoteQuantum();
    return Ms(soundNs - calledNs);
}

// Returns when it is true, as a host that has nothing better to ask finds it out.
template <typename Condition>
void Poll(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("a short sound does not end");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// One play from its call to its end, the closing of the last one included.
double ShortSounds(benchmark::State&)
{
    Stage::Get().AwaitSilence();
    const std::vector<float> sound(kShortFrames * kGraphChannels, 0.25f);
    TovrelAudioPlayer player;
    const int64_t calledNs = NowNs();
    for (int i = 0; i < kShortSounds; ++i)
    {
        player.PlayPcm(sound, kGraphRate, kGraphChannels);
        Poll([&] { return player.HasFinished(); });
    }
    player.Stop();
    return Ms(NowNs() - calledNs) / kShortSounds;
}

double ShortSoundsOfBare(benchmark::State& state)
{
    Stage::Get().AwaitSilence();
    double readyMs = 0.0;
    double firstCallMs = 0.0;
    int64_t closingNs = 0;
    const int64_t calledNs = NowNs();
    for (int i = 0; i < kShortSounds; ++i)
    {
        auto stream = std::make_unique<BareStream>(kShortFrames);
        Poll([&] { return stream->HasPlayed(); });
        readyMs += stream->ReadyMs();
        firstCallMs += stream->FirstCallMs();
        const int64_t playedNs = NowNs();
        stream.reset();
        closingNs += NowNs() - playedNs;
    }
    const double ms = Ms(NowNs() - calledNs) / kShortSounds;
    state.counters["open_ms"] = readyMs / kShortSounds;
    state.counters["first_call_ms"] = firstCallMs / kShortSounds;
    state.counters["close_ms"] = Ms(closingNs) / kShortSounds;
    return ms;
}

// --- The list -----------------------------------------------------------------------------------

void Register(const std::string& name, const std::function<double(benchmark::State&)>& measuredMs)
{
    RegisterCase(name,
                 [measuredMs](benchmark::State& state)
                 {
                     for ([[maybe_unused]] auto _ : state)
                         state.SetIterationTime(measuredMs(state) / 1000.0);
                 });
}

using Case = double (*)(benchmark::State&, const std::string& what, const std::string& contender);

void Register(const std::string& name, Case measure, const std::vector<std::string>& whats,
              const std::vector<std::string>& contenders)
{
    for (const std::string& what : whats)
    {
        for (const std::string& contender : contenders)
        {
            Register(name + "/" + what + "/" + contender,
                     [=](benchmark::State& state) { return measure(state, what, contender); });
        }
    }
}

void RegisterAll()
{
    const std::vector<std::string> formats = {"wav", "flac", "mp3", "opus"};
    const std::vector<std::string> residents = {"tovrel", "mpv"};
    Register("FirstSound", FirstSound, formats, residents);
    for (const std::string& format : formats)
        Register("FirstSound/" + format + "/bare", FirstSoundOfBare);
    Register("ProcessStart", ProcessStart, formats,
             {"tovrel-play", "mpv", "ffplay", "gstreamer", "pw-cat", "bare"});
    Register("Seek", Seek, formats, residents);
    Register("Stop", Stop, formats, residents);
    Register(
        "Pause",
        [](benchmark::State& state, const std::string& format, const std::string& contender)
        { return PauseAndResume(state, format, contender, false); },
        formats, residents);
    Register(
        "Resume",
        [](benchmark::State& state, const std::string& format, const std::string& contender)
        { return PauseAndResume(state, format, contender, true); },
        formats, residents);
    Register("Radio", Radio, {"mp3", "mp3-midframe", "aac", "opus"}, residents);
    Register("ShortSounds/pcm/tovrel", ShortSounds);
    Register("ShortSounds/pcm/bare", ShortSoundsOfBare);
}

} // namespace

int main(int argc, char** argv)
{
    av_log_set_level(AV_LOG_QUIET);           // what decoders remark would stand between the lines
    setenv("SDL_AUDIODRIVER", "pipewire", 1); // ffplay's library takes it only if it is told to
    RegisterAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
