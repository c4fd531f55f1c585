// The output sink: takes interleaved 32-bit float frames from a playback worker and plays them
// through PipeWire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

struct pw_context;
struct pw_core;
struct pw_stream;
struct pw_thread_loop;
struct spa_hook;

// One PipeWire playback stream with a byte queue in front of it.
//
// Order of use: construct, Init, SetActive, then any number of PushBytes, QueuedSeconds,
// GetStreamTime, SetActive and Clear, then Destroy (or just destruction).
//
// Threads: Init and Destroy belong to one thread at a time and to nobody else meanwhile. Between
// them one thread, the worker, calls PushBytes, QueuedBytes, QueuedSeconds and Clear, while any
// other may call SetActive, GetStreamTime and GetStreamTimePWOnly: none of them needs a lock of its
// caller's. Before Init and after Destroy they do nothing, report an empty queue and fail.
class PipeWirePlayer
{
public:
    // An idle sink: no PipeWire object exists, nothing is allocated.
    PipeWirePlayer();

    // Releases everything, whether Init succeeded or not and whether Destroy ran or not.
    ~PipeWirePlayer();

    PipeWirePlayer(const PipeWirePlayer&) = delete;
    PipeWirePlayer& operator=(const PipeWirePlayer&) = delete;

    // Opens an inactive stream of `sampleRate` frames per second (1 to 768000) and `channels`
    // interleaved floats per frame (1 to 64, 32 at 768000; up to 8 get the usual speaker
    // positions). A sink that is open already is closed first. Blocks until the daemon has accepted
    // the stream: a few milliseconds, 2 s at the most. False on any failure, which leaves nothing
    // behind.
    bool Init(int sampleRate, int channels);

    // Disconnects from the daemon and drops the queue. A few milliseconds; safe to repeat.
    void Destroy();

    // Starts or holds the stream; a held one takes nothing from the queue from the graph's next
    // cycle on. Takes well under a millisecond.
    void SetActive(bool active);

    // Discards all queued bytes. What PipeWire has taken of them is still heard and still counts in
    // QueuedSeconds.
    void Clear();

    // Appends `size` bytes of whole interleaved frames to the queue and returns at once. The queue
    // has no limit: callers pace themselves by QueuedSeconds.
    void PushBytes(const uint8_t* data, size_t size);

    // Bytes that PipeWire has not taken yet.
    size_t QueuedBytes() const;

    // Seconds of audio that have not been presented yet: the queue and what PipeWire has taken from
    // it but not played, of which no more than 0.1 s counts, so that a device of great latency does
    // not stop its callers from pushing. Callers treat 0.02 s or less as played out and hold the
    // stream then, which would cut a tail of just that length; so the result stays above 0.02 s
    // until the last frame has been presented, also while the stream is held, and is 0 from then
    // on.
    double QueuedSeconds() const;

    // Writes how many seconds of this stream's material have been presented since Init: it grows
    // with the clock while frames are heard, stands still where none are (inactive, underrun), and
    // leaves out what Clear discarded. `second`, where given, receives the seconds of audio that
    // PipeWire has taken and not yet presented. Either pointer may be null. False, with both
    // outputs untouched, as long as the stream has not run for one cycle.
    bool GetStreamTime(double* presentedSec, double* second) const;

    // The same two quantities as PipeWire alone tells them: the running time of the graph that
    // plays this stream, and the delay from this stream to the device, both in seconds. It goes on
    // through silence and knows nothing of the queue. False, with both outputs untouched, as long
    // as PipeWire reports no clock for this stream.
    bool GetStreamTimePWOnly(double* presentedSec, double* second) const;

    // PipeWire's process callback, on its real-time thread, with the PipeWirePlayer as `userdata`:
    // fills one buffer from the queue, the rest of it with silence.
    static void OnProcess(void* userdata) noexcept;

    int SampleRate() const { return m_sampleRate; }
    int Channels() const { return m_channels; }

private:
    // Moves up to `size` bytes from the head of the queue to `data`; returns how many.
    size_t PopBytes(uint8_t* data, size_t size) noexcept;

    bool Connect();
    bool AwaitConnected();
    void ReserveRoom(size_t size);
    void FillBuffer() noexcept;
    void MeasureLead() noexcept;
    int64_t FramesToNs(uint64_t frames) const noexcept;
    int64_t StreamNowNs() const;

    int m_sampleRate = 0;
    int m_channels = 0;
    size_t m_bytesPerFrame = 0;
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook* m_streamListener = nullptr;

    // Guards m_audio, m_readPos and the fields from m_queuedBytes to m_heldSinceNs, which the
    // worker, the control thread and PipeWire's callback share. It is held to move bytes and to
    // read or write these fields, never across an allocation or a call into PipeWire.
    mutable std::mutex m_audioMutex;
    std::vector<unsigned char> m_audio; // a ring: its size is its capacity
    size_t m_readPos = 0;               // where the oldest queued byte stands in the ring
    bool m_initialized = false;

    size_t m_queuedBytes = 0;   // bytes of the ring that hold queued audio
    uint64_t m_takenFrames = 0; // frames of the queue that PipeWire has taken since Init
    int64_t m_heardByNs = 0;    // monotonic time at which all of them will have been presented
    int64_t m_cycleNs = 0;      // length of the last cycle of the graph
    bool m_active = false;
    int64_t m_heldSinceNs = 0; // while not active

    int64_t m_leadNs = 0; // from taking a frame to hearing it; the process callback's own
};
