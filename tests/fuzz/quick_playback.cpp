#include "quick_playback.h"

#include "check.h"
#include "pipewire_player.h"
#include "virtual_time.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sanitizer/asan_interface.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

extern "C"
{
#include <libavutil/log.h>
}

namespace
{

constexpr int kRate = 48000; // of what files and streams become
constexpr int kChannels = 2;
constexpr double kSoundLimit = 10.0;                // seconds, after which a run has shown enough
constexpr size_t kMemoryLimit = size_t{64} << 20;   // bytes that one allocation may have
constexpr std::chrono::milliseconds kPatience{500}; // real time, then the host stops
constexpr std::chrono::microseconds kEndPoll{100};  // real time

struct Sink
{
    std::mutex mutex;
    int alive = 0;
    bool bOpen = false;
    bool bActive = false;
    double queuedSeconds = 0.0;
    double queueLimit = 0.0;
    double heardSeconds = 0.0;
};

Sink g_sink;

void Consume(int64_t ns)
{
    const std::lock_guard lock(g_sink.mutex);
    if (!g_sink.bOpen || !g_sink.bActive)
        return;
    const double heard = std::min(g_sink.queuedSeconds, static_cast<double>(ns) * 1e-9);
    g_sink.queuedSeconds -= heard;
    g_sink.heardSeconds += heard;
}

std::mutex g_networkMutex; // guards the next two
QuickPlayback::Network g_network;
std::vector<int> g_servers; // the other ends of what was connected

int LowestFreeDescriptor()
{
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    return lowest;
}

// The same in every process, and before the first playback.
[[maybe_unused]] const bool kPrepared = []
{
    av_log_set_level(AV_LOG_QUIET);
    VirtualTime::SetFreeRunning(true);
    VirtualTime::SetOnAdvance(Consume);
    return true;
}();

} // namespace

QuickPlayback::QuickPlayback(FuzzedDataProvider& input, double queueLimit, Network network) :
    lowestDescriptor(LowestFreeDescriptor())
{
    for (Deed& deed : deeds)
    {
        deed.block = input.ConsumeIntegral<uint8_t>();
        deed.what = input.ConsumeIntegral<uint8_t>();
        deed.value = input.ConsumeIntegral<uint8_t>() / 255.0;
    }
    g_sink.queueLimit = queueLimit;
    {
        const std::lock_guard lock(g_networkMutex);
        g_network = std::move(network);
    }
    player.SetAudioPCMCallback(
        [this](const float* samples, int frames, int rate, int channels, long microseconds)
        { OnBlock(samples, frames, rate, channels, microseconds); });
}

QuickPlayback::~QuickPlayback()
{
    player.Stop();
    Check(!player.IsPlaying() && player.CurrentSeconds() >= 0.0 &&
              std::isfinite(player.CurrentSeconds()),
          "a stopped player has a position");
    Check(g_sink.alive == 0, "no sink outlives its playback");
    for (const int server : std::exchange(g_servers, {}))
        close(server);
    Check(LowestFreeDescriptor() == lowestDescriptor, "no descriptor stays open");
}

void QuickPlayback::RunToEnd()
{
    const auto late = std::chrono::system_clock::now() + kPatience;
    while (!player.HasFinished())
    {
        if (player.IsPaused())
            player.SetPaused(false);
        if (std::chrono::system_clock::now() > late)
            player.RequestStop();
        std::this_thread::sleep_for(kEndPoll);
    }
}

void QuickPlayback::OnBlock(const float* samples, int frames, int rate, int channels,
                            long microseconds)
{
    // The first block may come before the Play that brings it has returned.
    while (!player.IsPlaying())
        std::this_thread::yield();
    Check(rate == kRate && channels == kChannels && frames > 0, "a block is 48000 Hz stereo");
    const size_t bytes = static_cast<size_t>(frames) * kChannels * sizeof(float);
    Check(!__asan_region_is_poisoned(const_cast<float*>(samples), bytes), "a block is all there");
    Check(microseconds >= 0, "a block's time is not negative");
    const double duration = player.DurationSeconds();
    Check(duration >= 0.0 && std::isfinite(duration), "a duration is a number");
    const double position = player.CurrentSeconds();
    Check(position >= 0.0 && position <= duration, "the position lies within the duration");

    for (const Deed& deed : deeds)
    {
        if (deed.block == blocks)
            Do(deed);
    }
    ++blocks;
    seconds += static_cast<double>(frames) / kRate;
    if (seconds > kSoundLimit)
        player.RequestStop();
}

void QuickPlayback::Do(const Deed& deed)
{
    switch (deed.what % 8)
    {
    case 0:
        return player.SeekToFraction(deed.value);
    case 1:
        return player.SetPaused(true); // until RunToEnd sees it
    case 2:
        return player.SetEqualizerBandGain(blocks % 10, deed.value * 36.0 - 18.0);
    case 3:
        return player.SetVolume(deed.value * 2.0);
    case 4:
        return player.SetPan(deed.value * 2.0 - 1.0);
    case 5:
        return player.RequestStop();
    default:
        return;
    }
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> known)
{
    return std::any_of(known.begin(), known.end(),
                       [=](std::string_view one) {
                           return one.ends_with(": ")
                                      ? text.starts_with(one) && text.size() > one.size()
                                      : text == one;
                       });
}

namespace
{

__attribute__((section("__libfuzzer_extra_counters"))) uint8_t g_outcomes[4096];

} // namespace

void NoteOutcome(std::string_view outcome)
{
    g_outcomes[std::hash<std::string_view>()(outcome) % std::size(g_outcomes)] = 1;
}

// The sink

PipeWirePlayer::PipeWirePlayer()
{
    const std::lock_guard lock(g_sink.mutex);
    Check(++g_sink.alive == 1, "there is one sink at a time");
    g_sink.bOpen = g_sink.bActive = false;
    g_sink.queuedSeconds = g_sink.heardSeconds = 0.0;
}

PipeWirePlayer::~PipeWirePlayer()
{
    const std::lock_guard lock(g_sink.mutex);
    --g_sink.alive;
}

bool PipeWirePlayer::Init(int sampleRate, int channels)
{
    const std::lock_guard lock(g_sink.mutex);
    Check(sampleRate == kRate && channels == kChannels, "the output is 48000 Hz stereo");
    g_sink.bOpen = true;
    return true;
}

void PipeWirePlayer::Destroy()
{
    const std::lock_guard lock(g_sink.mutex);
    g_sink.bOpen = false;
}

void PipeWirePlayer::SetActive(bool active)
{
    const std::lock_guard lock(g_sink.mutex);
    g_sink.bActive = active;
}

void PipeWirePlayer::Clear()
{
    const std::lock_guard lock(g_sink.mutex);
    g_sink.queuedSeconds = 0.0;
}

void PipeWirePlayer::PushBytes(const uint8_t* data, size_t size)
{
    constexpr size_t kFrame = kChannels * sizeof(float);
    const std::lock_guard lock(g_sink.mutex);
    Check(g_sink.bOpen, "only an open sink is given sound");
    Check(size > 0 && size % kFrame == 0, "a push is of whole frames");
    Check(!__asan_region_is_poisoned(const_cast<uint8_t*>(data), size), "a push is all there");
    Check(g_sink.queuedSeconds <= g_sink.queueLimit, "a push waits for the queue");
    g_sink.queuedSeconds += static_cast<double>(size / kFrame) / kRate;
}

double PipeWirePlayer::QueuedSeconds() const
{
    const std::lock_guard lock(g_sink.mutex);
    return g_sink.queuedSeconds;
}

bool PipeWirePlayer::GetStreamTime(double* presentedSec, double*) const
{
    const std::lock_guard lock(g_sink.mutex);
    if (presentedSec)
        *presentedSec = g_sink.heardSeconds;
    return true;
}

// What stands between this process and the rest: calls of the engine (--wrap) and of FFmpeg, whose
// libraries find these functions before the real ones.
extern "C"
{

    // A file of a few bytes may ask for gigabytes, which takes long to fill. FFmpeg's own requests
    // are refused by AddressSanitizer.
    const char* __asan_default_options();
    const char* __asan_default_options()
    {
        return "allocator_may_return_null=1:max_allocation_size_mb=64";
    }

    void* __real__Znwm(size_t size);
    void* __wrap__Znwm(size_t size);
    void* __wrap__Znwm(size_t size)
    {
        if (size > kMemoryLimit)
            throw std::bad_alloc();
        return __real__Znwm(size);
    }

    // FFmpeg's clock and its sleeps between two connections.
    int64_t av_gettime_relative();
    int64_t av_gettime_relative()
    {
        return VirtualTime::NowNs() / 1000;
    }

    int av_usleep(unsigned microseconds);
    int av_usleep(unsigned microseconds)
    {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        return 0;
    }

    // No name is looked up, and streams are all there is.
    int getaddrinfo(const char*, const char* service, const addrinfo* hints, addrinfo** result)
    {
        using GetAddrInfo = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
        static const auto real = reinterpret_cast<GetAddrInfo>(dlsym(RTLD_NEXT, "getaddrinfo"));
        if (!hints || hints->ai_socktype != SOCK_STREAM)
            return EAI_NONAME;
        return real("127.0.0.1", service, hints, result);
    }

    // The socket becomes one end of a pair that never leaves this process.
    int connect(int socket, const sockaddr*, socklen_t)
    {
        const std::lock_guard lock(g_networkMutex);
        const std::optional<std::string> answer = g_network();
        int pair[2] = {-1, -1};
        if (!answer ||
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
        {
            errno = ECONNREFUSED;
            return -1;
        }
        g_servers.push_back(pair[1]);
        const ssize_t sent = send(pair[1], answer->data(), answer->size(), MSG_NOSIGNAL);
        Check(sent == static_cast<ssize_t>(answer->size()), "a socket has room for an answer");
        shutdown(pair[1], SHUT_WR);
        dup3(pair[0], socket, O_CLOEXEC);
        close(pair[0]);
        return 0;
    }
}
