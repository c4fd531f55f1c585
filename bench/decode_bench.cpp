// What a file costs from its bytes to the sink, with a sink that has played everything at once: how
// soon the first block is there, and how long a second of sound takes at full speed. Each figure
// stands beside what the libraries alone take for the same file.
#include "internals.h"
#include "pipewire_player.h"
#include "process.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

constexpr int kTrackSeconds = 240;
constexpr int kDecodedSeconds = 60;
constexpr std::array<double, 10> kGainsDb = {3, -6, 9, -12, 6, -3, 1, -1, 6, -3};

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double Seconds(int64_t ns)
{
    return static_cast<double>(ns) / 1e9;
}

// --- The sink -----------------------------------------------------------------------------------

// Moments of the playback, 0 until they have come.
std::atomic<int64_t> firstPushNs{0};
std::atomic<int64_t> endNs{0};

void Note(std::atomic<int64_t>& moment)
{
    int64_t none = 0;
    if (moment.compare_exchange_strong(none, NowNs()))
        moment.notify_one();
}

} // namespace

PipeWirePlayer::PipeWirePlayer() = default;
PipeWirePlayer::~PipeWirePlayer() = default;
void PipeWirePlayer::Destroy()
{
}
void PipeWirePlayer::Clear()
{
}

bool PipeWirePlayer::Init(int, int)
{
    return true;
}

void PipeWirePlayer::SetActive(bool active)
{
    if (!active)
        Note(endNs);
}

void PipeWirePlayer::PushBytes(const uint8_t* data, size_t)
{
    benchmark::DoNotOptimize(data);
    Note(firstPushNs);
}

double PipeWirePlayer::QueuedSeconds() const
{
    return 0.0;
}

bool PipeWirePlayer::GetStreamTime(double*, double*) const
{
    return false;
}

namespace
{

// --- The files ----------------------------------------------------------------------------------

// Sines, a slow sweep and noise: a decoder has as much to do as with music.
constexpr const char* kMusic =
    "aevalsrc=0.2*sin(2*PI*220*t)+0.1*sin(2*PI*(1000+30*t)*t)+0.05*(random(0)-0.5)|"
    "0.2*sin(2*PI*277*t)+0.1*sin(2*PI*(3000-20*t)*t)+0.05*(random(1)-0.5)";

class Files
{
public:
    std::string Music(const std::string& extension, int rate, int seconds)
    {
        const std::string path = m_directory.File(std::to_string(rate) + "-" +
                                                  std::to_string(seconds) + "." + extension);
        if (std::filesystem::exists(path))
            return path;
        const std::string rateText = std::to_string(rate);
        const std::string minute = m_directory.File("minute.wav");
        if (!std::filesystem::exists(minute))
            RunFfmpeg({"-f", "lavfi", "-i", std::string(kMusic) + ":s=48000:d=60", minute});
        RunFfmpeg({"-stream_loop", "-1", "-i", minute, "-t", std::to_string(seconds), "-ar",
                   rateText, path});
        return path;
    }

    std::string OfSize(size_t bytes)
    {
        const std::string path = m_directory.File(std::to_string(bytes));
        if (!std::filesystem::exists(path))
            std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
        return path;
    }

private:
    TemporaryDirectory m_directory;
};

// --- The floors ---------------------------------------------------------------------------------

// From the page cache into memory that is there already: no preload can be quicker.
double ReadSeconds(const std::string& path)
{
    static std::vector<char> memory;
    memory.resize(std::max<size_t>(memory.size(), std::filesystem::file_size(path)));
    const int64_t beginNs = NowNs();
    std::ifstream(path, std::ios::binary)
        .read(memory.data(), static_cast<std::streamsize>(std::filesystem::file_size(path)));
    benchmark::DoNotOptimize(memory.data());
    return Seconds(NowNs() - beginNs);
}

// What FFmpeg alone takes to decode a file, and where asked to convert it as the engine does.
double DecodeSeconds(const TovrelAudioPlayerTestAccess& access, const std::string& path,
                     bool bConvert)
{
    const int64_t beginNs = NowNs();
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* swr = nullptr;
    int stream = -1;
    if (!access.OpenDecoder(path, nullptr, &format, &codec, &stream, nullptr) ||
        !access.ConfigureResampler(codec, &swr, nullptr, nullptr, nullptr))
        throw std::runtime_error("cannot decode " + path);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    std::vector<float> converted;
    while (av_read_frame(format, packet) >= 0)
    {
        if (packet->stream_index == stream && avcodec_send_packet(codec, packet) == 0)
        {
            while (avcodec_receive_frame(codec, frame) == 0)
            {
                if (bConvert)
                    Internals::ConvertFrame(*frame, swr, converted);
                benchmark::DoNotOptimize(frame->extended_data);
            }
        }
        av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    swr_free(&swr);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
    return Seconds(NowNs() - beginNs);
}

// --- The engine ---------------------------------------------------------------------------------

struct Moments
{
    double firstPushSeconds;
    double endSeconds;
};

Moments Play(TovrelAudioPlayer& player, const std::string& path)
{
    firstPushNs = 0;
    endNs = 0;
    const int64_t beginNs = NowNs();
    player.PlayFile(path);
    endNs.wait(0);
    const Moments moments{Seconds(firstPushNs - beginNs), Seconds(endNs - beginNs)};
    player.Stop();
    return moments;
}

double FirstPushSeconds(TovrelAudioPlayer& player, const std::string& path)
{
    firstPushNs = 0;
    const int64_t beginNs = NowNs();
    player.PlayFile(path);
    firstPushNs.wait(0);
    const int64_t pushNs = firstPushNs;
    player.Stop();
    return Seconds(pushNs - beginNs);
}

// --- The cases ----------------------------------------------------------------------------------

void Register(const std::string& name, benchmark::TimeUnit unit,
              const std::function<double()>& measure)
{
    const auto run = [measure](benchmark::State& state)
    {
        for ([[maybe_unused]] auto _ : state)
            state.SetIterationTime(measure());
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime()->Unit(unit);
}

// Time for a second of sound.
void RegisterDecode(Files& files, TovrelAudioPlayer& player)
{
    for (const char* const extension : {"wav", "flac", "mp3", "opus", "ogg", "m4a"})
    {
        for (const int rate : {44100, 48000})
        {
            if (rate == 44100 && std::string(extension) == "opus")
                continue; // there is no such Opus
            const std::string name =
                "Decode/" + std::string(extension) + (rate == 44100 ? "-44.1kHz/" : "-48kHz/");
            const auto add = [&](const std::string& who, const std::function<double()>& measure)
            {
                Register(name + who, benchmark::kMicrosecond,
                         [measure] { return measure() / kDecodedSeconds; });
            };
            const auto path = [&files, extension, rate]
            {
                return files.Music(extension, rate, kDecodedSeconds);
            };
            const TovrelAudioPlayerTestAccess access{player};
            add("decoder", [=] { return DecodeSeconds(access, path(), false); });
            add("decoder+resampler", [=] { return DecodeSeconds(access, path(), true); });
            for (const bool bEqualizer : {false, true})
            {
                add(bEqualizer ? "tovrel-eq" : "tovrel",
                    [=, &player]
                    {
                        player.SetEqualizerBands(bEqualizer, kGainsDb);
                        return Play(player, path()).endSeconds;
                    });
            }
        }
    }
}

void RegisterStarts(Files& files, TovrelAudioPlayer& player)
{
    constexpr int longestSeconds =
        2796; // a WAV file of almost 512 MiB, the longest to be preloaded
    const auto add = [&](const std::string& name, const char* extension, int seconds)
    {
        const auto path = [&files, extension, seconds]
        {
            return files.Music(extension, 48000, seconds);
        };
        Register("FirstPush/" + name + "/read", benchmark::kMillisecond,
                 [path] { return ReadSeconds(path()); });
        Register("FirstPush/" + name + "/tovrel", benchmark::kMillisecond,
                 [path, &player] { return FirstPushSeconds(player, path()); });
    };
    for (const char* const extension : {"wav", "flac", "mp3", "opus"})
        add(extension, extension, kTrackSeconds);
    add("wav-512MiB", "wav", longestSeconds);
}

void RegisterPreloads(Files& files, TovrelAudioPlayer& player)
{
    for (const size_t mebibytes : {1, 256})
    {
        const std::string name = "Preload/" + std::to_string(mebibytes) + "MiB/";
        const auto path = [&files, mebibytes]
        {
            return files.OfSize(mebibytes << 20);
        };
        Register(name + "read", benchmark::kMillisecond, [path] { return ReadSeconds(path()); });
        Register(name + "tovrel", benchmark::kMillisecond,
                 [path, &player]
                 {
                     const std::string file = path();
                     const int64_t beginNs = NowNs();
                     TovrelAudioCachedFileInput cache;
                     TovrelAudioPlayerTestAccess{player}.LoadFileIntoCache(file, cache, nullptr);
                     return Seconds(NowNs() - beginNs);
                 });
    }
}

} // namespace

int main(int argc, char** argv)
{
    Files files;
    TovrelAudioPlayer player;
    RegisterDecode(files, player);
    RegisterStarts(files, player);
    RegisterPreloads(files, player);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
