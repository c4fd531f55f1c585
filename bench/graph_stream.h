// A stream of stereo floats at 48 kHz with a connection of its own: what the benchmarks' listener
// and their bare player have in common.
#pragma once

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

constexpr int kGraphRate = 48000;
constexpr size_t kGraphChannels = 2;

inline int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr int64_t FramesToNs(uint64_t frames)
{
    return static_cast<int64_t>(frames * 1'000'000'000 / kGraphRate);
}

class GraphStream
{
public:
    GraphStream(const GraphStream&) = delete;
    GraphStream& operator=(const GraphStream&) = delete;

protected:
    GraphStream() = default;
    ~GraphStream() { Close(); }

    // Returns while the daemon is still at it. Takes the properties over; throws where there is no
    // daemon.
    void Open(pw_direction direction, pw_properties* properties)
    {
        pw_init(nullptr, nullptr);
        m_loop = pw_thread_loop_new("graph-stream", nullptr);
        // Real-time priority as the player has it, from the configuration that not all versions
        // have.
        m_context =
            pw_context_new(pw_thread_loop_get_loop(m_loop),
                           pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
        if (!m_context)
            m_context = pw_context_new(pw_thread_loop_get_loop(m_loop), nullptr, 0);
        m_core = m_context ? pw_context_connect(m_context, nullptr, 0) : nullptr;
        if (!m_core || pw_thread_loop_start(m_loop) < 0)
        {
            pw_properties_free(properties);
            throw std::runtime_error("no PipeWire daemon: run it under scripts/with-null-sink");
        }
        pw_thread_loop_lock(m_loop);
        Connect(direction, properties);
        pw_thread_loop_unlock(m_loop);
    }

    // No callback runs any more once it has returned: derived classes call it before their members
    // go.
    void Close()
    {
        if (m_loop)
            pw_thread_loop_stop(m_loop);
        if (m_stream)
            pw_stream_destroy(m_stream);
        if (m_core)
            pw_core_disconnect(m_core);
        if (m_context)
            pw_context_destroy(m_context);
        if (m_loop)
            pw_thread_loop_destroy(m_loop);
        m_stream = nullptr;
        m_core = nullptr;
        m_context = nullptr;
        m_loop = nullptr;
    }

    pw_stream* Stream() const { return m_stream; }

    virtual void OnState(pw_stream_state) noexcept {}
    virtual void OnProcess() noexcept = 0; // on PipeWire's real-time thread

private:
    void Connect(pw_direction direction, pw_properties* properties)
    {
        static const pw_stream_events kEvents = []
        {
            pw_stream_events events{};
            events.version = PW_VERSION_STREAM_EVENTS;
            events.state_changed =
                [](void* self, pw_stream_state, pw_stream_state state, const char*)
            {
                static_cast<GraphStream*>(self)->OnState(state);
            };
            events.process = [](void* self)
            {
                static_cast<GraphStream*>(self)->OnProcess();
            };
            return events;
        }();
        m_stream = pw_stream_new(m_core, "benchmark", properties);
        pw_stream_add_listener(m_stream, &m_listener, &kEvents, this);

        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.rate = kGraphRate;
        info.channels = kGraphChannels;
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
        std::array<uint8_t, 1024> podBuffer;
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, podBuffer.data(), podBuffer.size());
        const spa_pod* params[] = {
            spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
        const auto flags = static_cast<pw_stream_flags>(
            PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
        pw_stream_connect(m_stream, direction, PW_ID_ANY, flags, params, 1);
    }

    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook m_listener{};
};
