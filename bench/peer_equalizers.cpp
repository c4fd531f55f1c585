// What the equalizers of others take for one stereo frame through ten peaking bands, to be seen
// beside this engine's. They run in programs of their own, so that each figure is a difference:
// what the program takes with the bands, less what it takes without them for the same noise. The
// one of PipeWire needs a daemon: scripts/with-null-sink brings one.
#include "process.h"

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

namespace
{

constexpr int kRate = 48000;
constexpr size_t kBands = 10;
constexpr std::array<int, kBands> kFrequenciesHz{31,   62,   125,  250,  500,
                                                 1000, 2000, 4000, 8000, 16000};
constexpr std::array<int, kBands> kGainsDb{3, -6, 9, -12, 6, -3, 1, -1, 6, -3};
constexpr const char* kQ = "1.15";

// --- Programs that go through their material as fast as they can --------------------------------

constexpr int64_t kBufferFrames = 1024;
constexpr int64_t kBuffers = 20000; // some seven minutes, on which the bands take about a second
constexpr int64_t kFrames = kBuffers * kBufferFrames;

// The processor time of a program from its start to its end, in seconds.
std::optional<double> WholeCpuSeconds(const Arguments& arguments)
{
    rusage usage{};
    if (!ChildProcess(arguments).Wait(&usage))
        return std::nullopt;
    const auto seconds = [](const timeval& time)
    {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void MeasureWhole(benchmark::State& state, const Arguments& with, const Arguments& without)
{
    if (!IsInstalled(with[0]))
        return state.SkipWithError((with[0] + " is not installed").c_str());
    for ([[maybe_unused]] auto _ : state)
    {
        const auto withSeconds = WholeCpuSeconds(with);
        const auto withoutSeconds = WholeCpuSeconds(without);
        if (!withSeconds || !withoutSeconds)
            return state.SkipWithError((with[0] + " has failed").c_str());
        state.SetIterationTime((*withSeconds - *withoutSeconds) / kFrames);
        state.counters["with_s"] = *withSeconds;
        state.counters["without_s"] = *withoutSeconds;
    }
}

// Its filters compute in the format of the material: in double precision here. With the threads
// that it uses for the channels unless told otherwise it takes more than three times as much.
Arguments Ffmpeg(const std::string& filters)
{
    const std::string source = "anoisesrc=a=0.25:seed=1:r=" + std::to_string(kRate) +
                               ":n=" + std::to_string(kBufferFrames) +
                               ":d=" + std::to_string(static_cast<double>(kFrames) / kRate);
    return {"ffmpeg",
            "-nostdin",
            "-loglevel",
            "error",
            "-filter_threads",
            "1",
            "-f",
            "lavfi",
            "-i",
            source,
            "-af",
            "aformat=sample_fmts=dblp:channel_layouts=stereo" + filters,
            "-f",
            "null",
            "-"};
}

void FfmpegEqualizer(benchmark::State& state)
{
    std::string filters;
    for (size_t band = 0; band < kBands; ++band)
        filters += ",equalizer=f=" + std::to_string(kFrequenciesHz[band]) +
                   ":width_type=q:w=" + kQ + ":g=" + std::to_string(kGainsDb[band]);
    MeasureWhole(state, Ffmpeg(filters), Ffmpeg(""));
}

// The element's own frequencies and widths, which are close to those of the others. It computes in
// the format of the material, and takes a third less in double precision than in single.
Arguments GStreamer(const Arguments& element)
{
    Arguments arguments{"gst-launch-1.0",
                        "-q",
                        "audiotestsrc",
                        "wave=white-noise",
                        "volume=0.25",
                        "num-buffers=" + std::to_string(kBuffers),
                        "samplesperbuffer=" + std::to_string(kBufferFrames),
                        "!",
                        "audio/x-raw,format=F64LE,channels=2,rate=" + std::to_string(kRate),
                        "!"};
    arguments.insert(arguments.end(), element.begin(), element.end());
    arguments.emplace_back("fakesink");
    return arguments;
}

void GStreamerEqualizer(benchmark::State& state)
{
    Arguments element{"equalizer-10bands"};
    for (size_t band = 0; band < kBands; ++band)
        element.push_back("band" + std::to_string(band) + "=" + std::to_string(kGainsDb[band]));
    element.emplace_back("!");
    MeasureWhole(state, GStreamer(element), GStreamer({}));
}

// --- PipeWire's filter-chain, which runs at the pace of the graph -------------------------------

constexpr size_t kLongChain = 11; // times ten bands, whose buffers still fit into caches
constexpr std::chrono::seconds kSettling{2};
constexpr std::chrono::seconds kWindow{10};
constexpr double kIdleSecondsPerFrame = 2e-9; // more than what a chain takes that is not run

// A sink that passes on to the default one what ten bands, so many times, make of it. Every other
// ten undo those before them, so that the noise stays as loud as it is however many there are.
void WriteChain(const std::string& path, size_t tens)
{
    std::ofstream file(path);
    file << R"(context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.* = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-rt flags = [ ifexists nofail ] }
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-filter-chain args = {
        audio.rate = )"
         << kRate << R"( audio.channels = 2 audio.position = [ FL FR ]
        capture.props = { node.name = "equalizer-in" media.class = Audio/Sink }
        playback.props = { node.name = "equalizer-out" node.passive = true }
        filter.graph = { nodes = [
)";
    for (size_t band = 0; band < tens * kBands; ++band)
    {
        const int gainDb = kGainsDb[band % kBands] * (band / kBands % 2 == 0 ? 1 : -1);
        file << "{ type = builtin label = bq_peaking name = b" << band
             << " control = { \"Freq\" = " << kFrequenciesHz[band % kBands] << " \"Q\" = " << kQ
             << " \"Gain\" = " << gainDb << " } }\n";
    }
    file << "] links = [\n";
    for (size_t band = 1; band < tens * kBands; ++band)
        file << "{ output = \"b" << band - 1 << ":Out\" input = \"b" << band << ":In\" }\n";
    file << "] } } }\n]\n";
}

// It is passive: only while noise is played into it does it run at all.
double ChainSecondsPerFrame(const TemporaryDirectory& directory, size_t tens)
{
    const std::string chainPath = directory.File("chain.conf");
    WriteChain(chainPath, tens);
    const ChildProcess chain({"pipewire", "-c", chainPath});
    std::this_thread::sleep_for(kSettling);
    const ChildProcess noise(
        {"pw-cat", "-p", "--target", "equalizer-in", directory.File("noise.wav")});
    std::this_thread::sleep_for(kSettling);

    const double before = chain.CpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kWindow);
    const double cpuSeconds = chain.CpuSeconds() - before;
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    return cpuSeconds / (seconds.count() * kRate);
}

// The chains compute in single precision.
void PipeWireEqualizer(benchmark::State& state)
{
    for (const char* program : {"pipewire", "pw-cat", "ffmpeg"})
    {
        if (!IsInstalled(program))
            return state.SkipWithError((std::string(program) + " is not installed").c_str());
    }
    const TemporaryDirectory directory;
    RunFfmpeg({"-f", "lavfi", "-i", "anoisesrc=a=0.25:seed=1:d=60:r=" + std::to_string(kRate),
               "-ac", "2", "-c:a", "pcm_f32le", directory.File("noise.wav")});
    for ([[maybe_unused]] auto _ : state)
    {
        const double shortChain = ChainSecondsPerFrame(directory, 1);
        const double longChain = ChainSecondsPerFrame(directory, kLongChain);
        if (shortChain < kIdleSecondsPerFrame || longChain < kIdleSecondsPerFrame)
            return state.SkipWithError("the chain does not run; is there a PipeWire daemon?");
        const double tenBands = (longChain - shortChain) / (kLongChain - 1);
        state.SetIterationTime(tenBands);
        state.counters["process_ns"] = (shortChain - tenBands) * 1e9; // of what surrounds the bands
    }
}

void RunOnce(benchmark::internal::Benchmark* bench)
{
    bench->UseManualTime()->Iterations(1)->Unit(benchmark::kNanosecond);
}

BENCHMARK(FfmpegEqualizer)->Name("PeerEqualizer/ffmpeg")->Apply(RunOnce);
BENCHMARK(GStreamerEqualizer)->Name("PeerEqualizer/gstreamer")->Apply(RunOnce);
BENCHMARK(PipeWireEqualizer)->Name("PeerEqualizer/pipewire")->Apply(RunOnce);

} // namespace
