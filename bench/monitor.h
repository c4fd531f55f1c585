// Listens to what the null sink plays, all the time, and tells when it was heard.
#pragma once

#include "graph_stream.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

enum class Channel
{
    kLeft,
    kRight,
    kAny
};

// All times are monotonic nanoseconds. A frame's time is when the sink has come to it by the
// graph's clock: the beginning of the cycle in which the sink took the frame, plus the frame's
// place in that cycle. The monitor passes on in a cycle what the sink has taken in the one before.
// Where a player has changed the length of the cycles, the first new one has the new number of
// frames but still takes the old time; that is why its end tells nothing. When anybody looks makes
// no difference.
//
// It remembers the last 20 s, and must not be asked about more. One thread asks.
class Monitor final : private GraphStream
{
public:
    Monitor(); // listens from now on; returns when frames are arriving
    ~Monitor() { Close(); }

    // The time of the first loud frame from `afterNs` on, if there was one by now.
    std::optional<int64_t> FirstSound(Channel channel, int64_t afterNs) const;

    // Until when there was a frame that was not silent, from `afterNs` on; `afterNs` where there
    // was none.
    int64_t LastSound(int64_t afterNs) const;

    // The longest silence between two moments that have been recorded.
    int64_t LongestSilenceNs(int64_t fromNs, int64_t toNs) const;

    // What was heard until this moment has been recorded.
    int64_t HeardUntilNs() const;

    // Frames of the latest cycle.
    size_t Quantum() const;

    // How many times the recording has missed a part of what was played.
    uint64_t Holes() const { return m_holes; }

private:
    struct Cycle
    {
        uint64_t firstFrame; // of the recording
        size_t frames;
        int64_t startNs;
        int64_t endNs; // when the next one began
        std::array<float, kGraphChannels> peaks;
    };

    void OnProcess() noexcept override;
    void Record(const float* samples, size_t frames, int64_t startNs, int64_t endNs) noexcept;

    const Cycle& At(uint64_t cycle) const { return m_cycles[cycle % m_cycles.size()]; }
    uint64_t FirstCycleAfter(int64_t ns) const;
    template <typename Visit>
    void VisitFrames(const Cycle& cycle, int64_t afterNs, Visit visit) const;

    std::vector<float> m_samples; // a ring, as the next one
    std::vector<Cycle> m_cycles;
    std::atomic<uint64_t> m_cycleCount{0}; // what it counts can be read
    std::atomic<uint64_t> m_holes{0};
    uint64_t m_frames = 0;   // these are the process callback's own: of the recording,
    uint64_t m_ticks = 0;    // of the graph at the last call,
    int64_t m_calledNs = 0;  // when that cycle began,
    size_t m_lastFrames = 0; // and how many it has brought
};
