// The floor of everything that plays through PipeWire: a stream and a tone that is in memory
// already.
#pragma once

#include "graph_stream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>

class BareStream final : private GraphStream
{
public:
    // Opens the stream, which starts at once and plays so many frames of the tone.
    explicit BareStream(uint64_t frames = std::numeric_limits<uint64_t>::max()) : m_left(frames)
    {
        for (size_t frame = 0; frame < kPeriod; ++frame)
        {
            const double phase = 2.0 * std::numbers::pi * static_cast<double>(frame) / kPeriod;
            m_tone[2 * frame] = m_tone[2 * frame + 1] = static_cast<float>(0.4 * std::sin(phase));
        }
        m_openedNs = NowNs();
        Open(PW_DIRECTION_OUTPUT,
             pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                               PW_KEY_NODE_NAME, "bare-stream", nullptr));
    }

    ~BareStream() { Close(); }

    // Whether every frame has been heard.
    bool HasPlayed() const { return m_playedNs != 0 && NowNs() >= m_playedNs; }

    // How long it has taken from the start until the daemon had taken the stream in, and until it
    // asked for sound. Once it has played.
    double ReadyMs() const { return static_cast<double>(m_readyNs - m_openedNs) / 1e6; }
    double FirstCallMs() const { return static_cast<double>(m_calledNs - m_openedNs) / 1e6; }

private:
    static constexpr size_t kPeriod = 48; // frames of 1 kHz
    static constexpr size_t kBytesPerFrame = kGraphChannels * sizeof(float);

    void OnState(pw_stream_state state) noexcept override
    {
        if (state == PW_STREAM_STATE_PAUSED && m_readyNs == 0)
            m_readyNs = NowNs();
    }

    void OnProcess() noexcept override
    {
        if (m_calledNs == 0)
            m_calledNs = NowNs();
        pw_buffer* buffer = pw_stream_dequeue_buffer(Stream());
        if (!buffer)
            return;
        const spa_data& data = buffer->buffer->datas[0];
        const uint64_t room = data.maxsize / kBytesPerFrame;
        const uint64_t asked = buffer->requested ? std::min(buffer->requested, room) : room;
        auto* out = static_cast<float*>(data.data);
        std::memset(out, 0, asked * kBytesPerFrame);
        const uint64_t frames = std::min(m_left, asked);
        for (uint64_t frame = 0; frame < frames; ++frame)
        {
            out[2 * frame] = m_tone[2 * m_phase];
            out[2 * frame + 1] = m_tone[2 * m_phase + 1];
            m_phase = (m_phase + 1) % kPeriod;
        }
        m_left -= frames;
        if (m_left == 0 && m_playedNs == 0)
            m_playedNs = HeardFromNs() + FramesToNs(frames);
        data.chunk->offset = 0;
        data.chunk->stride = kBytesPerFrame;
        data.chunk->size = static_cast<uint32_t>(asked * kBytesPerFrame);
        pw_stream_queue_buffer(Stream(), buffer);
    }

    // When the first frame of the buffer that is being filled reaches the device.
    int64_t HeardFromNs() const
    {
        pw_time time{};
        pw_stream_get_time_n(Stream(), &time, sizeof time);
        const int64_t delayNs =
            time.rate.denom ? time.delay * 1'000'000'000 * time.rate.num / time.rate.denom : 0;
        return time.now + delayNs;
    }

    std::array<float, kPeriod * kGraphChannels> m_tone; // interleaved
    uint64_t m_left;                                    // frames; this one and the next one are
    size_t m_phase = 0;                                 // the process callback's own
    int64_t m_openedNs = 0;
    std::atomic<int64_t> m_readyNs{0};
    std::atomic<int64_t> m_calledNs{0};
    std::atomic<int64_t> m_playedNs{0};
};
