// The output sink: takes interleaved 32-bit float frames from a playback worker and plays them
// through PipeWire.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

struct pw_context;
struct pw_core;
struct pw_stream;
struct pw_thread_loop;
struct spa_hook;
struct spa_source;

// One PipeWire playback stream with a byte queue in front of it. docs/sink.md tells how it works.
//
// Order of use: construct, Init, SetActive, then any number of PushBytes, QueuedSeconds,
// GetStreamTime, SetActive and Clear, then Destroy (or just destruction).
//
// Threads: Init and Destroy belong to one thread at a time and to nobody else meanwhile. Between
// them PushBytes belongs to one thread, the worker, and everything else to any: nothing needs a
// lock of its caller's, and nothing waits for the daemon. Before Init and after Destroy they do
// nothing, report an empty queue and fail.
//
// A daemon that goes away (a crash, an upgrade) is waited for without end: the sink keeps its
// queue, tries to connect again after 100 ms and then ever more rarely, up to every 2 s, and goes
// on where the queue stands. Where there is a daemon but nothing to play to, the sink plays as soon
// as there is.
//
// Its node in the graph is named "tovrel" and carries what desktops show and act on. The user may
// move it between devices and set its volume, and may say in the environment where it plays
// (PIPEWIRE_NODE), in which cycles (PIPEWIRE_LATENCY, PIPEWIRE_QUANTUM), and what else the node
// carries (PIPEWIRE_PROPS).
class PipeWirePlayer
{
public:
    // An idle sink: no PipeWire object exists, nothing is allocated.
    PipeWirePlayer();

    // As Destroy, which need not have been called.
    ~PipeWirePlayer();

    PipeWirePlayer(const PipeWirePlayer&) = delete;
    PipeWirePlayer& operator=(const PipeWirePlayer&) = delete;

    // Opens an inactive stream of `sampleRate` frames per second (1 to 768000) and `channels`
    // interleaved floats per frame (1 to 64, 32 at 768000; up to 8 get the usual speaker
    // positions). A sink that is open already is closed first. Blocks until the daemon has accepted
    // the stream: a few milliseconds, 2 s at the most. False on any failure, which leaves nothing
    // behind; a daemon must be there at this moment, a device need not.
    bool Init(int sampleRate, int channels);

    // Disconnects from the daemon and drops the queue. A few milliseconds; safe to repeat.
    void Destroy();

    // Starts or holds the stream. A held one takes nothing from the queue any more; one that goes
    // on takes from the graph's next cycle on, and a new one, with a library from 1.0 on, some 5 ms
    // after its first. Returns within a millisecond, or a few while a connection is made anew.
    void SetActive(bool active);

    // Drops the queue, and what waits in the stream's own buffers and its resampler. The cycle that
    // is under way is still heard and still counts in QueuedSeconds. Returns as soon as SetActive.
    void Clear();

    // Queues a copy of `size` bytes, which are whole interleaved frames, and returns at once. How
    // much is queued is the caller's affair, who asks QueuedSeconds. Throws std::bad_alloc where
    // there is no memory for a longer queue, which then is as it was.
    void PushBytes(const uint8_t* data, size_t size);

    // Bytes that PipeWire has not taken yet.
    size_t QueuedBytes() const;

    // Seconds of audio that have not been presented yet: the queue and what PipeWire has taken from
    // it but not played. Of the latter, what would bring the sum above 0.35 s counts up to 0.1 s
    // only, so that a device of great latency does not stop its callers from pushing. Callers treat
    // 0.02 s or less as played out and hold the stream then, which would cut a tail of just that
    // length; so the result stays above 0.02 s until the last frame has been presented, also while
    // the stream is held, and is 0 no more than one cycle later. What was on its way to a daemon
    // that is gone counts as presented.
    double QueuedSeconds() const;

    // Writes how many seconds of this stream's material have been presented since Init, by
    // PipeWire's clock and delays: it grows while frames are heard, stands still where none are (an
    // underrun, a daemon that is gone), leaves out what Clear discarded, and never goes back. While
    // the stream is held it keeps the value of that moment; the little that PipeWire had taken is
    // added when the stream goes on. `second`, where given, receives the seconds of audio that
    // PipeWire has taken and not yet presented. Either pointer may be null. False, with both
    // outputs untouched, as long as PipeWire has taken nothing.
    bool GetStreamTime(double* presentedSec, double* second) const;

    // Two quantities as PipeWire alone tells them, in seconds: for how long the graph that plays
    // this stream has been running, as of its last cycle, and how long a frame takes from this
    // stream to the device. The first goes on through silence, knows nothing of the queue, and
    // begins anew with a new daemon. Either pointer may be null. False, with both outputs
    // untouched, as long as PipeWire reports no clock for this stream.
    bool GetStreamTimePWOnly(double* presentedSec, double* second) const;

    // PipeWire's process callback, on its real-time thread, with the PipeWirePlayer as `userdata`:
    // fills one buffer from the queue, the rest of it with silence.
    static void OnProcess(void* userdata) noexcept;

    int SampleRate() const { return m_sampleRate; }
    int Channels() const { return m_channels; }

private:
    // A stretch of material that is heard without a break.
    struct Run
    {
        uint64_t firstFrame = 0; // counted in taken frames, as the next one
        uint64_t endFrame = 0;   // the first one behind it
        int64_t endNs = 0;       // monotonic time at which its last frame will have been heard
    };

    // The latest call of the process callback.
    struct Cycle
    {
        int64_t calledNs = 0;        // monotonic time of the call
        int64_t graphNs = 0;         // when the graph's cycle began, by its own clock
        int64_t lengthNs = 0;        // what was asked for in that cycle
        bool bAgain = false;         // there was a call in that cycle before
        int64_t delayNs = 0;         // from the stream to the device
        int64_t heardFromNs = 0;     // when the first frame of its buffer is heard
        uint64_t bufferedFrames = 0; // what waited in the stream and its resampler before it
    };

    // Moves up to `size` bytes from the head of the queue to `data`; returns how many.
    size_t PopBytes(uint8_t* data, size_t size) noexcept;

    bool Open();
    bool Connect() noexcept;
    void Disconnect() noexcept;
    void OnStateChanged() noexcept;
    void OnBroken() noexcept;
    void WakeInit() noexcept;
    void ReconnectLater() noexcept;
    void SetTimer(int64_t waitNs) noexcept;
    void OnTimer() noexcept;
    int64_t StallsInNs() const noexcept;

    void Flush() noexcept;
    void ReserveRoom(size_t size);
    uint64_t HeardFrames() const noexcept;
    void AddToRuns(uint64_t frames) noexcept;
    void ForgetBuffered() noexcept;
    void CountTakenAsHeard() noexcept;
    int64_t StreamNowNs() const noexcept;
    int64_t FramesToNs(uint64_t frames) const noexcept;
    uint64_t NsToFrames(int64_t ns) const noexcept;

    void FillBuffer() noexcept;
    void MeasureCycle() noexcept;

    int m_sampleRate = 0; // these three stay as they are from Init to Destroy
    int m_channels = 0;
    size_t m_bytesPerFrame = 0;

    // The connection. From Init to Destroy it is guarded by the lock of the loop, whose thread
    // replaces core and stream when the daemon was away. Only the process callback reads m_stream
    // without it, as it is called for no longer than that stream exists.
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook* m_streamListener = nullptr;

    // Guards m_audio, m_readPos and the fields from m_queuedBytes to m_heldSinceNs, which the
    // worker, the control thread and PipeWire's callback share. It is held to read or write these
    // fields, and by the callback to copy one buffer, never across an allocation or a call into
    // PipeWire. Taken inside the loop's lock, never the other way round.
    mutable std::mutex m_audioMutex;
    std::vector<unsigned char> m_audio; // a ring: its size is its capacity
    size_t m_readPos = 0;               // where the oldest queued byte stands in the ring
    bool m_initialized = false; // changes in Init and Destroy only, beside which nothing else runs

    size_t m_queuedBytes = 0;   // bytes of the ring that hold queued audio
    bool m_flushing = false;    // nothing may be taken until the stream has been flushed
    uint64_t m_takenFrames = 0; // frames of the queue that PipeWire has taken since Init
    // The latest runs: more breaks than this within the latency of a device are not told apart.
    std::array<Run, 8> m_runs{};
    size_t m_lastRun = 0;
    mutable uint64_t m_toldFrames = 0; // the furthest that GetStreamTime has told
    int64_t m_playedOutNs = 0;         // when all of the taken frames will have been presented
    Cycle m_cycle;
    int64_t m_linkedByNs = 0;  // nothing is taken before
    bool m_active = false;     // written under both locks, so that either will do for reading it
    int64_t m_heldSinceNs = 0; // while not active

    // More of the connection, under the same lock as the rest of it.
    spa_hook* m_coreListener = nullptr;
    spa_source* m_timer = nullptr; // of the next attempt to connect, or look at the stream
    int64_t m_connectedNs = 0;     // when the connection was made
    int m_retryWaitMs = 0;         // before the next attempt to connect
    bool m_broken = true;          // what there is of a connection is of no use
    int m_stalledLooks = 0;        // how many times in a row the stream was found not running
};
