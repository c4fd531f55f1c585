// What the tests on a real daemon share: child processes, a recording of what the null sink plays,
// a signal in which every frame is told from every other, and the comparison of the two.
#pragma once

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

class TovrelAudioPlayer;
struct pw_context;
struct pw_stream;
struct pw_thread_loop;
struct spa_hook;

constexpr int kSinkRate = 48000;         // of the null sink and its recordings
constexpr int kSinkChannels = 2;         // of the same
constexpr size_t kQuantum = 1024;        // frames of a graph cycle, unless a test forces another
constexpr size_t kIndexLimit = 1u << 23; // of the indexed signal, in frames

// --- Waiting ------------------------------------------------------------------------------------

// The slack is what an operation that "returns at once" or "within 2 s" is given beyond that, the
// patience is the end of every wait for something that takes milliseconds on an idle machine. Busy
// machines are slow, and sanitizers make them slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::chrono::milliseconds kSlack{5000};
constexpr std::chrono::seconds kPatience{25};
#else
constexpr std::chrono::milliseconds kSlack{1500};
constexpr std::chrono::seconds kPatience{10};
#endif

void SleepMs(int milliseconds);

// False when the condition has not come true within `kPatience`. It is looked at now and then only:
// a test program that wakes often takes the graph's time on a busy machine and makes it drop
// cycles.
constexpr int kRarelyMs = 20;
constexpr int kOftenMs = 1;
[[nodiscard]] bool WaitUntil(const std::function<bool()>& condition, int everyMs = kRarelyMs);

// For how long the machine has kept a thread of this process from running that was ready to. On
// each processor one that does nothing but sleep tells.
class ProcessorWatch
{
public:
    ProcessorWatch();
    ~ProcessorWatch();
    ProcessorWatch(const ProcessorWatch&) = delete;
    ProcessorWatch& operator=(const ProcessorWatch&) = delete;

    std::chrono::milliseconds LongestWait() const;

private:
    void Watch(size_t processor);

    std::atomic<bool> m_bEnds{false};
    std::atomic<int64_t> m_longestMs{0};
    std::vector<std::thread> m_threads;
};

// How long one call takes.
std::chrono::milliseconds DurationOf(const std::function<void()>& call);

// --- Processes and files ------------------------------------------------------------------------

// A file in the runtime directory of this case's daemon, which is removed after the case.
std::string RuntimePath(const std::string& name);

class ChildProcess
{
public:
    // Starts a program from the search path; its standard output goes to a file.
    explicit ChildProcess(const std::vector<std::string>& arguments,
                          const std::string& outputPath = "/dev/null");
    ~ChildProcess(); // kills it if nobody has waited for it
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int Wait(); // its exit status, -1 when it did not exit by itself
    void End(int signal);

private:
    pid_t m_pid = -1;
    int m_status = -1;
};

// Runs a program to its end and returns what it wrote; fails the test if it did.
std::string OutputOf(const std::vector<std::string>& arguments);

// Runs the ffmpeg program with these arguments, overwriting its output.
void RunFfmpeg(std::vector<std::string> arguments);

std::vector<float> ReadFloats(const std::string& path);
void WriteFloats(const std::string& path, const std::vector<float>& samples);

// --- The daemon ---------------------------------------------------------------------------------

// The process behind the daemon's socket.
pid_t DaemonPid();

// Stops the daemon (SIGSTOP) for the life of the object: it answers nothing meanwhile.
class StoppedDaemon
{
public:
    StoppedDaemon();
    ~StoppedDaemon();
    StoppedDaemon(const StoppedDaemon&) = delete;
    StoppedDaemon& operator=(const StoppedDaemon&) = delete;

private:
    pid_t m_pid;
};

// Whether the daemon was late, or one of its clients, so that it may have dropped sound on the way
// from the clients to the sink. Its log tells.
bool DaemonDroppedCycles();

// Kills the daemon (SIGKILL) and returns when it is gone; its session manager ends with it.
void KillDaemon();

// Ends the session manager (SIGTERM) and returns when it is gone. The daemon goes on.
void EndSessionManager();

// A daemon or a session manager in the place of one that is gone. They end with the object.
class NewDaemon
{
public:
    NewDaemon(); // with the null sink; returns when it takes connections

private:
    ChildProcess m_process;
};

class NewSessionManager
{
public:
    NewSessionManager(); // returns at once: a sink that it knows of has a default
                         // (AwaitDefaultSink)

private:
    ChildProcess m_process;
};

// Keeps daemons that start from now on from the engine, whose sinks look where the daemon always
// is: the recordings and programs of the tests know of another door.
class BackDoor
{
public:
    BackDoor();
    ~BackDoor();
    BackDoor(const BackDoor&) = delete;
    BackDoor& operator=(const BackDoor&) = delete;

    // Lets the engine's sinks in, too.
    void OpenFront();
};

// Null sinks beside, or in the place of, the one that is there from the start.
void CreateSink(const std::string& name);
void DestroySink(const std::string& name);

// Returns when the session manager has made this the sink that streams go to.
void AwaitDefaultSink(const std::string& name);

// The id of the node of this name, 0 where there is none, and what the daemon tells of it.
uint32_t NodeId(const std::string& name);
std::map<std::string, std::string> NodeProperties(const std::string& name);

// Lets PipeWire look for its daemon in another directory for the life of the object.
class OtherRuntimeDirectory
{
public:
    OtherRuntimeDirectory(); // an empty one
    ~OtherRuntimeDirectory();
    OtherRuntimeDirectory(const OtherRuntimeDirectory&) = delete;
    OtherRuntimeDirectory& operator=(const OtherRuntimeDirectory&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    std::string m_previous;
};

// A socket where the daemon's would be, which lets clients connect and never says a word.
class MuteDaemon
{
public:
    MuteDaemon();
    ~MuteDaemon();
    MuteDaemon(const MuteDaemon&) = delete;
    MuteDaemon& operator=(const MuteDaemon&) = delete;

    int Socket() const { return m_socket; }

private:
    OtherRuntimeDirectory m_directory;
    int m_socket = -1;
};

// Sets the length of the graph's cycle, in frames, and the graph's rate.
void ForceQuantum(size_t frames);
void ForceRate(int rate);

// How many nodes of the engine's the daemon knows.
size_t EngineNodeCount();

// --- Resources of this process ------------------------------------------------------------------

struct Resources
{
    size_t threads = 0;
    size_t descriptors = 0;

    static Resources Now();
    bool operator==(const Resources&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Resources& resources);

// Whether a thread of this process may be given real-time priority.
bool MayRunInRealTime();

// Whether a graph with cycles of so many frames drops none by itself.
bool MayRunAtQuantum(size_t frames);

// Opens and closes one sink, so that what the libraries keep for good is there before a count.
void WarmUpLibraries();

// Whether the process comes back to these resources; threads may take a moment to disappear.
testing::AssertionResult ComesBackTo(const Resources& before);

// --- The recording ------------------------------------------------------------------------------

// A context whose streams are given real-time priority, so that a busy machine does not keep them
// from their cycles.
pw_context* NewRealTimeContext(pw_thread_loop* loop);

// Records a sink's monitor: stereo, and at the graph's own rate bit for bit what the sink was
// given. The frames are taken on PipeWire's real-time thread, so that a busy machine loses none of
// them here.
class MonitorRecording
{
public:
    // One cycle of the graph. The monitor passes on in each what the sink was given in the one
    // before: the frames recorded in a cycle that begins at `graphNs` were heard until then.
    struct Cycle
    {
        size_t endFrame; // of the recording, by the end of the cycle
        int64_t graphNs; // when the cycle began, monotonic, by the graph's clock
        uint64_t ticks;  // the graph's position then, in frames
    };

    // Returns when frames are arriving.
    explicit MonitorRecording(const std::string& sink = "null-sink", int rate = kSinkRate);
    ~MonitorRecording();
    MonitorRecording(const MonitorRecording&) = delete;
    MonitorRecording& operator=(const MonitorRecording&) = delete;

    // How many frames have been recorded: what is played from now on stands behind them.
    size_t Now() const { return m_frames; }

    // Returns when this many more have been recorded.
    void AwaitMore(size_t frames) const;

    // Returns when the last frame recorded is sound. A new stream is not heard before the session
    // manager has linked it, which on a busy machine takes any time.
    void AwaitSound() const;

    // Returns when the last frame recorded is one of these [first, end) of the indexed signal.
    void AwaitIndexed(size_t first, size_t end = kIndexLimit) const;

    // Returns when the last so many frames recorded are silence.
    void AwaitSilence(size_t frames) const;

    // Records on until what has been played by now is recorded, ends, and returns all the samples.
    std::vector<float> Finish(size_t tailFrames = 4 * kQuantum);

    // All cycles that were recorded, after Finish.
    const std::vector<Cycle>& Cycles() const { return m_cycles; }

    // Whether any recording of this process missed a cycle of the graph, by the graph's own clock.
    static bool AnyMissedCycles();

    // Whether this process has recorded at all.
    static bool AnyRecorded();

private:
    void Open(const std::string& sink, int rate);
    void Close();
    void TakeBuffer() noexcept;
    size_t SilentFramesAtEnd() const;

    // The channels of a stream are linked one after the other: in its first cycles, which are left
    // out, it may get only some of them.
    int m_linkingCycles = 2;
    std::vector<float> m_samples; // has its full size from the start
    std::vector<Cycle> m_cycles;  // has its full capacity from the start
    std::atomic<size_t> m_frames{0};
    uint64_t m_nextTicks = 0; // when the next buffer should start; the process callback's own
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook* m_listener = nullptr;
};

// --- The indexed signal -------------------------------------------------------------------------

// Stereo frames in which every frame carries its index: none is silent, no two are the same, all
// are exact in a float and small enough to pass a mix unclipped. Indices run to kIndexLimit.
std::vector<float> IndexedFrames(size_t first, size_t count);

// What a recording holds of such frames.
struct Heard
{
    size_t first = 0, count = 0; // the frames that were looked for
    size_t missingAtStart = 0;
    size_t missingAtEnd = 0;
    size_t lostBetween = 0;
    size_t firstLost = 0; // the index of the first of these
    size_t repeated = 0;
    size_t outOfOrder = 0;           // frames that came after a later one
    size_t altered = 0;              // frames that are neither silent nor of the signal
    size_t foreign = 0;              // frames of the signal that were not looked for
    size_t gaps = 0;                 // runs of silence between the first frame and the last
    size_t longestGap = 0;           // frames
    std::vector<uint32_t> indices;   // all that were heard, in their order
    std::vector<uint32_t> positions; // where in the recording, in frames
};
std::ostream& operator<<(std::ostream& out, const Heard& heard);

// Looks for the frames [first, first + count) in a recording, and prints what is missing.
Heard FindIndexed(const std::vector<float>& recording, size_t first, size_t count);

// Every frame, in order, once, unaltered. Silence may stand anywhere between: the daemon inserts a
// cycle of it when a busy machine makes a client late.
testing::AssertionResult IsComplete(const Heard& heard);

// --- Other material -----------------------------------------------------------------------------

// A constant signal tells by its sum how much of it was heard, whatever a resampler does to its
// borders and wherever silence stands in it.
constexpr float kConstant = 0.25f;
std::vector<float> ConstantFrames(size_t frames, float level = kConstant);

constexpr double Seconds(size_t frames, int rate = kSinkRate)
{
    return static_cast<double>(frames) / rate;
}

// Whether the recording holds these stereo frames in order, each within `tolerance`, but for up to
// `mayMissAtEnd` frames at their end, with silence allowed anywhere between and around them.
testing::AssertionResult HoldsInOrder(const std::vector<float>& recording,
                                      const std::vector<float>& expected, float tolerance,
                                      size_t mayMissAtEnd = 0);

// The sum over one channel: how much of a constant signal was heard, wherever silence stands in it.
double SumOfChannel(const std::vector<float>& recording, size_t channel);

// --- The sink and the player --------------------------------------------------------------------

// An open, active sink.
class RunningSink : public PipeWirePlayer
{
public:
    explicit RunningSink(int sampleRate = kSinkRate, int channels = kSinkChannels)
    {
        EXPECT_TRUE(Init(sampleRate, channels));
        SetActive(true);
    }
};

void PushFrames(PipeWirePlayer& sink, const std::vector<float>& samples);

// Lets the queue play to its end as the playback workers do, and deactivates the sink then.
[[nodiscard]] bool DrainAsWorkersDo(PipeWirePlayer& sink);

// Whether the player has opened its sink and pushed to it. Its position would not tell: it runs
// from the start.
[[nodiscard]] bool WaitForOutput(const TovrelAudioPlayer& player);

// Whether the playback has come to its end by itself.
[[nodiscard]] bool WaitForEnd(const TovrelAudioPlayer& player, int everyMs = kRarelyMs);
