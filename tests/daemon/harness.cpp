#include "harness.h"

#include "tovrel_audio_player.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace
{

constexpr size_t kBytesPerFrame = kSinkChannels * sizeof(float);
constexpr size_t kPrintedBreaks = 8;

// A failure of the machinery that leaves nothing to go on with: the case ends here.
[[noreturn]] void GiveUp(const std::string& what)
{
    throw std::runtime_error(what);
}

std::string ReadFile(const std::string& path)
{
    // Of a process that ends meanwhile the reading itself fails: that counts as no file.
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

size_t EntriesOf(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

void EndProcess(pid_t process, int signal)
{
    kill(process, signal);
    // It stays a zombie until whoever started it waits for it.
    const auto bGone = [&]
    {
        const std::string stat = ReadFile("/proc/" + std::to_string(process) + "/stat");
        return stat.empty() || stat.find(") Z ") != std::string::npos;
    };
    if (!WaitUntil(bGone))
        GiveUp("a process survives its signal");
}

constexpr const char* kFront = "pipewire-0"; // the daemon's socket in the runtime directory
constexpr const char* kBack = "pipewire-back";
const char* door = kFront; // through which the tests reach the daemon

sockaddr_un SocketAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        GiveUp("a socket's path is too long: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// The process that listens on the daemon's socket, or 0: it is known to those who connect to it.
// The socket's file alone says little, since it is there before anybody listens.
pid_t ListenerPid()
{
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = SocketAddress(RuntimePath(door));
    ucred daemon{};
    socklen_t size = sizeof daemon;
    const bool bKnown =
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        getsockopt(client, SOL_SOCKET, SO_PEERCRED, &daemon, &size) == 0;
    close(client);
    return bKnown ? daemon.pid : 0;
}

} // namespace

// ------------------------------------------------------------------------------------------------
// Waiting

void SleepMs(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool WaitUntil(const std::function<bool()>& condition, int everyMs)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        SleepMs(everyMs);
    }
    return true;
}

ProcessorWatch::ProcessorWatch()
{
    cpu_set_t usable;
    CPU_ZERO(&usable);
    sched_getaffinity(0, sizeof usable, &usable);
    for (size_t processor = 0; processor < CPU_SETSIZE; ++processor)
        if (CPU_ISSET(processor, &usable))
            m_threads.emplace_back(&ProcessorWatch::Watch, this, processor);
}

ProcessorWatch::~ProcessorWatch()
{
    m_bEnds = true;
    for (std::thread& thread : m_threads)
        thread.join();
}

std::chrono::milliseconds ProcessorWatch::LongestWait() const
{
    return std::chrono::milliseconds(m_longestMs);
}

void ProcessorWatch::Watch(size_t processor)
{
    constexpr std::chrono::milliseconds kSleep{50};
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    sched_setaffinity(0, sizeof one, &one);
    while (!m_bEnds)
    {
        const auto due = std::chrono::steady_clock::now() + kSleep;
        std::this_thread::sleep_until(due);
        const auto late = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - due);
        int64_t longest = m_longestMs;
        while (late.count() > longest && !m_longestMs.compare_exchange_weak(longest, late.count()))
        {
        }
    }
}

std::chrono::milliseconds DurationOf(const std::function<void()>& call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

// ------------------------------------------------------------------------------------------------
// Processes and files

std::string RuntimePath(const std::string& name)
{
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    return std::string(directory ? directory : "") + "/" + name;
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& outputPath)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int rc = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        GiveUp(arguments[0] + " does not start: " + std::strerror(rc));
}

ChildProcess::~ChildProcess()
{
    End(SIGKILL);
}

void ChildProcess::End(int signal)
{
    if (m_pid < 0)
        return;
    kill(m_pid, signal);
    Wait();
}

int ChildProcess::Wait()
{
    if (m_pid > 0)
    {
        while (waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR)
        {
        }
        m_pid = -1;
    }
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
}

std::string OutputOf(const std::vector<std::string>& arguments)
{
    const std::string path = RuntimePath("output");
    std::vector<std::string> command = {"env", std::string("PIPEWIRE_REMOTE=") + door};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess child(command, path);
    EXPECT_EQ(child.Wait(), 0) << arguments[0];
    return ReadFile(path);
}

void RunFfmpeg(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {"ffmpeg", "-nostdin", "-y", "-v", "error"});
    ASSERT_EQ(ChildProcess(arguments).Wait(), 0) << arguments.back();
}

std::vector<float> ReadFloats(const std::string& path)
{
    const std::string bytes = ReadFile(path);
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

void WriteFloats(const std::string& path, const std::vector<float>& samples)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(samples.data()),
               static_cast<std::streamsize>(samples.size() * sizeof(float)));
    ASSERT_TRUE(file.flush()) << path;
}

// ------------------------------------------------------------------------------------------------
// The daemon

pid_t DaemonPid()
{
    const pid_t daemon = ListenerPid();
    if (daemon <= 0)
        GiveUp("the daemon's process is not known");
    return daemon;
}

StoppedDaemon::StoppedDaemon() : m_pid(DaemonPid())
{
    kill(m_pid, SIGSTOP);
}

StoppedDaemon::~StoppedDaemon()
{
    kill(m_pid, SIGCONT);
}

bool DaemonDroppedCycles()
{
    const std::string log = ReadFile(RuntimePath("pipewire.log"));
    return log.find("graph not finished") != std::string::npos ||
           log.find("client missed") != std::string::npos || log.find("XRun!") != std::string::npos;
}

void KillDaemon()
{
    EndProcess(DaemonPid(), SIGKILL);
    std::filesystem::remove(RuntimePath(kFront));
}

void EndSessionManager()
{
    // The one that ran last, who wrote down its process.
    EndProcess(std::stoi(ReadFile(RuntimePath("wireplumber.pid"))), SIGTERM);
}

NewDaemon::NewDaemon() :
    m_process({"sh", "-c",
               "PIPEWIRE_CONFIG_DIR='" TOVREL_SCRIPTS "' PIPEWIRE_DEBUG=pw.node:4 PIPEWIRE_CORE=" +
                   std::string(door) + " exec pipewire -c null-sink.conf 2>>'" +
                   RuntimePath("pipewire.log") + "'"})
{
    if (!WaitUntil([] { return ListenerPid() > 0; }, kOftenMs))
        GiveUp("no new daemon");
}

NewSessionManager::NewSessionManager() :
    m_process({"sh", "-c",
               "cd '" + RuntimePath("") +
                   "' && echo $$ >wireplumber.pid && DBUS_SESSION_BUS_ADDRESS=unix:path=$PWD/bus "
                   "PIPEWIRE_REMOTE=" +
                   door + " exec wireplumber 2>>wireplumber.log"})
{
}

BackDoor::BackDoor()
{
    door = kBack;
}

BackDoor::~BackDoor()
{
    door = kFront;
}

void BackDoor::OpenFront()
{
    std::filesystem::create_symlink(kBack, RuntimePath(kFront));
    door = kFront;
}

void CreateSink(const std::string& name)
{
    OutputOf({"pw-cli", "create-node", "adapter",
              "{ factory.name=support.null-audio-sink media.class=Audio/Sink node.name=" + name +
                  " object.linger=true audio.position=[ FL FR ] monitor.channel-volumes=true"
                  " monitor.passthrough=true }"});
    if (!WaitUntil([&] { return NodeId(name) != 0; }))
        GiveUp("no sink " + name);
}

void DestroySink(const std::string& name)
{
    OutputOf({"pw-cli", "destroy", std::to_string(NodeId(name))});
    if (!WaitUntil([&] { return NodeId(name) == 0; }))
        GiveUp("the sink " + name + " stays");
}

void AwaitDefaultSink(const std::string& name)
{
    const auto bDefault = [&]
    {
        return OutputOf({"pw-metadata", "0", "default.audio.sink"}).find('"' + name + '"') !=
               std::string::npos;
    };
    if (!WaitUntil(bDefault))
        GiveUp(name + " does not become the default sink");
}

uint32_t NodeId(const std::string& name)
{
    // "	id 33, type PipeWire:Interface:Node/3" and then its properties.
    std::istringstream nodes(OutputOf({"pw-cli", "ls", "Node"}));
    uint32_t id = 0;
    for (std::string line; std::getline(nodes, line);)
    {
        std::sscanf(line.c_str(), " id %u,", &id);
        if (line.find("node.name = \"" + name + "\"") != std::string::npos)
            return id;
    }
    return 0;
}

std::map<std::string, std::string> NodeProperties(const std::string& name)
{
    // "*		media.type = "Audio"", among much else.
    std::istringstream lines(OutputOf({"pw-cli", "info", std::to_string(NodeId(name))}));
    std::map<std::string, std::string> properties;
    for (std::string line; std::getline(lines, line);)
    {
        const size_t equals = line.find(" = \"");
        const size_t key = line.find_first_not_of("*\t ");
        if (equals != std::string::npos && key < equals && line.back() == '"')
            properties[line.substr(key, equals - key)] =
                line.substr(equals + 4, line.size() - equals - 5);
    }
    return properties;
}

OtherRuntimeDirectory::OtherRuntimeDirectory() :
    m_path(RuntimePath("other-XXXXXX")), m_previous(RuntimePath(""))
{
    m_previous.pop_back();
    if (!mkdtemp(m_path.data()))
        GiveUp("no directory " + m_path);
    setenv("XDG_RUNTIME_DIR", m_path.c_str(), 1);
    setenv("PIPEWIRE_RUNTIME_DIR", m_path.c_str(), 1);
}

OtherRuntimeDirectory::~OtherRuntimeDirectory()
{
    setenv("XDG_RUNTIME_DIR", m_previous.c_str(), 1);
    setenv("PIPEWIRE_RUNTIME_DIR", m_previous.c_str(), 1);
}

MuteDaemon::MuteDaemon() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_un address = SocketAddress(m_directory.Path() + "/" + kFront);
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_socket, 8) != 0)
        GiveUp(std::string("no socket in ") + m_directory.Path());
}

MuteDaemon::~MuteDaemon()
{
    close(m_socket);
}

void ForceQuantum(size_t frames)
{
    OutputOf({"pw-metadata", "-n", "settings", "0", "clock.force-quantum", std::to_string(frames)});
}

// The daemon forces no rate that it does not allow, and allows none without its own.
void ForceRate(int rate)
{
    const std::string allowed =
        "[ " + std::to_string(kSinkRate) + ", " + std::to_string(rate) + " ]";
    OutputOf({"pw-metadata", "-n", "settings", "0", "clock.allowed-rates", allowed});
    OutputOf({"pw-metadata", "-n", "settings", "0", "clock.force-rate", std::to_string(rate)});
}

size_t EngineNodeCount()
{
    const std::string nodes = OutputOf({"pw-cli", "ls", "Node"});
    size_t count = 0;
    for (size_t at = nodes.find("node.name = \"tovrel\""); at != std::string::npos;
         at = nodes.find("node.name = \"tovrel\"", at + 1))
        ++count;
    return count;
}

// ------------------------------------------------------------------------------------------------
// Resources of this process

Resources Resources::Now()
{
    return {EntriesOf("/proc/self/task"), EntriesOf("/proc/self/fd")};
}

std::ostream& operator<<(std::ostream& out, const Resources& resources)
{
    return out << resources.threads << " threads, " << resources.descriptors << " descriptors";
}

bool MayRunInRealTime()
{
    bool bMay = false;
    std::thread(
        [&]
        {
            sched_param priority{};
            priority.sched_priority = 1;
            bMay = sched_setscheduler(0, SCHED_FIFO, &priority) == 0;
        })
        .join();
    return bMay;
}

bool MayRunAtQuantum(size_t frames)
{
    constexpr size_t kShortestWithoutPriority = 256;
    return frames >= kShortestWithoutPriority || MayRunInRealTime();
}

void WarmUpLibraries()
{
    PipeWirePlayer sink;
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
}

testing::AssertionResult ComesBackTo(const Resources& before)
{
    if (WaitUntil([&] { return Resources::Now() == before; }))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << Resources::Now() << " instead of " << before;
}

// ------------------------------------------------------------------------------------------------
// The recording

namespace
{

constexpr size_t kLongestRecording = 60 * kSinkRate; // frames, longer than a case may take
constexpr size_t kMostCycles = kLongestRecording / 32;

std::atomic<bool> bAnyRecorded{false};
std::atomic<bool> bAnyMissedCycles{false};

} // namespace

pw_context* NewRealTimeContext(pw_thread_loop* loop)
{
    // The configuration that gives the priority, in the versions that have it.
    pw_properties* properties =
        std::filesystem::exists("/usr/share/pipewire/client-rt.conf")
            ? pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr)
            : nullptr;
    return pw_context_new(pw_thread_loop_get_loop(loop), properties, 0);
}

MonitorRecording::MonitorRecording(const std::string& sink, int rate) :
    m_samples(kLongestRecording * kSinkChannels)
{
    bAnyRecorded = true;
    m_cycles.reserve(kMostCycles);
    Open(sink, rate);
    if (!WaitUntil([&] { return Now() > 0; }))
        GiveUp("the recording of the monitor does not start");
}

MonitorRecording::~MonitorRecording()
{
    Close();
}

void MonitorRecording::Open(const std::string& sink, int rate)
{
    pw_init(nullptr, nullptr);
    m_loop = pw_thread_loop_new("recording", nullptr);
    m_context = NewRealTimeContext(m_loop);
    pw_core* core =
        pw_context_connect(m_context, pw_properties_new(PW_KEY_REMOTE_NAME, door, nullptr), 0);
    if (!core || pw_thread_loop_start(m_loop) < 0)
        GiveUp("the recording has no daemon");

    static const pw_stream_events kEvents = []
    {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.process = [](void* recording)
        {
            static_cast<MonitorRecording*>(recording)->TakeBuffer();
        };
        return events;
    }();
    pw_thread_loop_lock(m_loop);
    m_stream = pw_stream_new(core, "Recording",
                             pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY,
                                               "Capture", PW_KEY_NODE_NAME, "recording",
                                               PW_KEY_TARGET_OBJECT, sink.c_str(),
                                               PW_KEY_STREAM_CAPTURE_SINK, "true", nullptr));
    m_listener = new spa_hook{};
    pw_stream_add_listener(m_stream, m_listener, &kEvents, this);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = static_cast<uint32_t>(rate);
    info.channels = kSinkChannels;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    std::array<uint8_t, 1024> podBuffer;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, podBuffer.data(), podBuffer.size());
    const spa_pod* params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
    pw_stream_connect(m_stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, params, 1);
    pw_thread_loop_unlock(m_loop);
}

void MonitorRecording::Close()
{
    if (!m_loop)
        return;
    pw_thread_loop_stop(m_loop);
    if (m_stream)
        pw_stream_destroy(m_stream);
    if (m_context)
        pw_context_destroy(m_context);
    pw_thread_loop_destroy(m_loop);
    delete m_listener;
    m_listener = nullptr;
    m_stream = nullptr;
    m_context = nullptr;
    m_loop = nullptr;
}

void MonitorRecording::TakeBuffer() noexcept
{
    pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
    if (!buffer)
        return;
    if (m_linkingCycles > 0)
    {
        --m_linkingCycles;
        pw_stream_queue_buffer(m_stream, buffer);
        return;
    }
    pw_time time{};
    pw_stream_get_time_n(m_stream, &time, sizeof time);
    const spa_data& data = buffer->buffer->datas[0];
    const size_t recorded = m_frames;
    const size_t frames =
        std::min<size_t>(data.chunk->size / kBytesPerFrame, kLongestRecording - recorded);
    if (data.data && frames > 0)
    {
        if (recorded > 0 && time.ticks != m_nextTicks)
            bAnyMissedCycles = true;
        m_nextTicks = time.ticks + frames;
        std::memcpy(m_samples.data() + recorded * kSinkChannels,
                    static_cast<const uint8_t*>(data.data) + data.chunk->offset,
                    frames * kBytesPerFrame);
        if (m_cycles.size() < m_cycles.capacity())
            m_cycles.push_back({recorded + frames, time.now, time.ticks});
        m_frames = recorded + frames;
    }
    pw_stream_queue_buffer(m_stream, buffer);
}

bool MonitorRecording::AnyMissedCycles()
{
    return bAnyMissedCycles;
}

bool MonitorRecording::AnyRecorded()
{
    return bAnyRecorded;
}

void MonitorRecording::AwaitMore(size_t frames) const
{
    const size_t wanted = Now() + frames;
    if (!WaitUntil([&] { return Now() >= wanted; }))
        GiveUp("the recording of the monitor does not run");
}

void MonitorRecording::AwaitSound() const
{
    if (!WaitUntil([&] { return SilentFramesAtEnd() == 0; }))
        GiveUp("no sound is recorded");
}

void MonitorRecording::AwaitIndexed(size_t first, size_t end) const
{
    const float least = IndexedFrames(first, 1).front();
    const float most = IndexedFrames(end - 1, 1).front();
    const auto bHeard = [&]
    {
        const size_t frames = Now();
        const float last = frames > 0 ? m_samples[(frames - 1) * kSinkChannels] : 0.0f;
        return last >= least && last <= most;
    };
    if (!WaitUntil(bHeard))
        GiveUp("the frame is not recorded");
}

void MonitorRecording::AwaitSilence(size_t frames) const
{
    if (!WaitUntil([&] { return SilentFramesAtEnd() >= frames; }))
        GiveUp("no silence is recorded");
}

size_t MonitorRecording::SilentFramesAtEnd() const
{
    const size_t samples = Now() * kSinkChannels;
    size_t silent = 0;
    while (silent < samples && m_samples[samples - 1 - silent] == 0.0f)
        ++silent;
    return silent / kSinkChannels;
}

std::vector<float> MonitorRecording::Finish(size_t tailFrames)
{
    AwaitMore(tailFrames);
    Close();
    m_samples.resize(m_frames * kSinkChannels);
    return std::move(m_samples);
}

// ------------------------------------------------------------------------------------------------
// The indexed signal

std::vector<float> IndexedFrames(size_t first, size_t count)
{
    if (first + count > kIndexLimit)
        GiveUp("the indexed signal is not that long");
    std::vector<float> samples;
    samples.reserve(count * kSinkChannels);
    for (size_t index = first; index < first + count; ++index)
    {
        const float value = static_cast<float>(index + 1) / static_cast<float>(kIndexLimit);
        samples.push_back(value);
        samples.push_back(-value);
    }
    return samples;
}

Heard FindIndexed(const std::vector<float>& recording, size_t first, size_t count)
{
    Heard heard;
    heard.first = first;
    heard.count = count;
    std::vector<bool> wasHeard(count);
    size_t latest = 0;
    size_t silence = 0;
    for (size_t frame = 0; frame < recording.size() / kSinkChannels; ++frame)
    {
        const float left = recording[frame * kSinkChannels];
        const float right = recording[frame * kSinkChannels + 1];
        if (left == 0.0f && right == 0.0f)
        {
            ++silence;
            continue;
        }
        const double scaled = static_cast<double>(left) * static_cast<double>(kIndexLimit);
        if (left != -right || scaled < 1.0 || scaled != std::floor(scaled))
        {
            ++heard.altered;
            continue;
        }
        const size_t index = static_cast<size_t>(scaled) - 1;
        heard.outOfOrder += index < latest ? 1 : 0;
        latest = std::max(latest, index);
        if (!heard.indices.empty() && silence > 0)
        {
            ++heard.gaps;
            heard.longestGap = std::max(heard.longestGap, silence);
        }
        silence = 0;
        heard.indices.push_back(static_cast<uint32_t>(index));
        heard.positions.push_back(static_cast<uint32_t>(frame));
        if (index < first || index >= first + count)
            ++heard.foreign;
        else if (wasHeard[index - first])
            ++heard.repeated;
        else
            wasHeard[index - first] = true;
    }

    const auto firstHeard = std::find(wasHeard.begin(), wasHeard.end(), true);
    const auto lastHeard = std::find(wasHeard.rbegin(), wasHeard.rend(), true);
    heard.missingAtStart = static_cast<size_t>(firstHeard - wasHeard.begin());
    heard.missingAtEnd = static_cast<size_t>(lastHeard - wasHeard.rbegin());
    if (firstHeard != wasHeard.end())
    {
        heard.lostBetween = static_cast<size_t>(std::count(firstHeard, lastHeard.base(), false));
        heard.firstLost =
            first +
            static_cast<size_t>(std::find(firstHeard, lastHeard.base(), false) - wasHeard.begin());
    }
    std::cout << heard << std::endl;
    return heard;
}

std::ostream& operator<<(std::ostream& out, const Heard& heard)
{
    out << "of " << heard.count << " frames: missing at start " << heard.missingAtStart
        << ", missing at end " << heard.missingAtEnd << ", lost between " << heard.lostBetween;
    if (heard.lostBetween > 0)
        out << " (the first is " << heard.firstLost << ")";
    out << ", repeated " << heard.repeated << ", out of order " << heard.outOfOrder << ", altered "
        << heard.altered << ", foreign " << heard.foreign << "; silences " << heard.gaps
        << ", the longest " << heard.longestGap << " frames";
    // Where the sequence breaks: the frame before, the frame after, what stood between.
    size_t breaks = 0;
    for (size_t at = 1; at < heard.indices.size() && breaks < kPrintedBreaks; ++at)
    {
        if (heard.indices[at] == heard.indices[at - 1] + 1)
            continue;
        ++breaks;
        out << "\n  " << heard.indices[at - 1] << " -> " << heard.indices[at] << " after "
            << heard.positions[at] - heard.positions[at - 1] - 1 << " other frames, at "
            << heard.positions[at];
    }
    return out;
}

testing::AssertionResult IsComplete(const Heard& heard)
{
    const bool bComplete = heard.missingAtStart == 0 && heard.missingAtEnd == 0 &&
                           heard.lostBetween == 0 && heard.repeated == 0 && heard.outOfOrder == 0 &&
                           heard.altered == 0 && heard.foreign == 0;
    return (bComplete ? testing::AssertionSuccess() : testing::AssertionFailure()) << heard;
}

// ------------------------------------------------------------------------------------------------
// Other material

testing::AssertionResult HoldsInOrder(const std::vector<float>& recording,
                                      const std::vector<float>& expected, float tolerance,
                                      size_t mayMissAtEnd)
{
    const size_t frames = expected.size() / kSinkChannels;
    size_t next = 0; // of the expected frames
    float worst = 0.0f;
    for (size_t at = 0; at < recording.size() / kSinkChannels; ++at)
    {
        const float* heard = &recording[at * kSinkChannels];
        const bool bSilent = heard[0] == 0.0f && heard[1] == 0.0f;
        if (next == frames)
        {
            if (!bSilent)
                return testing::AssertionFailure() << "sound after the end, at frame " << at;
            continue;
        }
        const float* wanted = &expected[next * kSinkChannels];
        if (bSilent && (wanted[0] != 0.0f || wanted[1] != 0.0f))
            continue;
        const float difference =
            std::max(std::fabs(heard[0] - wanted[0]), std::fabs(heard[1] - wanted[1]));
        if (difference > tolerance)
            return testing::AssertionFailure()
                   << "frame " << next << " of " << frames << " is " << heard[0] << " " << heard[1]
                   << " instead of " << wanted[0] << " " << wanted[1] << " (frame " << at
                   << " of the recording)";
        worst = std::max(worst, difference);
        ++next;
    }
    std::cout << "of " << frames << " frames: missing at start 0, missing at end " << frames - next
              << ", greatest difference " << worst << std::endl;
    if (frames - next > mayMissAtEnd)
        return testing::AssertionFailure() << frames - next << " of " << frames << " missing";
    return testing::AssertionSuccess();
}

std::vector<float> ConstantFrames(size_t frames, float level)
{
    return std::vector<float>(frames * kSinkChannels, level);
}

double SumOfChannel(const std::vector<float>& recording, size_t channel)
{
    double sum = 0.0;
    for (size_t at = channel; at < recording.size(); at += kSinkChannels)
        sum += static_cast<double>(recording[at]);
    return sum;
}

// ------------------------------------------------------------------------------------------------
// The sink and the player

void PushFrames(PipeWirePlayer& sink, const std::vector<float>& samples)
{
    sink.PushBytes(reinterpret_cast<const uint8_t*>(samples.data()),
                   samples.size() * sizeof(float));
}

bool DrainAsWorkersDo(PipeWirePlayer& sink)
{
    constexpr double kPlayedOutSeconds = 0.02;
    constexpr int kPollMs = 20;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (sink.QueuedSeconds() > kPlayedOutSeconds)
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        SleepMs(kPollMs);
    }
    sink.SetActive(false);
    return true;
}

bool WaitForOutput(const TovrelAudioPlayer& player)
{
    return WaitUntil([&] { return !player.CopySpectrumSamples().empty(); });
}

bool WaitForEnd(const TovrelAudioPlayer& player, int everyMs)
{
    return WaitUntil([&] { return player.HasFinished(); }, everyMs);
}
