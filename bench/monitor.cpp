#include "monitor.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{

constexpr size_t kRememberedFrames = size_t{1} << 20; // 21.8 s
constexpr size_t kRememberedCycles = size_t{1} << 15; // as long, in cycles of 32 frames

// What is played is a tone of amplitude 0.4, on one channel; no coder lets a millionth of it leak
// into the other one. A tone passes zero for less than two frames at a time.
constexpr float kLoud = 0.1f;
constexpr float kSilent = 0.01f;

constexpr const char* kLatencyVariable = "PIPEWIRE_LATENCY";

// PipeWire reads the latency that a user asks for from the environment for any stream. The listener
// must not ask for any: it is the players' choice in what cycles the graph runs.
class NoLatencyAsked
{
public:
    NoLatencyAsked()
    {
        if (const char* asked = std::getenv(kLatencyVariable))
            m_asked = asked;
        unsetenv(kLatencyVariable);
    }
    ~NoLatencyAsked()
    {
        if (!m_asked.empty())
            setenv(kLatencyVariable, m_asked.c_str(), 1);
    }
    NoLatencyAsked(const NoLatencyAsked&) = delete;
    NoLatencyAsked& operator=(const NoLatencyAsked&) = delete;

private:
    std::string m_asked;
};

bool Exceeds(const std::array<float, kGraphChannels>& levels, Channel channel, float threshold)
{
    switch (channel)
    {
    case Channel::kLeft:
        return levels[0] > threshold;
    case Channel::kRight:
        return levels[1] > threshold;
    case Channel::kAny:
        break;
    }
    return std::max(levels[0], levels[1]) > threshold;
}

} // namespace

Monitor::Monitor() : m_samples(kRememberedFrames * kGraphChannels), m_cycles(kRememberedCycles)
{
    const NoLatencyAsked guard;
    Open(PW_DIRECTION_INPUT,
         pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                           PW_KEY_NODE_NAME, "benchmark-monitor", PW_KEY_TARGET_OBJECT, "null-sink",
                           PW_KEY_STREAM_CAPTURE_SINK, "true", nullptr));
    const int64_t deadlineNs = NowNs() + 10'000'000'000;
    while (m_cycleCount == 0)
    {
        if (NowNs() > deadlineNs)
        {
            Close();
            throw std::runtime_error("there is no null sink: run it under scripts/with-null-sink");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Monitor::OnProcess() noexcept
{
    pw_buffer* buffer = pw_stream_dequeue_buffer(Stream());
    if (!buffer)
        return;
    pw_time time{};
    pw_stream_get_time_n(Stream(), &time, sizeof time);
    const spa_data& data = buffer->buffer->datas[0];
    const size_t frames = data.chunk->size / (kGraphChannels * sizeof(float));
    if (data.data && frames > 0)
    {
        // A cycle that is longer or shorter than the one before brings the smaller number.
        const uint64_t passed = time.ticks - m_ticks;
        const bool bNext = m_frames > 0 && (passed == m_lastFrames || passed == frames);
        if (m_frames > 0 && !bNext)
            ++m_holes;
        const auto* bytes = static_cast<const std::byte*>(data.data) + data.chunk->offset;
        Record(reinterpret_cast<const float*>(bytes), frames,
               bNext ? m_calledNs : time.now - FramesToNs(frames), time.now);
        m_ticks = time.ticks;
        m_calledNs = time.now;
        m_lastFrames = frames;
    }
    pw_stream_queue_buffer(Stream(), buffer);
}

void Monitor::Record(const float* samples, size_t frames, int64_t startNs, int64_t endNs) noexcept
{
    Cycle cycle{m_frames, frames, startNs, endNs, {}};
    for (size_t i = 0; i < frames * kGraphChannels; ++i)
    {
        m_samples[(m_frames * kGraphChannels + i) % m_samples.size()] = samples[i];
        float& peak = cycle.peaks[i % kGraphChannels];
        peak = std::max(peak, std::fabs(samples[i]));
    }
    m_frames += frames;
    m_cycles[m_cycleCount % m_cycles.size()] = cycle;
    m_cycleCount.fetch_add(1, std::memory_order_release);
}

// The first cycle that was heard beyond this moment.
uint64_t Monitor::FirstCycleAfter(int64_t ns) const
{
    uint64_t first = m_cycleCount.load(std::memory_order_acquire);
    const uint64_t oldest = first > kRememberedCycles / 2 ? first - kRememberedCycles / 2 : 0;
    while (first > oldest && At(first - 1).endNs > ns)
        --first;
    return first;
}

// Calls visit(time, levels of the channels) for the frames of a cycle until it returns false.
template <typename Visit>
void Monitor::VisitFrames(const Cycle& cycle, int64_t afterNs, Visit visit) const
{
    for (size_t i = 0; i < cycle.frames; ++i)
    {
        const int64_t ns = cycle.startNs + FramesToNs(i);
        if (ns < afterNs)
            continue;
        const float* frame = &m_samples[(cycle.firstFrame + i) * kGraphChannels % m_samples.size()];
        if (!visit(ns, std::array{std::fabs(frame[0]), std::fabs(frame[1])}))
            return;
    }
}

std::optional<int64_t> Monitor::FirstSound(Channel channel, int64_t afterNs) const
{
    std::optional<int64_t> first;
    const uint64_t end = m_cycleCount.load(std::memory_order_acquire);
    for (uint64_t cycle = FirstCycleAfter(afterNs); cycle < end && !first; ++cycle)
    {
        if (!Exceeds(At(cycle).peaks, channel, kLoud))
            continue;
        VisitFrames(At(cycle), afterNs,
                    [&](int64_t ns, const auto& levels)
                    {
                        if (Exceeds(levels, channel, kLoud))
                            first = ns;
                        return !first;
                    });
    }
    return first;
}

int64_t Monitor::LastSound(int64_t afterNs) const
{
    int64_t last = afterNs;
    const uint64_t first = FirstCycleAfter(afterNs);
    uint64_t cycle = m_cycleCount.load(std::memory_order_acquire);
    while (cycle > first && last == afterNs)
    {
        --cycle;
        if (!Exceeds(At(cycle).peaks, Channel::kAny, kSilent))
            continue;
        VisitFrames(At(cycle), afterNs,
                    [&](int64_t ns, const auto& levels)
                    {
                        if (Exceeds(levels, Channel::kAny, kSilent))
                            last = ns + FramesToNs(1);
                        return true;
                    });
    }
    return last;
}

int64_t Monitor::LongestSilenceNs(int64_t fromNs, int64_t toNs) const
{
    int64_t longest = 0;
    int64_t lastSoundNs = fromNs;
    const uint64_t end = m_cycleCount.load(std::memory_order_acquire);
    for (uint64_t cycle = FirstCycleAfter(fromNs); cycle < end; ++cycle)
    {
        VisitFrames(At(cycle), fromNs,
                    [&](int64_t ns, const auto& levels)
                    {
                        if (ns >= toNs)
                            return false;
                        if (Exceeds(levels, Channel::kAny, kSilent))
                        {
                            longest = std::max(longest, ns - lastSoundNs);
                            lastSoundNs = ns + FramesToNs(1);
                        }
                        return true;
                    });
    }
    return std::max(longest, toNs - lastSoundNs);
}

int64_t Monitor::HeardUntilNs() const
{
    return At(m_cycleCount.load(std::memory_order_acquire) - 1).endNs;
}

size_t Monitor::Quantum() const
{
    return At(m_cycleCount.load(std::memory_order_acquire) - 1).frames;
}
