#include "pipewire_player.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

namespace
{

constexpr int kMaxSampleRate = 768000; // the highest that devices play
constexpr int kMaxChannels = 64;       // as many as PipeWire's formats name

// Both at once make PipeWire's converter run past its buffers (seen with 0.3.65); half of it, four
// times what any device plays, is well clear of that.
constexpr int64_t kMaxSamplesPerSecond = int64_t{kMaxSampleRate} * kMaxChannels / 2;

constexpr int64_t kConnectTimeoutNs = 2000000000;
constexpr int64_t kNsPerSecond = 1000000000;

// The room that the queue starts with: enough for files and PCM buffers but for blocks of unusual
// length, which make the ring grow.
constexpr double kReservedSeconds = 0.75;

// What callers treat as played out (0.02 s), and the least that is reported before it is true.
constexpr double kUnpresentedFloorSeconds = 0.0201;

// As much of what is in flight counts for the callers, who stop pushing at 0.35 s or more: a device
// with more latency than that must not keep the queue empty.
constexpr double kMaxCountedInFlightSeconds = 0.1;

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
    explicit LoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~LoopLock() { pw_thread_loop_unlock(loop_); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pw_thread_loop* loop_;
};

// Before 1.4 a client's data thread gets real-time priority only from this configuration, which
// later versions no longer have.
bool NeedsRealTimeConfiguration()
{
    int major = 0;
    int minor = 0;
    return std::sscanf(pw_get_library_version(), "%d.%d", &major, &minor) == 2 &&
           (major < 1 || (major == 1 && minor < 4));
}

} // namespace

PipeWirePlayer::PipeWirePlayer() = default;

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
    try
    {
        ReserveRoom(static_cast<size_t>(sampleRate * kReservedSeconds) * m_bytesPerFrame);
        m_initialized = Connect() && AwaitConnected();
    }
    catch (const std::bad_alloc&)
    {
        // As with any other failure, nothing is left behind.
    }
    if (!m_initialized)
        Destroy();
    return m_initialized;
}

// From nothing to a stream that is on its way to the daemon. What it made before it failed is left
// to Destroy.
bool PipeWirePlayer::Connect()
{
    static const bool bLibraryStarted = []
    {
        pw_init(nullptr, nullptr); // for the life of the process: other users may share it
        return true;
    }();
    (void)bLibraryStarted;

    m_loop = pw_thread_loop_new("tovrel-audio", nullptr);
    if (!m_loop)
        return false;
    pw_properties* contextProperties = nullptr;
    if (NeedsRealTimeConfiguration())
        contextProperties = pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr);
    m_context = pw_context_new(pw_thread_loop_get_loop(m_loop), contextProperties, 0);
    if (!m_context)
        return false;
    m_core = pw_context_connect(m_context, nullptr, 0);
    if (!m_core || pw_thread_loop_start(m_loop) < 0)
        return false;

    const LoopLock lock(m_loop);
    // No media.role: session managers keep one volume for all applications of a role.
    pw_properties* properties =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                          PW_KEY_NODE_NAME, "tovrel", PW_KEY_NODE_DESCRIPTION, "Tovrel", nullptr);
    if (!properties)
        return false;
    pw_properties_setf(properties, PW_KEY_NODE_RATE, "1/%d", m_sampleRate);
    m_stream = pw_stream_new(m_core, "Tovrel playback", properties);
    if (!m_stream)
        return false;

    static const pw_stream_events kEvents = []
    {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = [](void* userdata, pw_stream_state, pw_stream_state, const char*)
        {
            pw_thread_loop_signal(static_cast<PipeWirePlayer*>(userdata)->m_loop, false);
        };
        events.process = OnProcess;
        return events;
    }();
    m_streamListener = new spa_hook{};
    pw_stream_add_listener(m_stream, m_streamListener, &kEvents, this);

    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = static_cast<uint32_t>(m_sampleRate);
    info.channels = static_cast<uint32_t>(m_channels);
    SetChannelPositions(info.position, info.channels);
    std::array<uint8_t, 1024> podBuffer;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, podBuffer.data(), podBuffer.size());
    const spa_pod* params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags =
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_INACTIVE |
                                     PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
    return pw_stream_connect(m_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1) == 0;
}

// Waits until the daemon has taken the stream in: it is paused then, as it was connected inactive,
// and stays so where there is no device to play to yet.
bool PipeWirePlayer::AwaitConnected()
{
    const LoopLock lock(m_loop);
    timespec deadline{};
    pw_thread_loop_get_time(m_loop, &deadline, kConnectTimeoutNs);
    for (;;)
    {
        switch (pw_stream_get_state(m_stream, nullptr))
        {
        case PW_STREAM_STATE_PAUSED:
        case PW_STREAM_STATE_STREAMING:
            return true;
        case PW_STREAM_STATE_ERROR:
        case PW_STREAM_STATE_UNCONNECTED:
            return false;
        case PW_STREAM_STATE_CONNECTING:
            break;
        }
        if (pw_thread_loop_timed_wait_full(m_loop, &deadline) < 0)
            return false;
    }
}

void PipeWirePlayer::Destroy()
{
    m_initialized = false;
    if (m_stream)
    {
        const LoopLock lock(m_loop);
        pw_stream_destroy(m_stream); // disconnects it first, and lets go of the listener
        // With the connection in one go: the loop would read on for a stream that is gone, and
        // leave open every descriptor that such a message brings.
        pw_core_disconnect(m_core);
    }
    if (m_loop)
        pw_thread_loop_stop(m_loop); // never under its own lock
    if (m_context)
        pw_context_destroy(m_context); // with a connection that never got a stream
    if (m_loop)
        pw_thread_loop_destroy(m_loop);
    delete m_streamListener;
    m_streamListener = nullptr;
    m_stream = nullptr;
    m_core = nullptr;
    m_context = nullptr;
    m_loop = nullptr;

    m_audio = {};
    m_readPos = 0;
    m_queuedBytes = 0;
    m_takenFrames = 0;
    m_heardByNs = 0;
    m_cycleNs = 0;
    m_active = false;
    m_heldSinceNs = 0;
    m_leadNs = 0;
}

void PipeWirePlayer::SetActive(bool active)
{
    if (!m_initialized)
        return;
    {
        const LoopLock lock(m_loop);
        pw_stream_set_active(m_stream, active);
    }
    // What is in flight waits with the stream, so that no material runs out while it is held.
    const std::lock_guard lock(m_audioMutex);
    if (active == m_active)
        return;
    const int64_t now = MonotonicNs();
    if (active)
        m_heardByNs += now - m_heldSinceNs;
    else
        m_heldSinceNs = now;
    m_active = active;
}

// The queue

void PipeWirePlayer::Clear()
{
    const std::lock_guard lock(m_audioMutex);
    m_readPos = 0;
    m_queuedBytes = 0;
}

// Makes the ring large enough for `size` more bytes. Only the pushing thread adds bytes, so the
// queued ones can be copied unlocked while PipeWire takes some of them: it only moves the read
// position, which the swap at the end makes up for.
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
    const std::lock_guard lock(m_audioMutex);
    const size_t writePos = (m_readPos + m_queuedBytes) % m_audio.size();
    const size_t untilWrap = std::min(size, m_audio.size() - writePos);
    std::memcpy(m_audio.data() + writePos, data, untilWrap);
    std::memcpy(m_audio.data(), data + untilWrap, size - untilWrap);
    m_queuedBytes += size;
}

size_t PipeWirePlayer::PopBytes(uint8_t* data, size_t size) noexcept
{
    const std::lock_guard lock(m_audioMutex);
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
    const size_t frames = taken / m_bytesPerFrame;
    m_takenFrames += frames;
    m_heardByNs = MonotonicNs() + m_leadNs + FramesToNs(frames);
    m_cycleNs = FramesToNs(size / m_bytesPerFrame);
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
    const int64_t sinceHeardNs = StreamNowNs() - m_heardByNs;
    // One cycle of grace: when the graph is late, it takes what it was given with the next one.
    if (m_queuedBytes == 0 && sinceHeardNs >= m_cycleNs)
        return 0.0;
    const double queued = static_cast<double>(m_queuedBytes / m_bytesPerFrame) / m_sampleRate;
    const double inFlight = Seconds(std::max<int64_t>(-sinceHeardNs, 0));
    return std::max(queued + std::min(inFlight, kMaxCountedInFlightSeconds),
                    kUnpresentedFloorSeconds);
}

// The time by which the stream plays: it stands still while the stream is held.
int64_t PipeWirePlayer::StreamNowNs() const
{
    return m_active ? MonotonicNs() : m_heldSinceNs;
}

int64_t PipeWirePlayer::FramesToNs(uint64_t frames) const noexcept
{
    return static_cast<int64_t>(frames) * kNsPerSecond / m_sampleRate;
}

// Time

bool PipeWirePlayer::GetStreamTime(double* presentedSec, double* second) const
{
    if (!m_initialized)
        return false;
    const std::lock_guard lock(m_audioMutex);
    if (m_takenFrames == 0)
        return false;
    const double taken = static_cast<double>(m_takenFrames) / m_sampleRate;
    const double inFlight =
        std::min(Seconds(std::max<int64_t>(m_heardByNs - StreamNowNs(), 0)), taken);
    if (presentedSec)
        *presentedSec = taken - inFlight;
    if (second)
        *second = inFlight;
    return true;
}

bool PipeWirePlayer::GetStreamTimePWOnly(double* presentedSec, double* second) const
{
    pw_time time{};
    if (!m_initialized || pw_stream_get_time_n(m_stream, &time, sizeof time) < 0 ||
        time.rate.denom == 0)
        return false;
    const double tick = static_cast<double>(time.rate.num) / time.rate.denom;
    if (presentedSec)
        *presentedSec = static_cast<double>(time.ticks) * tick;
    if (second)
        *second = static_cast<double>(time.delay) * tick;
    return true;
}

// PipeWire's real-time thread: no allocation, no wait but for the queue's short mutex

void PipeWirePlayer::OnProcess(void* userdata) noexcept
{
    static_cast<PipeWirePlayer*>(userdata)->FillBuffer();
}

void PipeWirePlayer::FillBuffer() noexcept
{
    pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
    if (!buffer)
        return;
    spa_data& data = buffer->buffer->datas[0];
    auto* bytes = static_cast<uint8_t*>(data.data);
    uint64_t frames = bytes ? data.maxsize / m_bytesPerFrame : 0;
    if (buffer->requested > 0)
        frames = std::min(frames, buffer->requested);
    const size_t size = frames * m_bytesPerFrame;
    MeasureLead();
    const size_t taken = PopBytes(bytes, size);
    if (taken < size)
        std::memset(bytes + taken, 0, size - taken); // an underrun is silence, never old data
    data.chunk->offset = 0;
    data.chunk->stride = static_cast<int32_t>(m_bytesPerFrame);
    data.chunk->size = static_cast<uint32_t>(size);
    buffer->size = frames; // what PipeWire adds up as queued is in frames then
    pw_stream_queue_buffer(m_stream, buffer);
}

// How long the first frame of the coming buffer takes to be heard: what waits before it in the
// resampler and the stream, and the way to the device.
void PipeWirePlayer::MeasureLead() noexcept
{
    pw_time time{};
    if (pw_stream_get_time_n(m_stream, &time, sizeof time) < 0 || time.rate.denom == 0)
        return;
    const int64_t delayNs = std::max<int64_t>(time.delay, 0) * time.rate.num * kNsPerSecond /
                            static_cast<int64_t>(time.rate.denom);
    m_leadNs = delayNs + FramesToNs(time.queued + time.buffered);
}
