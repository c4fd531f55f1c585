// The sink as the desktop sees it: what its node tells of itself, what the user's environment,
// mixer and patch bay do to it, and the priority that its thread is given.
#include "harness.h"

#include "pipewire_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <linux/capability.h>
#include <map>
#include <memory>
#include <ostream>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Properties = std::map<std::string, std::string>;

constexpr const char* kNode = "tovrel";
constexpr const char* kFirst = "null-sink"; // there from the start, and the default
constexpr const char* kSecond = "second-sink";

// An environment variable for the life of the object. What is recorded or run meanwhile sees it
// too.
class Environment
{
public:
    Environment(const char* name, const std::string& value) : m_name(name)
    {
        if (const char* previous = std::getenv(name))
            m_previous = std::make_unique<std::string>(previous);
        setenv(name, value.c_str(), 1);
    }
    ~Environment()
    {
        if (m_previous)
            setenv(m_name, m_previous->c_str(), 1);
        else
            unsetenv(m_name);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* m_name;
    std::unique_ptr<std::string> m_previous;
};

// An open sink that holds its queue.
class HeldSink : public PipeWirePlayer
{
public:
    explicit HeldSink(int sampleRate = kSinkRate, int channels = kSinkChannels)
    {
        EXPECT_TRUE(Init(sampleRate, channels));
    }
};

// --- What the node tells of itself --------------------------------------------------------------

// What of these properties the node has otherwise, or has not.
Properties Differences(const Properties& expected, Properties actual)
{
    Properties differences;
    for (const auto& [key, value] : expected)
    {
        if (actual[key] != value)
            differences[key] = actual[key];
    }
    return differences;
}

class DesktopNodeAtRate : public testing::TestWithParam<int>
{
};

TEST_P(DesktopNodeAtRate, CarriesWhatDesktopsShowAndActOn)
{
    const HeldSink sink(GetParam());
    const Properties expected = {{"media.type", "Audio"},
                                 {"media.category", "Playback"},
                                 {"media.name", "Tovrel playback"},
                                 {"media.class", "Stream/Output/Audio"},
                                 {"application.name", "Tovrel"},
                                 {"application.id", "tovrel"},
                                 {"application.icon-name", "audio-x-generic"},
                                 {"node.name", "tovrel"},
                                 {"node.description", "Tovrel"},
                                 {"node.rate", "1/" + std::to_string(GetParam())},
                                 {"node.autoconnect", "true"}};
    EXPECT_EQ(Differences(expected, NodeProperties(kNode)), Properties());
}

INSTANTIATE_TEST_SUITE_P(Hz, DesktopNodeAtRate, testing::Values(44100, 48000, 96000),
                         testing::PrintToStringParamName());

// What would make session managers share the volume with others, the graph change its cycle or run
// for nothing, or the stream stay where it is for good.
TEST(DesktopNode, CarriesNothingThatConcernsOthers)
{
    const HeldSink sink;
    const Properties properties = NodeProperties(kNode);
    ASSERT_FALSE(properties.empty());
    for (const char* key :
         {"media.role", "node.latency", "node.force-quantum", "node.force-rate",
          "node.lock-quantum", "node.lock-rate", "node.always-process", "node.dont-reconnect",
          "node.passive", "target.object", "node.target", "stream.dont-remix"})
        EXPECT_EQ(properties.count(key), 0u) << key;
}

TEST(DesktopNode, ConnectionBearsTheApplicationsName)
{
    const HeldSink sink;
    const std::string client = OutputOf({"pw-cli", "info", NodeProperties(kNode)["client.id"]});
    EXPECT_NE(client.find("type: PipeWire:Interface:Client"), std::string::npos) << client;
    EXPECT_NE(client.find("application.name = \"Tovrel\""), std::string::npos) << client;
    EXPECT_NE(client.find("application.id = \"tovrel\""), std::string::npos) << client;
    EXPECT_NE(client.find("application.icon-name = \"audio-x-generic\""), std::string::npos)
        << client;
}

// --- The environment ----------------------------------------------------------------------------

TEST(DesktopEnvironment, PropsAddToTheNodeAndReplaceWhatItCarries)
{
    const Environment props("PIPEWIRE_PROPS",
                            "{ media.role = Music application.name = \"A host\" application.id = "
                            "org.example.Host application.icon-name = host node.description = "
                            "\"A host's player\" media.name = \"A song\" }");
    const HeldSink sink;
    const Properties expected = {{"media.role", "Music"},
                                 {"application.name", "A host"},
                                 {"application.id", "org.example.Host"},
                                 {"application.icon-name", "host"},
                                 {"node.description", "A host's player"},
                                 {"media.name", "A song"},
                                 {"node.name", "tovrel"},
                                 {"media.category", "Playback"}};
    EXPECT_EQ(Differences(expected, NodeProperties(kNode)), Properties());
}

// The lengths of the graph's cycles from the first frame heard to the last, and how many there were
// of each.
std::map<size_t, size_t> CyclesOf(const MonitorRecording& recording, const Heard& heard)
{
    std::map<size_t, size_t> lengths;
    size_t start = 0;
    for (const MonitorRecording::Cycle& cycle : recording.Cycles())
    {
        const bool bHeard = !heard.positions.empty() && cycle.endFrame > heard.positions.front() &&
                            start <= heard.positions.back();
        lengths[cycle.endFrame - start] += bHeard ? 1 : 0;
        start = cycle.endFrame;
    }
    std::erase_if(lengths, [](const auto& length) { return length.second == 0; });
    return lengths;
}

// The cycles in which the graph plays half a second of a sink that was opened with these variables
// set.
std::vector<size_t> LengthsOfCycles(const std::map<const char*, std::string>& variables)
{
    MonitorRecording recording;
    std::vector<std::unique_ptr<Environment>> environment;
    for (const auto& [name, value] : variables)
        environment.push_back(std::make_unique<Environment>(name, value));
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kSinkRate / 2));
    EXPECT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, kSinkRate / 2);
    EXPECT_TRUE(IsComplete(heard));
    std::vector<size_t> lengths;
    for (const auto& [length, count] : CyclesOf(recording, heard))
        lengths.push_back(length);
    return lengths;
}

TEST(DesktopEnvironment, WithoutItTheGraphKeepsItsCycle)
{
    EXPECT_EQ(LengthsOfCycles({}), std::vector{kQuantum});
}

TEST(DesktopEnvironment, LatencySetsTheGraphsCycle)
{
    EXPECT_EQ(LengthsOfCycles({{"PIPEWIRE_LATENCY", "256/48000"}}), std::vector<size_t>{256});
}

TEST(DesktopEnvironment, QuantumSetsTheGraphsCycle)
{
    EXPECT_EQ(LengthsOfCycles({{"PIPEWIRE_QUANTUM", "512/48000"}}), std::vector<size_t>{512});
}

TEST(DesktopEnvironment, LatencyArrivesAtTheNode)
{
    const Environment latency("PIPEWIRE_LATENCY", "256/48000");
    const HeldSink sink;
    EXPECT_EQ(NodeProperties(kNode)["node.latency"], "256/48000");
}

// --- Where it plays -----------------------------------------------------------------------------

// Who links channel by channel hears one of them alone for a moment: a frame counts as heard then.
std::vector<float> Whole(std::vector<float> recording)
{
    for (size_t at = 0; at < recording.size(); at += kSinkChannels)
    {
        if (recording[at] == 0.0f)
            recording[at] = -recording[at + 1];
        else if (recording[at + 1] == 0.0f)
            recording[at + 1] = -recording[at];
    }
    return recording;
}

// Two sinks, both recorded, and what was heard of an indexed signal on either.
class TwoSinks
{
public:
    TwoSinks()
    {
        CreateSink(kSecond);
        // The recordings stay where they are when the default sink changes.
        const Environment pinned("PIPEWIRE_PROPS", "{ node.dont-reconnect = true }");
        m_first = std::make_unique<MonitorRecording>(kFirst);
        m_second = std::make_unique<MonitorRecording>(kSecond);
    }

    const MonitorRecording& First() const { return *m_first; }
    const MonitorRecording& Second() const { return *m_second; }

    // Looks for frames [0, count) in both recordings.
    void Finish(size_t count)
    {
        onFirst = FindIndexed(Whole(m_first->Finish()), 0, count);
        onSecond = FindIndexed(Whole(m_second->Finish()), 0, count);
        std::vector<int> times(count);
        for (const Heard* heard : {&onFirst, &onSecond})
        {
            for (const uint32_t index : heard->indices)
                ++times[std::min<size_t>(index, count - 1)];
        }
        missing = static_cast<size_t>(std::count(times.begin(), times.end(), 0));
        more = count - missing - static_cast<size_t>(std::count(times.begin(), times.end(), 1));
        std::cout << "of " << count << " frames on both sinks: missing " << missing
                  << ", heard more than once " << more << std::endl;
    }

    Heard onFirst;
    Heard onSecond;
    size_t missing = 0; // on both
    size_t more = 0;    // heard more than once, on one or both

private:
    std::unique_ptr<MonitorRecording> m_first;
    std::unique_ptr<MonitorRecording> m_second;
};

TEST(DesktopEnvironment, NodeSaysWhereItPlays)
{
    TwoSinks sinks;
    const Environment node("PIPEWIRE_NODE", kSecond);
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 10000));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    sinks.Finish(10000);
    EXPECT_TRUE(sinks.onFirst.indices.empty());
    EXPECT_TRUE(IsComplete(sinks.onSecond));
}

// A session manager that does not find the named sink takes the default one: it is heard, on
// whichever there is.
TEST(DesktopEnvironment, NodeThatIsNotThereIsHeardOnTheDefaultSink)
{
    MonitorRecording recording;
    const Environment node("PIPEWIRE_NODE", "nowhere");
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 10000));
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, 10000)));
}

void MoveByMetadata(const char* key, const std::string& value)
{
    OutputOf({"pw-metadata", std::to_string(NodeId(kNode)), key, value, "Spa:Id"});
}

void MoveToSecondByHand()
{
    for (const std::string channel : {"FL", "FR"})
        OutputOf(
            {"pw-link", "-d", kNode + (":output_" + channel), kFirst + (":playback_" + channel)});
    for (const std::string channel : {"FL", "FR"})
        OutputOf({"pw-link", kNode + (":output_" + channel), kSecond + (":playback_" + channel)});
}

void MakeDefault(const std::string& sink)
{
    OutputOf({"pw-metadata", "0", "default.configured.audio.sink", "{ \"name\": \"" + sink + "\" }",
              "Spa:String:JSON"});
}

// Ways to move a playing stream from one sink to the other.
struct Move
{
    const char* name;
    std::function<void()> there;
    std::function<void()> back; // none where the session manager would not let it
};
void PrintTo(const Move& move, std::ostream* out)
{
    *out << move.name;
}

class DesktopMove : public testing::TestWithParam<Move>
{
};

// A cycle is in flight when links are cut: each of the sinks has a clock of its own, so that what
// the stream gave to the old one's cycle may find nobody to play it.
TEST_P(DesktopMove, LosesTheCycleInFlightAtMostAndRepeatsNothing)
{
    constexpr size_t kFrames = 3 * kSinkRate;
    constexpr size_t kInFlight = kQuantum; // of one move
    const size_t moves = GetParam().back ? 2 : 1;
    TwoSinks sinks;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kFrames));
    sinks.First().AwaitSound();
    sinks.First().AwaitMore(kSinkRate / 2);
    GetParam().there();
    sinks.Second().AwaitSound();
    sinks.Second().AwaitMore(kSinkRate / 2);
    if (GetParam().back)
        GetParam().back();
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    double presented = 0.0;
    EXPECT_TRUE(sink.GetStreamTime(&presented, nullptr));
    EXPECT_NEAR(presented, static_cast<double>(kFrames) / kSinkRate, 1e-9);

    sinks.Finish(kFrames);
    const Heard& first = sinks.onFirst;
    const Heard& second = sinks.onSecond;
    EXPECT_EQ(sinks.more, 0u);
    EXPECT_LE(sinks.missing, moves * kInFlight);
    EXPECT_EQ(first.outOfOrder + first.altered + second.outOfOrder + second.altered, 0u);
    EXPECT_GT(second.indices.size(), size_t{kSinkRate} / 4);
    EXPECT_EQ(first.missingAtStart, 0u);
    EXPECT_EQ(GetParam().back ? first.missingAtEnd : second.missingAtEnd, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    By, DesktopMove,
    testing::Values(
        Move{"TargetObject",
             [] { MoveByMetadata("target.object", NodeProperties(kSecond)["object.serial"]); },
             []
             {
                 MoveByMetadata("target.object", NodeProperties(kFirst)["object.serial"]);
             }},
        Move{"TargetNode", [] { MoveByMetadata("target.node", std::to_string(NodeId(kSecond))); },
             []
             {
                 MoveByMetadata("target.node", std::to_string(NodeId(kFirst)));
             }},
        Move{"DefaultSink", [] { MakeDefault(kSecond); },
             []
             {
                 MakeDefault(kFirst);
             }},
        Move{"Links", MoveToSecondByHand, nullptr}),
    [](const auto& move) { return move.param.name; });

// --- The desktop's mixer ------------------------------------------------------------------------

std::vector<float> Scaled(std::vector<float> samples, float volume)
{
    for (float& sample : samples)
        sample *= volume;
    return samples;
}

// As a mixer does, in linear volume.
void SetChannelVolumes(const std::string& volume)
{
    OutputOf({"pw-cli", "set-param", std::to_string(NodeId(kNode)), "Props",
              "{ channelVolumes: [ " + volume + ", " + volume + " ] }"});
}

std::string MixerVolume()
{
    const std::string volume = OutputOf({"wpctl", "get-volume", std::to_string(NodeId(kNode))});
    return volume.substr(0, volume.find('\n'));
}

// The levels that a recording of a constant signal holds, and for how many frames each.
std::map<float, size_t> LevelsIn(const std::vector<float>& recording)
{
    std::map<float, size_t> levels;
    for (size_t at = 0; at < recording.size(); at += kSinkChannels)
    {
        EXPECT_EQ(recording[at], recording[at + 1]) << at;
        ++levels[recording[at]];
    }
    levels.erase(0.0f);
    return levels;
}

TEST(DesktopVolume, ScalesWhatIsHeardAndIsExactAgainAtFullVolume)
{
    MonitorRecording recording;
    HeldSink sink;
    std::vector<float> expected;
    size_t next = 0;
    for (const char* volume : {"0.5", "1.0", "0.25", "1.0"})
    {
        SetChannelVolumes(volume);
        PushFrames(sink, IndexedFrames(next, 10000));
        sink.SetActive(true);
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        recording.AwaitMore(3 * kQuantum); // what is in flight is heard at this volume
        const std::vector<float> heard = Scaled(IndexedFrames(next, 10000), std::stof(volume));
        expected.insert(expected.end(), heard.begin(), heard.end());
        next += 10000;
    }
    EXPECT_TRUE(HoldsInOrder(recording.Finish(), expected, 0.0f));
}

// Mixers set cubic volumes: half is an eighth of the amplitude.
TEST(DesktopVolume, OfTheMixerIsHeardWhilePlaying)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, ConstantFrames(2 * kSinkRate));
    recording.AwaitSound();
    recording.AwaitMore(kSinkRate / 2);
    OutputOf({"wpctl", "set-volume", std::to_string(NodeId(kNode)), "0.5"});
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::map<float, size_t> levels = LevelsIn(recording.Finish());
    ASSERT_EQ(levels.size(), 2u);
    EXPECT_FLOAT_EQ(levels.begin()->first, kConstant / 8);
    EXPECT_EQ(levels.rbegin()->first, kConstant);
    EXPECT_EQ(levels.begin()->second + levels.rbegin()->second, 2u * kSinkRate);
}

TEST(DesktopVolume, MuteIsSilenceInWhichPlayGoesOn)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, ConstantFrames(2 * kSinkRate));
    recording.AwaitSound();
    recording.AwaitMore(kSinkRate / 2);
    const std::string node = std::to_string(NodeId(kNode));
    OutputOf({"wpctl", "set-mute", node, "1"});
    recording.AwaitMore(kSinkRate / 2);
    OutputOf({"wpctl", "set-mute", node, "0"});
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const std::map<float, size_t> levels = LevelsIn(recording.Finish());
    ASSERT_EQ(levels.size(), 1u);
    EXPECT_EQ(levels.begin()->first, kConstant);
    EXPECT_LE(levels.begin()->second, size_t{3 * kSinkRate / 2} + kQuantum);
    EXPECT_GE(levels.begin()->second, size_t{kSinkRate / 2});
}

TEST(DesktopVolume, OutlivesPauseClearAndTheNextSink)
{
    MonitorRecording recording;
    {
        RunningSink sink;
        SetChannelVolumes("0.5");
        const std::string volume = MixerVolume();
        PushFrames(sink, ConstantFrames(kSinkRate));
        recording.AwaitSound();
        recording.AwaitMore(4 * kQuantum);
        sink.SetActive(false);
        recording.AwaitMore(4 * kQuantum);
        sink.SetActive(true);
        recording.AwaitMore(4 * kQuantum);
        sink.Clear();
        PushFrames(sink, ConstantFrames(4800));
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        EXPECT_EQ(MixerVolume(), volume);
    }
    // Session managers keep it by the application, whatever sink of it comes next.
    RunningSink next;
    PushFrames(next, ConstantFrames(4800));
    ASSERT_TRUE(DrainAsWorkersDo(next));
    const std::map<float, size_t> levels = LevelsIn(recording.Finish());
    ASSERT_EQ(levels.size(), 1u);
    EXPECT_EQ(levels.begin()->first, kConstant / 2);
}

// --- Real-time priority -------------------------------------------------------------------------

// How many threads of this process the system lets run before all ordinary ones.
size_t RealTimeThreads()
{
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        const int policy =
            sched_getscheduler(std::stoi(task.path().filename())) & ~SCHED_RESET_ON_FORK;
        count += policy == SCHED_FIFO || policy == SCHED_RR ? 1 : 0;
    }
    return count;
}

// Takes from this thread, and from those that it starts, what lets them ask for real-time priority.
void GiveUpRealTime()
{
    const rlimit none{};
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    ASSERT_EQ(syscall(SYS_capget, &header, sets), 0);
    for (auto& set : sets)
        set = {};
    ASSERT_EQ(syscall(SYS_capset, &header, sets), 0);
}

// A context without client-rt.conf, as of a system that has none, or of a later version.
class OrdinaryConfiguration
{
public:
    OrdinaryConfiguration()
    {
        std::filesystem::create_directory(m_directory);
        std::filesystem::copy_file("/usr/share/pipewire/client.conf", m_directory + "/client.conf");
    }

private:
    std::string m_directory = RuntimePath("ordinary");
    Environment m_variable{"PIPEWIRE_CONFIG_DIR", m_directory};
};

constexpr std::chrono::milliseconds kQuickInit{100}; // 3 to 5 ms on an idle machine

// Whether a sink opens in that time. A busy machine delays one opening or the other, a wait that is
// built in all of them.
bool OpensQuickly()
{
    return WaitUntil([] { return DurationOf([] { const HeldSink sink; }) <= kQuickInit; });
}

void ExpectPlaysAfterAQuickInit()
{
    EXPECT_TRUE(OpensQuickly());
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 10000));
    EXPECT_TRUE(DrainAsWorkersDo(sink));
}

TEST(DesktopScheduling, IsRealTimeWhereThatIsGranted)
{
    if (!MayRunInRealTime())
        GTEST_SKIP() << "no real-time priority for this process";
    ASSERT_EQ(RealTimeThreads(), 0u);
    {
        const RunningSink sink;
        EXPECT_TRUE(WaitUntil([] { return RealTimeThreads() == 1; }));
    }
    EXPECT_EQ(RealTimeThreads(), 0u);
    ExpectPlaysAfterAQuickInit();
}

TEST(DesktopScheduling, IsOrdinaryWithoutDelayWhereItIsNotGranted)
{
    std::thread(
        []
        {
            GiveUpRealTime();
            ASSERT_FALSE(MayRunInRealTime());
            ExpectPlaysAfterAQuickInit();
            const RunningSink sink;
            EXPECT_EQ(RealTimeThreads(), 0u);
        })
        .join();
}

// The broker of priorities is asked over these buses. One that has none is no reason to wait.
TEST(DesktopScheduling, IsOrdinaryWithoutDelayWhereNoBrokerGrantsIt)
{
    const Environment session("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + RuntimePath("bus"));
    const Environment system("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + RuntimePath("bus"));
    std::thread(
        []
        {
            GiveUpRealTime();
            ExpectPlaysAfterAQuickInit();
        })
        .join();
}

TEST(DesktopScheduling, IsOrdinaryWithoutDelayWhereItIsNotConfigured)
{
    const OrdinaryConfiguration configuration;
    ExpectPlaysAfterAQuickInit();
    const RunningSink sink;
    EXPECT_EQ(RealTimeThreads(), 0u);
}

// --- Company ------------------------------------------------------------------------------------

TEST(DesktopMix, TwoSinksAreHeardAsTheirSum)
{
    constexpr float kOther = 0.125f;
    MonitorRecording recording;
    HeldSink one;
    HeldSink other;
    PushFrames(one, ConstantFrames(kSinkRate));
    PushFrames(other, ConstantFrames(kSinkRate / 2, kOther));
    one.SetActive(true);
    recording.AwaitSound();
    recording.AwaitMore(kSinkRate / 8);
    other.SetActive(true);
    EXPECT_TRUE(DrainAsWorkersDo(other));
    EXPECT_TRUE(DrainAsWorkersDo(one));
    std::map<float, size_t> levels = LevelsIn(recording.Finish());
    EXPECT_EQ(levels[kConstant] + levels[kConstant + kOther], size_t{kSinkRate});
    EXPECT_EQ(levels[kOther] + levels[kConstant + kOther], size_t{kSinkRate} / 2);
    EXPECT_GT(levels[kConstant + kOther], size_t{kSinkRate} / 4);
}

} // namespace
