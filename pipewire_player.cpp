#include "pipewire_player.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <new>
#include <pthread.h>
#include <semaphore>

namespace
{

constexpr int kMaxSampleRate = 768000; // the highest that devices play
constexpr int kMaxChannels = 64;       // as many as PipeWire's formats name

// Both at once make PipeWire's converter run past its buffers (seen with 0.3.65); half of it, four
// times what any device plays, is well clear of that.
constexpr int64_t kMaxSamplesPerSecond = int64_t{kMaxSampleRate} * kMaxChannels / 2;

constexpr int64_t kConnectTimeoutNs = 2000000000; // of Init, whose caller waits
constexpr int kFirstRetryMs = 100; // after a connection broke; each failure doubles it
constexpr int kLongestRetryMs = 2000;

// A stream whose callback has not been called for so long, and so many cycles, does not run: a busy
// machine keeps it waiting for less. It is looked at twice, as all threads of a process that was
// stopped are late.
constexpr int64_t kStallNs = 1000000000;
constexpr int64_t kStallCycles = 4;
constexpr int kStalledLooks = 2;
constexpr int64_t kStalledLookNs = 100000000;

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;

// The session managers that need PipeWire 1 link the channels of a stream one by one. A stream that
// played at once would play its first cycle to some of them only, so it waits from there on: for
// more than the few cycles in which the others follow even where cycles are shortest.
constexpr int64_t kLinkingNs = 5000000;
constexpr int64_t kNotLinked = INT64_MAX;

// What desktops show of the stream and tell it by.
constexpr const char* kApplicationName = "Tovrel";
constexpr const char* kApplicationId = "tovrel";
constexpr const char* kIconName = "audio-x-generic";

// The room that the queue starts with: enough for files and PCM buffers but for blocks of unusual
// length, which make the ring grow.
constexpr double kReservedSeconds = 0.75;

// What callers treat as played out (0.02 s), and the least that is reported before it is true.
constexpr double kUnpresentedFloorSeconds = 0.0201;

// Callers stop pushing at 0.35 s or more: a device with that much latency must not keep the queue
// empty. What is in flight counts in full up to that sum, and in any case as much as most devices
// have of it, which leaves a queue of 0.25 s: longer than the longest usual cycle (8192 frames).
constexpr double kLeastQueueLimitSeconds = 0.35;
constexpr double kAlwaysCountedSeconds = 0.1;

int64_t MonotonicNs() noexcept
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double Seconds(int64_t ns) noexcept
{
    return static_cast<double>(ns) / static_cast<double>(kNsPerSecond);
}

// The speaker positions of one to eight channels, in the order in which WAV and the common codecs
// interleave them; beyond that the channels have numbers instead of places.
void SetChannelPositions(uint32_t* position, uint32_t channels)
{
    static constexpr std::array<std::array<uint32_t, 8>, 8> kPositions = {{
        {SPA_AUDIO_CHANNEL_MONO},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC, SPA_AUDIO_CHANNEL_RL,
         SPA_AUDIO_CHANNEL_RR},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC, SPA_AUDIO_CHANNEL_LFE,
         SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC, SPA_AUDIO_CHANNEL_LFE,
         SPA_AUDIO_CHANNEL_RC, SPA_AUDIO_CHANNEL_SL, SPA_AUDIO_CHANNEL_SR},
        {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC, SPA_AUDIO_CHANNEL_LFE,
         SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR, SPA_AUDIO_CHANNEL_SL, SPA_AUDIO_CHANNEL_SR},
    }};
    if (channels <= kPositions.size())
    {
        std::copy_n(kPositions[channels - 1].begin(), channels, position);
        return;
    }
    for (uint32_t channel = 0; channel < channels; ++channel)
        position[channel] = SPA_AUDIO_CHANNEL_AUX0 + channel;
}

// Holds PipeWire's thread loop, under whose lock everything but the real-time calls stands.
class LoopLock
{
public:
    explicit LoopLock(pw_thread_loop* loop) : m_loop(loop) { pw_thread_loop_lock(m_loop); }
    ~LoopLock() { pw_thread_loop_unlock(m_loop); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pw_thread_loop* m_loop;
};

// Whether the library that was loaded, not the one that was compiled with, is at least this new.
bool HasLibrary(int major, int minor)
{
    int loadedMajor = 0;
    int loadedMinor = 0;
    return std::sscanf(pw_get_library_version(), "%d.%d", &loadedMajor, &loadedMinor) == 2 &&
           (loadedMajor > major || (loadedMajor == major && loadedMinor >= minor));
}

pw_properties* ApplicationProperties(const char* configuration)
{
    return pw_properties_new(PW_KEY_CONFIG_NAME, configuration, PW_KEY_APP_NAME, kApplicationName,
                             PW_KEY_APP_ID, kApplicationId, PW_KEY_APP_ICON_NAME, kIconName,
                             nullptr);
}

// The context carries what the connection says of the application. Before 1.4 a client's data
// thread gets real-time priority only from a configuration that later versions no longer have;
// without it ordinary priority does.
pw_context* NewContext(pw_loop* loop)
{
    pw_context* context = nullptr;
    if (!HasLibrary(1, 4))
        context = pw_context_new(loop, ApplicationProperties("client-rt.conf"), 0);
    if (!context)
        context = pw_context_new(loop, ApplicationProperties("client.conf"), 0);
    // Real-time priority may have to be asked for over D-Bus, whose library is unloaded with the
    // context and forgets what it has allocated: some kilobytes each time, unless it stays.
    (void)dlopen("libdbus-1.so.3", RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    return context;
}

// No media.role: with one, a change of this application's volume would be a change of everybody's
// who has the same. The node's rate lets the graph follow the stream where its devices can. Null
// where there is no memory.
pw_properties* StreamProperties(int sampleRate)
{
    pw_properties* properties =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                          PW_KEY_MEDIA_NAME, "Tovrel playback", PW_KEY_NODE_NAME, "tovrel",
                          PW_KEY_NODE_DESCRIPTION, "Tovrel", PW_KEY_APP_NAME, kApplicationName,
                          PW_KEY_APP_ID, kApplicationId, PW_KEY_APP_ICON_NAME, kIconName, nullptr);
    if (properties)
        pw_properties_setf(properties, PW_KEY_NODE_RATE, "1/%d", sampleRate);
    return properties;
}

} // namespace

// A worker that loses its processor while it holds the mutex would keep PipeWire's thread waiting
// for whole cycles. With priority inheritance it is run at once instead.
PipeWirePlayer::PipeWirePlayer()
{
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0)
        return;
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutex_destroy(m_audioMutex.native_handle());
    if (pthread_mutex_init(m_audioMutex.native_handle(), &attributes) != 0)
        pthread_mutex_init(m_audioMutex.native_handle(), nullptr);
    pthread_mutexattr_destroy(&attributes);
}

PipeWirePlayer::~PipeWirePlayer()
{
    Destroy();
}

bool PipeWirePlayer::Init(int sampleRate, int channels)
{
    Destroy();
    if (sampleRate < 1 || sampleRate > kMaxSampleRate || channels < 1 || channels > kMaxChannels ||
        int64_t{sampleRate} * channels > kMaxSamplesPerSecond)
        return false;
    m_sampleRate = sampleRate;
    m_channels = channels;
    m_bytesPerFrame = static_cast<size_t>(channels) * sizeof(float);
    bool bOpened = false;
    try
    {
        ReserveRoom((static_cast<size_t>(sampleRate * kReservedSeconds) + 1) * m_bytesPerFrame);
        m_streamListener = new spa_hook{};
        m_coreListener = new spa_hook{};
        bOpened = Open();
    }
    catch (const std::bad_alloc&)
    {
        // As with any other failure, nothing is left behind.
    }
    if (!bOpened)
        Destroy();
    return bOpened;
}

// The connection

// Starts the loop and waits until the daemon has taken the stream in: it is paused then, as it is
// connected inactive, and stays so where there is no device to play to yet. What was made before
// something failed is left to Destroy.
bool PipeWirePlayer::Open()
{
    static std::once_flag started; // for the life of the process: other users may share it
    std::call_once(started, [] { pw_init(nullptr, nullptr); });

    m_loop = pw_thread_loop_new("tovrel-audio", nullptr);
    if (!m_loop)
        return false;
    m_context = NewContext(pw_thread_loop_get_loop(m_loop));
    m_timer = pw_loop_add_timer(
        pw_thread_loop_get_loop(m_loop),
        [](void* userdata, uint64_t) { static_cast<PipeWirePlayer*>(userdata)->OnTimer(); }, this);
    if (!m_context || !m_timer || pw_thread_loop_start(m_loop) < 0)
        return false;

    const LoopLock lock(m_loop);
    timespec deadline{};
    pw_thread_loop_get_time(m_loop, &deadline, kConnectTimeoutNs);
    if (!Connect())
        return false;
    while (pw_stream_get_state(m_stream, nullptr) == PW_STREAM_STATE_CONNECTING && !m_broken)
    {
        if (pw_thread_loop_timed_wait_full(m_loop, &deadline) < 0)
            return false;
    }
    m_initialized = !m_broken;
    return m_initialized;
}

// From a context to a stream that is on its way to the daemon, with the loop's lock held.
bool PipeWirePlayer::Connect() noexcept
{
    m_broken = true; // until it is whole
    m_connectedNs = MonotonicNs();
    const bool bLinksOneByOne = HasLibrary(1, 0);
    {
        const std::lock_guard lock(m_audioMutex);
        m_linkedByNs = bLinksOneByOne ? kNotLinked : 0;
    }
    m_core = pw_context_connect(m_context, nullptr, 0);
    if (!m_core)
        return false;
    static const pw_core_events kCoreEvents = []
    {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.error = [](void* userdata, uint32_t id, int, int, const char*)
        {
            if (id == PW_ID_CORE) // the connection itself
                static_cast<PipeWirePlayer*>(userdata)->OnBroken();
        };
        return events;
    }();
    *m_coreListener = {};
    pw_core_add_listener(m_core, m_coreListener, &kCoreEvents, this);

    pw_properties* properties = StreamProperties(m_sampleRate);
    m_stream = properties ? pw_stream_new(m_core, "Tovrel playback", properties) : nullptr;
    if (!m_stream)
        return false;
    static const pw_stream_events kStreamEvents = []
    {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = [](void* userdata, pw_stream_state, pw_stream_state, const char*)
        {
            static_cast<PipeWirePlayer*>(userdata)->OnStateChanged();
        };
        events.process = OnProcess;
        return events;
    }();
    *m_streamListener = {};
    pw_stream_add_listener(m_stream, m_streamListener, &kStreamEvents, this);

    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = static_cast<uint32_t>(m_sampleRate);
    info.channels = static_cast<uint32_t>(m_channels);
    SetChannelPositions(info.position, info.channels);
    std::array<uint8_t, 1024> podBuffer;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, podBuffer.data(), podBuffer.size());
    const spa_pod* params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS |
        (m_active ? 0 : PW_STREAM_FLAG_INACTIVE));
    m_broken = pw_stream_connect(m_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1) != 0;
    return !m_broken;
}

// Takes down what Connect made, with the loop's lock held or its thread stopped.
void PipeWirePlayer::Disconnect() noexcept
{
    m_broken = true; // what the stream tells of its own end is no news
    if (m_stream)
        pw_stream_destroy(m_stream); // lets go of its listener
    m_stream = nullptr;
    if (!m_core)
        return;
    spa_hook_remove(m_coreListener);
    pw_core_disconnect(m_core);
    m_core = nullptr;
}

void PipeWirePlayer::OnStateChanged() noexcept
{
    {
        const std::lock_guard lock(m_audioMutex);
        if (m_flushing)
            return; // on the data thread, and no more than what a flush tells of itself
    }
    const pw_stream_state state = pw_stream_get_state(m_stream, nullptr);
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED)
        OnBroken();
    else if (state == PW_STREAM_STATE_STREAMING)
        m_retryWaitMs = kFirstRetryMs;
    WakeInit();
}

// The daemon is gone, or has thrown the stream out. Nothing may be destroyed here, within an event
// of its own.
void PipeWirePlayer::OnBroken() noexcept
{
    if (m_broken)
        return;
    m_broken = true;
    if (m_initialized)
    {
        if (MonotonicNs() - m_connectedNs > kLongestRetryMs * kNsPerMs)
            m_retryWaitMs = kFirstRetryMs; // it was a connection, not a failed attempt
        CountTakenAsHeard();
        ReconnectLater();
    }
    WakeInit();
}

void PipeWirePlayer::WakeInit() noexcept
{
    if (!m_initialized)
        pw_thread_loop_signal(m_loop, false);
}

void PipeWirePlayer::ReconnectLater() noexcept
{
    SetTimer(m_retryWaitMs * kNsPerMs);
    m_retryWaitMs = std::min(m_retryWaitMs * 2, kLongestRetryMs);
}

void PipeWirePlayer::SetTimer(int64_t waitNs) noexcept
{
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(waitNs / kNsPerSecond);
    wait.tv_nsec = static_cast<long>(waitNs % kNsPerSecond);
    pw_loop_update_timer(pw_thread_loop_get_loop(m_loop), m_timer, &wait, nullptr, false);
}

// The timer's callback, on the loop's thread: time for another attempt to connect, or to see
// whether an active stream still runs.
void PipeWirePlayer::OnTimer() noexcept
{
    if (!m_broken)
    {
        if (!m_active)
            return;
        const int64_t leftNs = StallsInNs();
        m_stalledLooks = leftNs > 0 ? 0 : m_stalledLooks + 1;
        if (m_stalledLooks != kStalledLooks)
        {
            const bool bSecondLook = m_stalledLooks > 0 && m_stalledLooks < kStalledLooks;
            SetTimer(leftNs > 0 ? leftNs : bSecondLook ? kStalledLookNs : kStallNs);
            return;
        }
        // No device to play to, perhaps, and one may come at any time. Or a session manager that
        // was restarted: WirePlumber 0.4 leaves the streams alone that its predecessor has linked,
        // and only takes new ones in hand. So this one is replaced, once: the new one may wait for
        // a device as long as it takes.
    }
    Disconnect();
    CountTakenAsHeard(); // what an unbroken stream took until now goes with it
    if (!Connect())
        ReconnectLater();
    else if (m_active)
        SetTimer(kStallNs);
}

// For how much longer a stream whose process callback is not called passes for a running one.
int64_t PipeWirePlayer::StallsInNs() const noexcept
{
    const std::lock_guard lock(m_audioMutex);
    return m_cycle.calledNs + std::max(kStallNs, kStallCycles * m_cycle.lengthNs) - MonotonicNs();
}

void PipeWirePlayer::Destroy()
{
    if (m_loop)
        pw_thread_loop_stop(m_loop); // never under its own lock
    m_initialized = false;
    Disconnect();
    if (m_timer)
        pw_loop_destroy_source(pw_thread_loop_get_loop(m_loop), m_timer);
    if (m_context)
        pw_context_destroy(m_context);
    if (m_loop)
        pw_thread_loop_destroy(m_loop);
    delete m_streamListener;
    delete m_coreListener;
    m_streamListener = nullptr;
    m_coreListener = nullptr;
    m_timer = nullptr;
    m_context = nullptr;
    m_loop = nullptr;
    m_retryWaitMs = kFirstRetryMs;

    std::vector<unsigned char>().swap(m_audio); // an assignment would keep its memory
    m_readPos = 0;
    m_queuedBytes = 0;
    m_flushing = false;
    m_takenFrames = 0;
    m_runs = {};
    m_lastRun = 0;
    m_toldFrames = 0;
    m_playedOutNs = 0;
    m_cycle = {};
    m_linkedByNs = 0;
    m_active = false;
    m_heldSinceNs = 0;
}

void PipeWirePlayer::SetActive(bool active)
{
    if (!m_initialized)
        return;
    const LoopLock lock(m_loop); // throughout, so that the stream and m_active never differ
    {
        const std::lock_guard audioLock(m_audioMutex);
        if (active == m_active)
            return;
        const int64_t now = MonotonicNs();
        // What the stream's resampler holds back waits with the stream: it has not played out.
        if (active)
            m_playedOutNs += now - m_heldSinceNs;
        else
            m_heldSinceNs = now;
        m_active = active;
    }
    if (!m_stream)
        return;
    pw_stream_set_active(m_stream, active);
    m_stalledLooks = 0;
    if (active && !m_broken)
        SetTimer(kStallNs);
}

// The queue

void PipeWirePlayer::Clear()
{
    if (!m_initialized)
        return;
    const LoopLock loopLock(m_loop);
    {
        const std::lock_guard lock(m_audioMutex);
        // The place where the next byte goes stays where it is: a push may be under way.
        m_readPos = (m_readPos + m_queuedBytes) % m_audio.size();
        m_queuedBytes = 0;
        // Only a resampler holds anything between two cycles.
        if (m_broken || m_cycle.bufferedFrames == 0)
            return;
        ForgetBuffered();
        m_flushing = true; // what is pushed now shall not go the same way
    }
    Flush();
    const std::lock_guard lock(m_audioMutex);
    m_flushing = false;
}

// A flush resets the resampler, which belongs to the data thread: it is made there, between two
// cycles, while this thread holds the loop's lock in its place for the events that it causes.
// PipeWire would report a blocking call done in the middle of it, as a flush is such a call itself.
void PipeWirePlayer::Flush() noexcept
{
    struct Order
    {
        pw_stream* stream;
        std::binary_semaphore done{0};
    };
    Order order{m_stream};
    const auto flush = [](spa_loop*, bool, uint32_t, const void*, size_t, void* userdata)
    {
        auto* given = static_cast<Order*>(userdata);
        const int result = pw_stream_flush(given->stream, false);
        given->done.release();
        return result;
    };
#if PW_CHECK_VERSION(1, 1, 0)
    pw_loop* dataLoop = pw_stream_get_data_loop(m_stream);
#else
    pw_loop* dataLoop = pw_data_loop_get_loop(pw_context_get_data_loop(m_context));
#endif
    if (pw_loop_invoke(dataLoop, flush, 0, nullptr, 0, false, &order) >= 0)
        order.done.acquire();
}

// Makes the ring large enough for `size` more bytes. Only the pushing thread adds bytes, so the
// queued ones can be copied unlocked while PipeWire takes some of them, or Clear all: they only
// move the read position, which the swap at the end makes up for.
void PipeWirePlayer::ReserveRoom(size_t size)
{
    std::unique_lock lock(m_audioMutex);
    if (m_audio.size() - m_queuedBytes >= size)
        return;
    const size_t readPos = m_readPos;
    const size_t queued = m_queuedBytes;
    lock.unlock();

    std::vector<unsigned char> larger(std::max(queued + size, m_audio.size() * 2));
    const size_t untilWrap = std::min(queued, m_audio.size() - readPos);
    std::copy_n(m_audio.begin() + static_cast<ptrdiff_t>(readPos), untilWrap, larger.begin());
    std::copy_n(m_audio.begin(), queued - untilWrap,
                larger.begin() + static_cast<ptrdiff_t>(untilWrap));

    lock.lock();
    m_readPos = queued - m_queuedBytes; // what was taken meanwhile
    m_audio.swap(larger);
    lock.unlock(); // before the old ring is freed
}

void PipeWirePlayer::PushBytes(const uint8_t* data, size_t size)
{
    if (!m_initialized || !data || size == 0)
        return;
    ReserveRoom(size);
    std::unique_lock lock(m_audioMutex);
    const size_t writePos = (m_readPos + m_queuedBytes) % m_audio.size();
    lock.unlock();

    // Nobody else writes, or reads what is not queued: PipeWire's thread need not wait for this.
    const size_t untilWrap = std::min(size, m_audio.size() - writePos);
    std::memcpy(m_audio.data() + writePos, data, untilWrap);
    std::memcpy(m_audio.data(), data + untilWrap, size - untilWrap);

    lock.lock();
    m_queuedBytes += size;
}

size_t PipeWirePlayer::PopBytes(uint8_t* data, size_t size) noexcept
{
    const std::lock_guard lock(m_audioMutex);
    m_cycle.lengthNs = (m_cycle.bAgain ? m_cycle.lengthNs : 0) + FramesToNs(size / m_bytesPerFrame);
    if (!m_active || m_flushing || m_cycle.calledNs < m_linkedByNs)
        return 0;
    const size_t taken = std::min(size, m_queuedBytes);
    if (taken == 0)
        return 0;
    const size_t untilWrap = std::min(taken, m_audio.size() - m_readPos);
    std::memcpy(data, m_audio.data() + m_readPos, untilWrap);
    std::memcpy(data + untilWrap, m_audio.data(), taken - untilWrap);
    m_readPos = (m_readPos + taken) % m_audio.size();
    m_queuedBytes -= taken;
    // In the same breath, so that no moment exists at which the last frames are neither queued nor
    // in flight.
    AddToRuns(taken / m_bytesPerFrame);
    return taken;
}

size_t PipeWirePlayer::QueuedBytes() const
{
    const std::lock_guard lock(m_audioMutex);
    return m_queuedBytes;
}

double PipeWirePlayer::QueuedSeconds() const
{
    if (!m_initialized)
        return 0.0;
    const std::lock_guard lock(m_audioMutex);
    const int64_t sincePlayedOutNs = StreamNowNs() - m_playedOutNs;
    // One cycle of grace: when the graph is late, it takes what it was given with the next one.
    if (m_queuedBytes == 0 && sincePlayedOutNs >= m_cycle.lengthNs)
        return 0.0;
    const double queued = static_cast<double>(m_queuedBytes / m_bytesPerFrame) / m_sampleRate;
    // Without the silence that stands between.
    const double inFlight = std::min(Seconds(std::max<int64_t>(-sincePlayedOutNs, 0)),
                                     Seconds(FramesToNs(m_takenFrames - HeardFrames())));
    const double counted =
        std::min(inFlight, std::max(kLeastQueueLimitSeconds - queued, kAlwaysCountedSeconds));
    return std::max(queued + counted, kUnpresentedFloorSeconds);
}

// The stream's clock. All of it but the public operations runs with m_audioMutex held.

bool PipeWirePlayer::GetStreamTime(double* presentedSec, double* second) const
{
    if (!m_initialized)
        return false;
    const std::lock_guard lock(m_audioMutex);
    if (m_takenFrames == 0)
        return false;
    // The clock may be corrected backwards, by a device of more latency, say. Then time stands.
    m_toldFrames = std::max(m_toldFrames, HeardFrames());
    if (presentedSec)
        *presentedSec = static_cast<double>(m_toldFrames) / m_sampleRate;
    if (second)
        *second = static_cast<double>(m_takenFrames - m_toldFrames) / m_sampleRate;
    return true;
}

bool PipeWirePlayer::GetStreamTimePWOnly(double* presentedSec, double* second) const
{
    if (!m_initialized)
        return false;
    const LoopLock lock(m_loop);
    pw_time time{};
    if (m_broken || pw_stream_get_time_n(m_stream, &time, sizeof time) < 0 || time.rate.denom == 0)
        return false;
    const double tick = static_cast<double>(time.rate.num) / time.rate.denom;
    if (presentedSec)
        *presentedSec = static_cast<double>(time.ticks) * tick;
    if (second)
        *second = static_cast<double>(time.delay) * tick;
    return true;
}

// The time by which the stream plays: it stands still while the stream is held.
int64_t PipeWirePlayer::StreamNowNs() const noexcept
{
    return m_active ? MonotonicNs() : m_heldSinceNs;
}

int64_t PipeWirePlayer::FramesToNs(uint64_t frames) const noexcept
{
    return static_cast<int64_t>(frames) * kNsPerSecond / m_sampleRate;
}

uint64_t PipeWirePlayer::NsToFrames(int64_t ns) const noexcept
{
    return ns > 0 ? static_cast<uint64_t>(Seconds(ns) * m_sampleRate) : 0;
}

// How many of the taken frames have been heard by now.
uint64_t PipeWirePlayer::HeardFrames() const noexcept
{
    const int64_t now = StreamNowNs();
    for (size_t back = 0; back < m_runs.size(); ++back)
    {
        const Run& run = m_runs[(m_lastRun + m_runs.size() - back) % m_runs.size()];
        const uint64_t unheard = NsToFrames(run.endNs - now);
        if (unheard < run.endFrame - run.firstFrame)
            return run.endFrame - unheard;
    }
    return m_runs[(m_lastRun + 1) % m_runs.size()].firstFrame; // the oldest that is known
}

// Frames that PipeWire takes in this cycle follow the last run, unless there was silence between.
void PipeWirePlayer::AddToRuns(uint64_t frames) noexcept
{
    const Run& last = m_runs[m_lastRun];
    const int64_t fromNs =
        m_cycle.bAgain ? std::max(m_cycle.heardFromNs, last.endNs) : m_cycle.heardFromNs;
    if (fromNs - last.endNs > m_cycle.lengthNs / 2)
    {
        m_lastRun = (m_lastRun + 1) % m_runs.size();
        m_runs[m_lastRun].firstFrame = m_takenFrames;
    }
    m_takenFrames += frames;
    m_runs[m_lastRun].endFrame = m_takenFrames;
    m_runs[m_lastRun].endNs = fromNs + FramesToNs(frames);
    m_playedOutNs = m_runs[m_lastRun].endNs;
}

// What PipeWire has taken and not passed on in the last cycle, the resampler's last frames, is
// going to be dropped.
void PipeWirePlayer::ForgetBuffered() noexcept
{
    Run& last = m_runs[m_lastRun];
    const int64_t passedOnNs =
        m_cycle.heardFromNs - FramesToNs(m_cycle.bufferedFrames) + m_cycle.lengthNs;
    const uint64_t dropped =
        std::min({NsToFrames(last.endNs - passedOnNs), m_cycle.bufferedFrames,
                  last.endFrame - last.firstFrame, m_takenFrames - m_toldFrames});
    m_cycle.bufferedFrames = 0;
    m_takenFrames -= dropped;
    last.endFrame -= dropped;
    last.endNs -= FramesToNs(dropped);
    m_playedOutNs = std::min(m_playedOutNs, last.endNs);
}

// When the stream is gone: nobody will hear what it was given any more. While it is held its time
// goes on standing still.
void PipeWirePlayer::CountTakenAsHeard() noexcept
{
    const std::lock_guard lock(m_audioMutex);
    Run& last = m_runs[m_lastRun];
    if (m_active)
        last.endNs = std::min(last.endNs, MonotonicNs());
    m_playedOutNs = std::min(m_playedOutNs, StreamNowNs() - m_cycle.lengthNs);
    m_cycle.bufferedFrames = 0;
}

// PipeWire's real-time thread: no allocation, no wait but for the queue's short mutex

void PipeWirePlayer::OnProcess(void* userdata) noexcept
{
    static_cast<PipeWirePlayer*>(userdata)->FillBuffer();
}

void PipeWirePlayer::FillBuffer() noexcept
{
    MeasureCycle();
    pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
    if (!buffer)
        return;
    spa_data& data = buffer->buffer->datas[0];
    auto* bytes = static_cast<uint8_t*>(data.data);
    uint64_t frames = bytes ? data.maxsize / m_bytesPerFrame : 0;
    if (buffer->requested > 0)
        frames = std::min(frames, buffer->requested);
    const size_t size = frames * m_bytesPerFrame;
    const size_t taken = PopBytes(bytes, size);
    if (taken < size)
        std::memset(bytes + taken, 0, size - taken); // an underrun is silence, never old data
    data.chunk->offset = 0;
    data.chunk->stride = static_cast<int32_t>(m_bytesPerFrame);
    data.chunk->size = static_cast<uint32_t>(size);
    buffer->size = frames; // what PipeWire adds up as queued is in frames then
    pw_stream_queue_buffer(m_stream, buffer);
}

// When the first frame of the coming buffer will be heard: after what waits before it in the
// stream and its resampler, and after the way to the device.
void PipeWirePlayer::MeasureCycle() noexcept
{
    // Where PipeWire tells no time (1.6, after a flush) the cycle begins now, and the delay stays.
    pw_time time{};
    const bool bTold =
        pw_stream_get_time_n(m_stream, &time, sizeof time) == 0 && time.rate.denom > 0;

    const std::lock_guard lock(m_audioMutex);
    m_cycle.calledNs = MonotonicNs();
    if (m_linkedByNs == kNotLinked)
        m_linkedByNs = m_cycle.calledNs + kLinkingNs;
    m_cycle.bAgain = time.now != 0 && time.now == m_cycle.graphNs;
    m_cycle.graphNs = time.now;
    if (bTold)
    {
        m_cycle.bufferedFrames = time.buffered + time.queued;
        m_cycle.delayNs = std::max<int64_t>(time.delay, 0) * time.rate.num * kNsPerSecond /
                          static_cast<int64_t>(time.rate.denom);
    }
    // The graph's time knows nothing of how late this thread woke up. A daemon that makes up for
    // lost cycles has its clock far behind, though.
    const int64_t startNs =
        bTold ? std::clamp(time.now, m_cycle.calledNs - m_cycle.lengthNs, m_cycle.calledNs)
              : m_cycle.calledNs;
    m_cycle.heardFromNs = startNs + m_cycle.delayNs + FramesToNs(m_cycle.bufferedFrames);
}
