// What a minute of playback costs once it plays: processor time, context switches, memory and
// allocations, beside what it costs others. It needs a daemon: scripts/with-null-sink brings one.
// The others ask the graph for cycles of their own liking; under PIPEWIRE_LATENCY all have the
// same.
#include "cases.h"
#include "contenders.h"
#include "tovrel_audio_player.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace
{

constexpr std::chrono::seconds kSettling{1};
constexpr std::chrono::seconds kWindow{6};
constexpr double kMiB = 1024.0 * 1024.0;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// --- What is played -----------------------------------------------------------------------------

// Tones that move and fade, and some noise, different in the two channels: a FLAC of it has the
// size that music has. A pure tone would cost its decoder next to nothing.
constexpr const char* kMusic =
    "aevalsrc=d=20:s=48000:c=stereo:exprs="
    "'0.2*sin(2*PI*220*t)*(0.6+0.4*sin(2*PI*1.7*t))+0.15*sin(2*PI*554.4*t+3*sin(2*PI*5*t))"
    "+0.1*sin(2*PI*1318*t)*exp(-4*mod(t,0.5))+0.05*(random(0)-0.5)*exp(-20*mod(t,0.25))"
    "+0.01*(random(1)-0.5)"
    "|0.2*sin(2*PI*220*t+0.5)+0.15*sin(2*PI*659.3*t)*(0.6+0.4*sin(2*PI*0.9*t))"
    "+0.1*sin(2*PI*1567*t)*exp(-4*mod(t+0.25,0.5))+0.05*(random(2)-0.5)*exp(-20*mod(t,0.25))"
    "+0.01*(random(3)-0.5)'";
constexpr const char* kMusicRepeats = "11"; // after the first time: four minutes

struct Format
{
    std::string name; // of the file and of the case: the codec and the rate
    Arguments encoding;
};

// Opus is 48 kHz whatever it was made from.
const std::vector<Format> kFormats{
    {"wav-44.1kHz", {"-ar", "44100", "-c:a", "pcm_s16le", "-f", "wav"}},
    {"wav-48kHz", {"-c:a", "pcm_s16le", "-f", "wav"}},
    {"flac-44.1kHz", {"-ar", "44100", "-c:a", "flac", "-f", "flac"}},
    {"flac-48kHz", {"-c:a", "flac", "-f", "flac"}},
    {"mp3-44.1kHz", {"-ar", "44100", "-c:a", "libmp3lame", "-b:a", "256k", "-f", "mp3"}},
    {"mp3-48kHz", {"-c:a", "libmp3lame", "-b:a", "256k", "-f", "mp3"}},
    {"opus-48kHz", {"-c:a", "libopus", "-b:a", "128k", "-f", "ogg"}},
};

// The files are made when they are first asked for.
class Music
{
public:
    std::string File(const Format& format)
    {
        const std::string path = m_directory.File(format.name);
        if (std::filesystem::exists(path))
            return path;
        const std::string music = m_directory.File("music.wav");
        if (!std::filesystem::exists(music))
            RunFfmpeg({"-f", "lavfi", "-i", kMusic, music});
        Arguments arguments{"-stream_loop", kMusicRepeats, "-i", music};
        arguments.insert(arguments.end(), format.encoding.begin(), format.encoding.end());
        arguments.push_back(path);
        RunFfmpeg(arguments);
        return path;
    }

    std::string Recording() const { return m_directory.File("recording.wav"); }

private:
    TemporaryDirectory m_directory;
};

// Whether the default sink plays anything but silence now.
bool SinkSounds(const Music& music)
{
    ChildProcess recorder({"pw-record", "-P", "{ stream.capture.sink = true }", music.Recording()});
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    recorder.End(SIGINT);
    std::ifstream file(music.Recording(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    constexpr size_t kHeaderBytes = 44;
    return bytes.size() > kHeaderBytes &&
           std::any_of(bytes.begin() + kHeaderBytes, bytes.end(), [](char c) { return c != 0; });
}

// --- What a process takes, as the kernel counts it ----------------------------------------------

struct Thread
{
    std::string id;
    std::string name;
    double cpuMs = 0.0;
    double switches = 0.0; // of both kinds
};

// The number in the line "Name:  number" of a file of /proc; the sum where there are several.
double FieldOf(const std::string& path, std::string_view name)
{
    std::ifstream file(path);
    double sum = 0.0;
    for (std::string line; std::getline(file, line);)
    {
        if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == ':')
            sum += std::strtod(line.c_str() + name.size() + 1, nullptr);
    }
    return sum;
}

// In the order in which they were started.
std::vector<Thread> ThreadsOf(pid_t process)
{
    std::vector<Thread> threads;
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& entry : std::filesystem::directory_iterator(tasks, error))
    {
        const std::string path = entry.path();
        Thread thread;
        thread.id = entry.path().filename();
        std::getline(std::ifstream(path + "/comm"), thread.name);
        std::ifstream(path + "/schedstat") >> thread.cpuMs;
        thread.cpuMs /= 1e6;
        thread.switches = FieldOf(path + "/status", "voluntary_ctxt_switches") +
                          FieldOf(path + "/status", "nonvoluntary_ctxt_switches");
        threads.push_back(thread);
    }
    return threads;
}

// The threads that there are now, with what they have taken since `before`.
std::vector<Thread> ThreadsSince(const std::vector<Thread>& before, pid_t process)
{
    std::vector<Thread> threads = ThreadsOf(process);
    for (Thread& thread : threads)
    {
        const auto old = std::find_if(before.begin(), before.end(),
                                      [&](const Thread& other) { return other.id == thread.id; });
        if (old == before.end())
            continue;
        thread.cpuMs -= old->cpuMs;
        thread.switches -= old->switches;
    }
    return threads;
}

// The player's threads in a process that has no others but its main thread. Most have the name of
// the program, so they are told by the order in which a playback starts them: its worker, which
// opens the output and so starts PipeWire's data thread and the sink's loop.
struct PlayerThreads
{
    Thread worker;
    Thread data;

    static std::optional<PlayerThreads> Among(const std::vector<Thread>& threads)
    {
        if (threads.size() != 4 || threads[3].name != "tovrel-audio")
            return std::nullopt;
        return PlayerThreads{threads[1], threads[2]};
    }
};

// --- A player as a program of its own -----------------------------------------------------------

struct Contender
{
    std::string name;
    std::string program;
    Arguments options;
};

const Contender kTovrel{"tovrel", "tovrel-play", {}};
const Contender kTovrelEqualizer{"tovrel", "tovrel-play", {"--eq", "3,-6,9,-12,6,-3,1,-1,6,-3"}};

// By name, those first that take the most.
std::string CpuByThreadName(const std::vector<Thread>& threads, double perMinute)
{
    std::map<std::string, double> byName;
    for (const Thread& thread : threads)
        byName[thread.name] += thread.cpuMs * perMinute;
    std::vector<std::pair<std::string, double>> names(byName.begin(), byName.end());
    std::sort(names.begin(), names.end(),
              [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (const auto& [name, cpuMs] : names)
        text += (text.empty() ? "" : ", ") + name + " " + std::to_string(std::lround(cpuMs));
    return text;
}

Arguments CommandOf(const Contender& contender, const std::string& path)
{
    Arguments command = ::CommandOf(contender.program, path);
    command.insert(command.begin() + 1, contender.options.begin(), contender.options.end());
    return command;
}

// The time of the case is the processor time that a played minute takes.
void Steady(benchmark::State& state, Music& music, const Format& format, const Contender& contender)
{
    const std::string path = music.File(format);
    for ([[maybe_unused]] auto _ : state)
    {
        const ChildProcess player(CommandOf(contender, path));
        std::this_thread::sleep_for(kSettling);
        // It is listened to before and afterwards, as a listener costs the graph time.
        const bool bSoundsBefore = SinkSounds(music);
        std::this_thread::sleep_for(kSettling);

        const std::vector<Thread> threadsBefore = ThreadsOf(player.Id());
        const double cpuBefore = player.CpuSeconds();
        const auto begin = Clock::now();
        std::this_thread::sleep_for(kWindow);
        const double perMinute = 60.0 / SecondsSince(begin);
        const double cpuSeconds = (player.CpuSeconds() - cpuBefore) * perMinute;
        const std::vector<Thread> threads = ThreadsSince(threadsBefore, player.Id());
        const std::string process = "/proc/" + std::to_string(player.Id());
        // Clean is what files of programs and libraries hold that nobody else uses just now.
        const double cleanKiB = FieldOf(process + "/smaps_rollup", "Private_Clean");
        const double dirtyKiB = FieldOf(process + "/smaps_rollup", "Private_Dirty");
        const double peakKiB = FieldOf(process + "/status", "VmHWM");

        if (!bSoundsBefore || !SinkSounds(music) || threads.empty())
            return state.SkipWithError("it does not play; is there a PipeWire daemon?");
        state.SetIterationTime(cpuSeconds);
        state.SetLabel("ms by thread: " + CpuByThreadName(threads, perMinute));
        double switches = 0.0;
        for (const Thread& thread : threads)
            switches += thread.switches * perMinute;
        state.counters["cpu_ms"] = cpuSeconds * 1000.0;
        state.counters["switches"] = switches;
        state.counters["threads"] = static_cast<double>(threads.size());
        state.counters["private_mib"] = (cleanKiB + dirtyKiB) / 1024.0;
        state.counters["dirty_mib"] = dirtyKiB / 1024.0;
        state.counters["peak_mib"] = peakKiB / 1024.0;
        state.counters["file_mib"] = static_cast<double>(std::filesystem::file_size(path)) / kMiB;
        if (contender.name != kTovrel.name)
            continue;
        const auto own = PlayerThreads::Among(threads);
        if (!own)
            return state.SkipWithError("the player's threads are not those that are known");
        state.counters["worker_ms"] = own->worker.cpuMs * perMinute;
        state.counters["data_ms"] = own->data.cpuMs * perMinute;
        state.counters["rest_ms"] =
            cpuSeconds * 1000.0 - (own->worker.cpuMs + own->data.cpuMs) * perMinute;
    }
}

// --- Allocations --------------------------------------------------------------------------------

// Those of one thread: by operator new, and all the others. Of the latter, FFmpeg's are the only
// ones on the worker, and PipeWire's on its data thread.
struct Allocations
{
    std::atomic<pid_t> thread{0};
    std::atomic<int64_t> byNew{0};
    std::atomic<int64_t> byOthers{0};

    void Restart(const std::string& id)
    {
        byNew = 0;
        byOthers = 0;
        thread = static_cast<pid_t>(std::stol(id));
    }
};

Allocations workerAllocations;
Allocations dataAllocations;

void CountAllocation(std::atomic<int64_t> Allocations::*kind)
{
    static thread_local const pid_t thread = gettid();
    for (Allocations* const allocations : {&workerAllocations, &dataAllocations})
    {
        if (allocations->thread.load(std::memory_order_relaxed) == thread)
            (allocations->*kind).fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

// The functions of a program take the place of the C library's also for the shared libraries that
// it uses. Those of the C library keep these names beside the usual ones.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

extern "C" void* malloc(size_t size)
{
    CountAllocation(&Allocations::byOthers);
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size)
{
    CountAllocation(&Allocations::byOthers);
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, size_t size)
{
    CountAllocation(&Allocations::byOthers);
    return __libc_realloc(memory, size);
}

extern "C" void* memalign(size_t alignment, size_t size)
{
    CountAllocation(&Allocations::byOthers);
    return __libc_memalign(alignment, size);
}

extern "C" void* aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

extern "C" int posix_memalign(void** memory, size_t alignment, size_t size)
{
    *memory = memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}

// The usual operator delete frees what it gives.
void* operator new(size_t size)
{
    CountAllocation(&Allocations::byNew);
    if (void* const memory = __libc_malloc(size))
        return memory;
    throw std::bad_alloc();
}

namespace
{

// Whether the player plays steadily, and its threads are those that are counted for.
bool CountFromNow(const TovrelAudioPlayer& player)
{
    const auto threads = PlayerThreads::Among(ThreadsOf(getpid()));
    if (!threads || player.HasFinished())
        return false;
    workerAllocations.Restart(threads->worker.id);
    dataAllocations.Restart(threads->data.id);
    return true;
}

// The blocks are counted in a window of their own: the tap is not there where nobody listens.
double BlocksPerSecond(TovrelAudioPlayer& player)
{
    std::atomic<int64_t> blocks{0};
    player.SetAudioPCMCallback([&blocks](const float*, int, int, int, long) { ++blocks; });
    const auto begin = Clock::now();
    std::this_thread::sleep_for(kWindow);
    const double perSecond = static_cast<double>(blocks) / SecondsSince(begin);
    player.SetAudioPCMCallback({});
    return perSecond;
}

void CountAllocations(benchmark::State& state,
                      const std::function<void(TovrelAudioPlayer&)>& startPlaying)
{
    for ([[maybe_unused]] auto _ : state)
    {
        TovrelAudioPlayer player;
        startPlaying(player);
        std::this_thread::sleep_for(kSettling);
        const double blocksPerSecond = BlocksPerSecond(player);
        if (blocksPerSecond == 0.0)
            return state.SkipWithError("it does not play; is there a PipeWire daemon?");
        if (!CountFromNow(player))
            return state.SkipWithError("the player's threads are not those that are known");
        const auto begin = Clock::now();
        std::this_thread::sleep_for(kWindow);
        const double seconds = SecondsSince(begin);
        const auto rate = [&](const std::atomic<int64_t>& count)
        {
            return static_cast<double>(count) / seconds;
        };
        const double byNew = rate(workerAllocations.byNew);
        const double byFfmpeg = rate(workerAllocations.byOthers);
        state.counters["data_per_s"] = rate(dataAllocations.byNew) + rate(dataAllocations.byOthers);
        state.SetIterationTime(seconds);
        state.counters["blocks_per_s"] = blocksPerSecond;
        state.counters["new_per_s"] = byNew;
        state.counters["new_per_block"] = byNew / blocksPerSecond;
        state.counters["ffmpeg_per_s"] = byFfmpeg;
        state.counters["ffmpeg_per_block"] = byFfmpeg / blocksPerSecond;
    }
}

std::vector<float> PcmNoise()
{
    constexpr size_t kSamples = size_t{60} * 48000 * 2; // a minute in stereo: longer than it plays
    std::vector<float> samples(kSamples);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i * 7919 % 65536) / 262144.0f - 0.125f;
    return samples;
}

// --- The cases ----------------------------------------------------------------------------------

void RegisterSteady(Music& music)
{
    const auto add = [&](const Format& format, const char* what, const Contender& contender)
    {
        RegisterCase("Steady/" + format.name + what + "/" + contender.name,
                     [&music, &format, contender](benchmark::State& state)
                     { Steady(state, music, format, contender); });
    };
    for (const Format& format : kFormats)
    {
        add(format, "", kTovrel);
        add(format, "-eq", kTovrelEqualizer);
        add(format, "", {"mpv", "mpv", {}});
        if (!format.name.starts_with("flac"))
            continue;
        for (const char* const peer : {"bare", "ffplay", "gstreamer", "pw-cat"})
            add(format, "", {peer, peer, {}});
    }
}

void RegisterAllocations(Music& music)
{
    for (const Format& format : kFormats)
    {
        if (!format.name.ends_with("-48kHz"))
            continue;
        RegisterCase("Allocations/" + format.name.substr(0, format.name.find('-')) + "/tovrel",
                     [&music, &format](benchmark::State& state)
                     {
                         CountAllocations(state,
                                          [path = music.File(format)](TovrelAudioPlayer& player)
                                          { player.PlayFile(path); });
                     });
    }
    RegisterCase("Allocations/pcm/tovrel",
                 [](benchmark::State& state)
                 {
                     CountAllocations(state, [](TovrelAudioPlayer& player)
                                      { player.PlayPcm(PcmNoise(), 48000, 2); });
                 });
}

} // namespace

int main(int argc, char** argv)
{
    setenv("SDL_AUDIODRIVER", "pipewire", 1); // or ffplay would look for another server
    Music music;
    RegisterSteady(music);
    RegisterAllocations(music);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
