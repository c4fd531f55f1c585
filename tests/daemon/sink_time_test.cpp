// The sink's clock, and how soon a pause, a seek and a stop are heard: what the sink tells is
// compared with what a recording says was heard at the same moment.
#include "harness.h"

#include "pipewire_player.h"
#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/latency-utils.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Cycles = std::vector<MonitorRecording::Cycle>;

constexpr double kNsPerSecond = 1e9;

int64_t MonotonicNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// --- The material -------------------------------------------------------------------------------

// It stands in one channel: the left one of the recording for channel 0, the right one for 1.
std::vector<float> Constant(size_t frames, int channels = kSinkChannels, size_t channel = 0)
{
    std::vector<float> samples(frames * static_cast<size_t>(channels));
    for (size_t at = channel; at < samples.size(); at += static_cast<size_t>(channels))
        samples[at] = kConstant;
    return samples;
}

// PipeWire's resampler has a gain that is off by a part in ten thousand.
constexpr double kGainTolerance = 0.0001;

[[nodiscard]] bool WaitUntilPlayedOut(const PipeWirePlayer& sink)
{
    return WaitUntil([&] { return sink.QueuedSeconds() == 0.0; });
}

size_t QueuedFrames(const PipeWirePlayer& sink)
{
    return sink.QueuedBytes() / sizeof(float) / static_cast<size_t>(sink.Channels());
}

// --- What was heard when ------------------------------------------------------------------------

// Places in a recording and the moments at which they were heard.
class HeardClock
{
public:
    HeardClock(std::vector<float> recorded, Cycles cycles, int rate = kSinkRate) :
        m_recorded(std::move(recorded)), m_cycles(std::move(cycles)), m_rate(rate)
    {
        m_sums.push_back(0.0);
        for (size_t at = 0; at < m_recorded.size(); at += kSinkChannels)
            m_sums.push_back(m_sums.back() + static_cast<double>(m_recorded[at]));
    }

    const std::vector<float>& Recorded() const { return m_recorded; }

    // How many frames of the recording had been heard.
    double PlaceAt(int64_t ns) const
    {
        const auto later = std::lower_bound(m_cycles.begin(), m_cycles.end(), ns,
                                            [](const MonitorRecording::Cycle& cycle, int64_t wanted)
                                            { return cycle.graphNs < wanted; });
        if (later == m_cycles.begin() || later == m_cycles.end())
            return later == m_cycles.begin() ? 0.0 : static_cast<double>(m_sums.size() - 1);
        const MonitorRecording::Cycle& before = *(later - 1);
        const double share = static_cast<double>(ns - before.graphNs) /
                             static_cast<double>(later->graphNs - before.graphNs);
        return static_cast<double>(before.endFrame) +
               share * static_cast<double>(later->endFrame - before.endFrame);
    }

    // How many seconds of the constant signal had been heard.
    double SecondsAt(int64_t ns) const
    {
        const double place = PlaceAt(ns);
        const size_t whole = std::min(static_cast<size_t>(place), m_sums.size() - 2);
        const double sum = m_sums[whole] + (place - static_cast<double>(whole)) *
                                               (m_sums[whole + 1] - m_sums[whole]);
        return sum / static_cast<double>(kConstant) / m_rate;
    }

    // All that the recording holds of it.
    double AllSeconds() const { return m_sums.back() / static_cast<double>(kConstant) / m_rate; }

private:
    std::vector<float> m_recorded;
    Cycles m_cycles;
    int m_rate;
    std::vector<double> m_sums; // of the left channel
};

HeardClock ClockOf(MonitorRecording& recording, int rate = kSinkRate,
                   size_t tailFrames = 4 * kQuantum)
{
    std::vector<float> recorded = recording.Finish(tailFrames);
    return {std::move(recorded), recording.Cycles(), rate};
}

// --- What the sink tells ------------------------------------------------------------------------

// One call of GetStreamTime and the moments between which it was made.
struct Sample
{
    int64_t fromNs = 0;
    int64_t untilNs = 0;
    double presented = 0.0;
    double queued = 0.0; // QueuedSeconds
};

void AddSample(std::vector<Sample>& samples, const PipeWirePlayer& sink)
{
    Sample sample;
    sample.fromNs = MonotonicNs();
    const bool bTold = sink.GetStreamTime(&sample.presented, nullptr);
    sample.queued = sink.QueuedSeconds();
    sample.untilNs = MonotonicNs();
    if (bTold)
        samples.push_back(sample);
}

// Samples that a thread of its own takes, as often as it can without being in anybody's way.
class Sampling
{
public:
    explicit Sampling(const PipeWirePlayer& sink) :
        m_thread(
            [this, &sink]
            {
                while (!m_bEnd)
                {
                    AddSample(m_samples, sink);
                    std::this_thread::sleep_for(std::chrono::microseconds(500));
                }
            })
    {
    }
    ~Sampling() { End(); }
    Sampling(const Sampling&) = delete;
    Sampling& operator=(const Sampling&) = delete;

    const std::vector<Sample>& End()
    {
        m_bEnd = true;
        if (m_thread.joinable())
            m_thread.join();
        return m_samples;
    }

private:
    std::atomic<bool> m_bEnd{false};
    std::vector<Sample> m_samples;
    std::thread m_thread;
};

bool GoesBack(const std::vector<Sample>& samples)
{
    return !std::is_sorted(samples.begin(), samples.end(),
                           [](const Sample& one, const Sample& other)
                           { return one.presented < other.presented; });
}

// How far numbers are from what they should be.
struct Errors
{
    std::vector<double> all;

    double Worst() const
    {
        double worst = 0.0;
        for (const double error : all)
            worst = std::max(worst, std::fabs(error));
        return worst;
    }

    double Median() const
    {
        std::vector<double> sorted;
        for (const double error : all)
            sorted.push_back(std::fabs(error));
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0.0 : sorted[sorted.size() / 2];
    }
};

std::ostream& operator<<(std::ostream& out, const Errors& errors)
{
    return out << errors.all.size() << " samples, median error " << errors.Median() * 1e3
               << " ms, worst " << errors.Worst() * 1e3 << " ms";
}

// Where the thread lost the processor between the two looks at the clock, the sample is right for
// any moment between them.
Errors ErrorsOf(const std::vector<Sample>& samples, const HeardClock& heard)
{
    Errors errors;
    for (const Sample& sample : samples)
    {
        const double nearest = std::clamp(sample.presented, heard.SecondsAt(sample.fromNs),
                                          heard.SecondsAt(sample.untilNs));
        errors.all.push_back(sample.presented - nearest);
    }
    return errors;
}

// --- The position against the recording ---------------------------------------------------------

struct TimeCase
{
    const char* name;
    size_t quantum = kQuantum;
    int rate = kSinkRate;
    int channels = kSinkChannels;
    int graphRate = kSinkRate;
};
void PrintTo(const TimeCase& time, std::ostream* out)
{
    *out << time.name;
}

class SinkTimeAt : public testing::TestWithParam<TimeCase>
{
};

TEST_P(SinkTimeAt, IsWithinOneQuantumOfWhatIsHeard)
{
    constexpr double kMostMedian = 0.0004; // what waits in a resampler is more
    const TimeCase& at = GetParam();
    if (!MayRunAtQuantum(at.quantum))
        GTEST_SKIP() << "no real-time priority for this process";
    const double quantum = Seconds(at.quantum, at.graphRate);
    const size_t frames = static_cast<size_t>(at.rate) * 6 / 5;
    if (at.graphRate != kSinkRate)
        ForceRate(at.graphRate);
    ForceQuantum(at.quantum);
    MonitorRecording recording("null-sink", at.graphRate);
    RunningSink sink(at.rate, at.channels);
    PushFrames(sink, Constant(frames, at.channels));
    std::vector<Sample> samples;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            AddSample(samples, sink);
            return sink.QueuedSeconds() == 0.0;
        },
        3));
    const HeardClock heard = ClockOf(recording, at.graphRate, 4 * std::max(at.quantum, kQuantum));

    const Errors errors = ErrorsOf(samples, heard);
    std::cout << errors << std::endl;
    EXPECT_GT(errors.all.size(), 50u);
    EXPECT_LE(errors.Worst(), quantum);
    EXPECT_LE(errors.Median(), std::min(quantum / 4, kMostMedian));
    EXPECT_FALSE(GoesBack(samples));
    EXPECT_DOUBLE_EQ(samples.back().presented, Seconds(frames, at.rate));
    EXPECT_NEAR(heard.AllSeconds(), Seconds(frames, at.rate), 0.0005);
}

INSTANTIATE_TEST_SUITE_P(
    Case, SinkTimeAt,
    testing::Values(
        TimeCase{.name = "Quantum32", .quantum = 32}, TimeCase{.name = "Quantum64", .quantum = 64},
        TimeCase{.name = "Quantum256", .quantum = 256}, TimeCase{.name = "Quantum1024"},
        TimeCase{.name = "Quantum8192", .quantum = 8192},
        TimeCase{.name = "Rate8000", .rate = 8000}, TimeCase{.name = "Rate44100", .rate = 44100},
        TimeCase{.name = "Rate44100Quantum256", .quantum = 256, .rate = 44100},
        TimeCase{.name = "Rate96000", .rate = 96000},
        TimeCase{.name = "Rate192000", .rate = 192000}, TimeCase{.name = "Mono", .channels = 1},
        TimeCase{.name = "SixChannels", .channels = 6},
        TimeCase{.name = "Graph44100", .graphRate = 44100},
        TimeCase{.name = "Graph96000", .graphRate = 96000},
        TimeCase{.name = "Rate44100Graph44100", .rate = 44100, .graphRate = 44100},
        TimeCase{.name = "Rate44100Graph96000", .rate = 44100, .graphRate = 96000}),
    [](const auto& at) { return at.param.name; });

// --- Simple cases
// ---------------------------------------------------------------------------------

TEST(SinkTime, GrowsSteadilyAndEndsAtThePushedLength)
{
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 24000));
    double latest = 0.0;
    bool bSteady = true;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            double presented = latest;
            sink.GetStreamTime(&presented, nullptr);
            bSteady = bSteady && presented >= latest;
            latest = presented;
            return sink.QueuedSeconds() == 0.0;
        },
        kOftenMs));
    double inFlight = -1.0;
    ASSERT_TRUE(sink.GetStreamTime(&latest, &inFlight));
    EXPECT_TRUE(bSteady);
    EXPECT_NEAR(latest, 0.5, 1e-9);
    EXPECT_EQ(inFlight, 0.0);
}

TEST(SinkTime, NeverRunsAheadOfTheClock)
{
    RunningSink sink;
    const auto start = std::chrono::steady_clock::now();
    PushFrames(sink, IndexedFrames(0, kSinkRate));
    bool bAhead = false;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            double presented = 0.0;
            const bool bTold = sink.GetStreamTime(&presented, nullptr);
            const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
            bAhead = bAhead || presented > passed.count();
            return bTold && presented > 0.8;
        },
        kOftenMs));
    EXPECT_FALSE(bAhead);
}

TEST(SinkTime, StandsStillInAnUnderrun)
{
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, 4800));
    ASSERT_TRUE(WaitUntil([&] { return sink.QueuedSeconds() == 0.0; }));
    double before = 0.0;
    double after = -1.0;
    ASSERT_TRUE(sink.GetStreamTime(&before, nullptr));
    SleepMs(100);
    ASSERT_TRUE(sink.GetStreamTime(&after, nullptr));
    EXPECT_EQ(before, after);
}

TEST(SinkTime, IsUntouchedWhereThereIsNone)
{
    PipeWirePlayer sink;
    double presented = -1.0;
    double inFlight = -2.0;
    EXPECT_FALSE(sink.GetStreamTime(&presented, &inFlight));
    EXPECT_FALSE(sink.GetStreamTimePWOnly(&presented, &inFlight));
    ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
    EXPECT_FALSE(sink.GetStreamTime(&presented, &inFlight));
    EXPECT_FALSE(sink.GetStreamTimePWOnly(&presented, &inFlight));
    sink.SetActive(true);
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTimePWOnly(nullptr, nullptr); }));
    EXPECT_FALSE(sink.GetStreamTime(&presented, &inFlight)); // the graph runs, nothing is taken
    sink.Destroy();
    EXPECT_FALSE(sink.GetStreamTime(&presented, &inFlight));
    EXPECT_FALSE(sink.GetStreamTimePWOnly(&presented, &inFlight));
    EXPECT_EQ(presented, -1.0);
    EXPECT_EQ(inFlight, -2.0);
}

// --- Through pauses, seeks and underruns --------------------------------------------------------

class SinkTimeOfRate : public testing::TestWithParam<int>
{
};

// All three, at moments that have nothing to do with the graph's cycles.
TEST_P(SinkTimeOfRate, IsMonotonicAndWithinOneQuantumThroughPausesClearsAndUnderruns)
{
    const int rate = GetParam();
    const std::vector<float> block = Constant(static_cast<size_t>(rate) / 8);
    std::mt19937 random(1);
    std::uniform_int_distribution<int> wait(20, 70);
    MonitorRecording recording;
    RunningSink sink(rate);
    Sampling sampling(sink);
    for (int round = 0; round < 12; ++round)
    {
        PushFrames(sink, block);
        SleepMs(wait(random));
        if (round % 3 == 0)
            sink.Clear();
        if (round % 3 == 1)
        {
            sink.SetActive(false);
            SleepMs(wait(random));
            sink.SetActive(true);
        }
        if (round % 3 == 2)
        {
            ASSERT_TRUE(WaitUntilPlayedOut(sink));
            SleepMs(wait(random));
        }
    }
    ASSERT_TRUE(WaitUntilPlayedOut(sink));
    SleepMs(5);
    const std::vector<Sample> samples = sampling.End();
    const HeardClock heard = ClockOf(recording);

    EXPECT_FALSE(GoesBack(samples));
    const Errors errors = ErrorsOf(samples, heard);
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), Seconds(kQuantum));
    EXPECT_LE(errors.Median(), Seconds(kQuantum) / 4);
    EXPECT_NEAR(samples.back().presented, heard.AllSeconds(), rate == kSinkRate ? 1e-9 : 0.001);
}

TEST_P(SinkTimeOfRate, StandsStillFromThePauseToTheResumption)
{
    const size_t frames = static_cast<size_t>(GetParam()) * 2;
    MonitorRecording recording;
    RunningSink sink(GetParam());
    PushFrames(sink, Constant(frames));
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    std::vector<Sample> samples;
    for (int pause = 0; pause < 8; ++pause)
    {
        SleepMs(31 + 3 * pause);
        AddSample(samples, sink);
        sink.SetActive(false);
        double held = 0.0;
        ASSERT_TRUE(sink.GetStreamTime(&held, nullptr));
        EXPECT_GE(held, samples.back().presented);
        for (int look = 0; look < 20; ++look)
        {
            double later = 0.0;
            ASSERT_TRUE(sink.GetStreamTime(&later, nullptr));
            ASSERT_EQ(later, held) << "pause " << pause << ", look " << look;
            SleepMs(3);
        }
        sink.SetActive(true);
        for (int look = 0; look < 20; ++look)
        {
            AddSample(samples, sink);
            ASSERT_GE(samples.back().presented, held);
            SleepMs(1);
        }
    }
    ASSERT_TRUE(WaitUntilPlayedOut(sink));
    AddSample(samples, sink);

    const Errors errors = ErrorsOf(samples, ClockOf(recording));
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), Seconds(kQuantum));
    EXPECT_DOUBLE_EQ(samples.back().presented, Seconds(frames, GetParam()));
}

// What is presented, what is on its way and what is queued are all that was pushed, at every
// moment; a look between which and the next the graph has taken some tells nothing.
TEST_P(SinkTimeOfRate, PresentedInFlightAndQueuedAreAllThatWasPushed)
{
    const double pushed = 0.6;
    const size_t frames = static_cast<size_t>(GetParam()) * 6 / 10;
    RunningSink sink(GetParam());
    PushFrames(sink, Constant(frames));
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    int looks = 0;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            double presented = -1.0;
            double inFlight = -1.0;
            const size_t queued = QueuedFrames(sink);
            const bool bTold = sink.GetStreamTime(&presented, &inFlight);
            if (QueuedFrames(sink) == queued)
            {
                ++looks;
                EXPECT_TRUE(bTold);
                EXPECT_NEAR(presented + inFlight + Seconds(queued, GetParam()), pushed, 1e-9);
                EXPECT_GE(inFlight, 0.0);
                EXPECT_LE(inFlight, 2 * Seconds(kQuantum));
            }
            sink.SetActive(looks % 20 < 15); // with short pauses
            return sink.QueuedSeconds() == 0.0;
        },
        kOftenMs));
    EXPECT_GT(looks, 50);
}

TEST_P(SinkTimeOfRate, LeavesOutWhatEachOfManyClearsDiscarded)
{
    MonitorRecording recording;
    RunningSink sink(GetParam());
    for (int round = 0; round < 10; ++round)
    {
        PushFrames(sink, Constant(static_cast<size_t>(GetParam()) / 4));
        SleepMs(50 + round);
        sink.Clear();
    }
    PushFrames(sink, Constant(static_cast<size_t>(GetParam()) / 10));
    ASSERT_TRUE(WaitUntilPlayedOut(sink));
    double presented = 0.0;
    double inFlight = -1.0;
    ASSERT_TRUE(sink.GetStreamTime(&presented, &inFlight));
    const double heard = ClockOf(recording).AllSeconds();

    std::cout << "presented " << presented << " s, heard " << heard << " s, off by "
              << (presented - heard) * GetParam() << " frames" << std::endl;
    EXPECT_NEAR(presented, heard, GetParam() == kSinkRate ? 1e-9 : 0.001);
    EXPECT_EQ(inFlight, 0.0);
}

INSTANTIATE_TEST_SUITE_P(Hz, SinkTimeOfRate, testing::Values(44100, 48000, 96000),
                         testing::PrintToStringParamName());

// --- The clock of PipeWire alone ----------------------------------------------------------------

TEST(SinkTime, OfPipeWireAloneGrowsByWholeCyclesWithAndWithoutMaterial)
{
    RunningSink sink;
    double earlier = 0.0;
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTimePWOnly(&earlier, nullptr); }, kOftenMs));
    int steps = 0;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            if (steps == 5)
                PushFrames(sink, Constant(5 * kQuantum));
            double now = 0.0;
            double delay = -1.0;
            EXPECT_TRUE(sink.GetStreamTimePWOnly(&now, &delay));
            EXPECT_EQ(delay, 0.0); // a null sink has none
            const double cycles = (now - earlier) / Seconds(kQuantum);
            EXPECT_GE(cycles, 0.0);
            EXPECT_NEAR(cycles, std::round(cycles), 1e-6);
            steps += now > earlier ? 1 : 0;
            earlier = now;
            return steps >= 15;
        },
        5));
}

TEST(SinkTime, OutputsThatAreNotWantedAreLeftOut)
{
    RunningSink sink;
    PushFrames(sink, Constant(20 * kQuantum));
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    double presented = -1.0;
    double inFlight = -1.0;
    EXPECT_TRUE(sink.GetStreamTime(nullptr, &inFlight));
    EXPECT_TRUE(sink.GetStreamTime(&presented, nullptr));
    EXPECT_GE(inFlight, 0.0);
    EXPECT_GE(presented, 0.0);
    double ran = -1.0;
    double delay = -1.0;
    EXPECT_TRUE(sink.GetStreamTimePWOnly(nullptr, &delay));
    EXPECT_TRUE(sink.GetStreamTimePWOnly(&ran, nullptr));
    EXPECT_TRUE(sink.GetStreamTimePWOnly(nullptr, nullptr));
    EXPECT_EQ(delay, 0.0);
    EXPECT_GE(ran, 0.0);
}

// --- A device of great latency ------------------------------------------------------------------

constexpr int64_t kLateNs = 200000000;
constexpr double kLateSeconds = 0.2;

// A sink that plays what it is given 0.2 s later, as it tells the graph, and keeps a recording of
// it. Streams that are opened during its life play to it.
class LateSink
{
public:
    LateSink()
    {
        m_samples.reserve(size_t{20} * kSinkRate * kSinkChannels);
        m_cycles.reserve(size_t{20} * kSinkRate / kQuantum);
        pw_init(nullptr, nullptr);
        m_loop = pw_thread_loop_new("late-sink", nullptr);
        m_context = NewRealTimeContext(m_loop);
        pw_core* core = pw_context_connect(m_context, nullptr, 0);
        EXPECT_TRUE(core);
        EXPECT_EQ(pw_thread_loop_start(m_loop), 0);
        pw_thread_loop_lock(m_loop);
        Open(core);
        pw_thread_loop_unlock(m_loop);
        EXPECT_TRUE(WaitUntil([] { return NodeId("late-sink") != 0; }));
        setenv("PIPEWIRE_NODE", "late-sink", 1);
    }

    ~LateSink()
    {
        unsetenv("PIPEWIRE_NODE");
        Close();
    }
    LateSink(const LateSink&) = delete;
    LateSink& operator=(const LateSink&) = delete;

    // Ends it, and tells what was heard when.
    HeardClock Finish()
    {
        Close();
        return {std::move(m_samples), std::move(m_cycles)};
    }

private:
    void Open(pw_core* core)
    {
        static const pw_stream_events kEvents = []
        {
            pw_stream_events events{};
            events.version = PW_VERSION_STREAM_EVENTS;
            events.process = [](void* sink)
            {
                static_cast<LateSink*>(sink)->TakeBuffers();
            };
            return events;
        }();
        m_stream = pw_stream_new(core, "Late sink",
                                 pw_properties_new(PW_KEY_MEDIA_CLASS, "Audio/Sink",
                                                   PW_KEY_NODE_NAME, "late-sink", nullptr));
        pw_stream_add_listener(m_stream, &m_listener, &kEvents, this);
        std::array<uint8_t, 1024> podBuffer;
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, podBuffer.data(), podBuffer.size());
        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.rate = kSinkRate;
        info.channels = kSinkChannels;
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
        const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
        const auto flags =
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
        pw_stream_connect(m_stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, &format, 1);
        spa_latency_info latency{};
        latency.direction = SPA_DIRECTION_INPUT;
        latency.min_ns = latency.max_ns = kLateNs;
        const spa_pod* param = spa_latency_build(&builder, SPA_PARAM_Latency, &latency);
        pw_stream_update_params(m_stream, &param, 1);
    }

    void Close()
    {
        if (!m_loop)
            return;
        pw_thread_loop_stop(m_loop);
        pw_stream_destroy(m_stream);
        pw_context_destroy(m_context);
        pw_thread_loop_destroy(m_loop);
        m_loop = nullptr;
    }

    void TakeBuffers() noexcept
    {
        pw_time time{};
        pw_stream_get_time_n(m_stream, &time, sizeof time);
        // A late call finds what the one before it has missed.
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream))
        {
            Take(buffer->buffer->datas[0], time);
            pw_stream_queue_buffer(m_stream, buffer);
        }
    }

    void Take(const spa_data& data, const pw_time& time) noexcept
    {
        const size_t before = m_samples.size();
        const size_t count = data.chunk->size / sizeof(float);
        if (m_cycles.size() + 2 > m_cycles.capacity() || before + count > m_samples.capacity())
            return;
        m_samples.resize(before + count);
        std::memcpy(&m_samples[before], static_cast<const uint8_t*>(data.data) + data.chunk->offset,
                    count * sizeof(float));
        const int64_t startNs = time.now + kLateNs;
        const auto lengthNs = static_cast<int64_t>(Seconds(count / kSinkChannels) * kNsPerSecond);
        // It is given nothing while nobody plays to it.
        if (m_cycles.empty() || startNs > m_cycles.back().graphNs + 1000000)
            m_cycles.push_back({before / kSinkChannels, startNs, time.ticks});
        m_cycles.push_back({m_samples.size() / kSinkChannels, startNs + lengthNs, time.ticks});
    }

    MonitorRecording m_graph; // notices where a busy machine makes the graph drop cycles
    std::vector<float> m_samples;
    Cycles m_cycles; // by when they were heard
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook m_listener{};
};

// A link to another program may hold one cycle back that nothing tells of; positions are told in
// whole frames.
const double kOneQuantum = Seconds(kQuantum + 1);

TEST(SinkLatency, OfTheDeviceIsInEveryClock)
{
    constexpr double kPushed = 1.0;
    LateSink late;
    RunningSink sink;
    PushFrames(sink, Constant(kSinkRate));
    std::vector<Sample> samples;
    double delay = -1.0;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            AddSample(samples, sink);
            sink.GetStreamTimePWOnly(nullptr, &delay);
            return sink.QueuedSeconds() == 0.0;
        },
        3));
    const HeardClock heard = late.Finish();

    const Errors errors = ErrorsOf(samples, heard);
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), kOneQuantum);
    EXPECT_DOUBLE_EQ(samples.back().presented, kPushed);
    EXPECT_NEAR(delay, kLateSeconds, 1e-6);
    // All that has not been presented, but for what would keep the pushers from their work.
    for (const Sample& sample : samples)
    {
        const double left = kPushed - sample.presented;
        if (left == 0.0)
            continue;
        EXPECT_GT(sample.queued, 0.02);
        EXPECT_GE(sample.queued, std::min(left, 0.35) - Seconds(kQuantum));
    }
}

// The way to the device is no audio of its own: silence goes before the first frame.
TEST(SinkLatency, QueuedSecondsIsNoMoreThanWhatWasPushedAndNotPresented)
{
    constexpr double kPushed = 0.3;
    LateSink late;
    RunningSink sink;
    PushFrames(sink, Constant(kSinkRate * 3 / 10));
    double mostTooMany = 0.0;
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            double presented = 0.0; // before, so that it is the lesser
            sink.GetStreamTime(&presented, nullptr);
            const double queued = sink.QueuedSeconds();
            mostTooMany = std::max(mostTooMany, queued - (kPushed - presented));
            return queued == 0.0;
        },
        3));
    EXPECT_LE(mostTooMany, Seconds(kQuantum));
}

TEST(SinkLatency, QueueIsNotPlayedOutBeforeTheDeviceIs)
{
    constexpr size_t kFrames = kSinkRate / 2;
    LateSink late;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kFrames));
    ASSERT_TRUE(WaitUntil([&] { return sink.QueuedSeconds() <= 0.02; }, kOftenMs));
    const int64_t playedOutNs = MonotonicNs();
    SleepMs(50);
    const HeardClock clock = late.Finish();
    const Heard heard = FindIndexed(clock.Recorded(), 0, kFrames);
    // While two programs are being linked, the first cycles from one to the other may get lost.
    ASSERT_LE(heard.missingAtStart, kFrames / 2);
    EXPECT_EQ(heard.lostBetween + heard.missingAtEnd, 0u);
    EXPECT_GE(clock.PlaceAt(playedOutNs), static_cast<double>(heard.positions.back() + 1) - 0.05);
}

// Silence that is still on its way to the device is no silence yet.
TEST(SinkLatency, UnderrunsWithinItAreToldApart)
{
    LateSink late;
    RunningSink sink;
    std::vector<Sample> samples;
    const auto sampleUntil = [&](const std::function<bool()>& condition)
    {
        const auto sampled = [&]
        {
            AddSample(samples, sink);
            return condition();
        };
        ASSERT_TRUE(WaitUntil(sampled, 2));
    };
    for (int part = 0; part < 3; ++part)
    {
        PushFrames(sink, Constant(kSinkRate / 10));
        sampleUntil([&] { return sink.QueuedBytes() == 0; });
        const int64_t emptyNs = MonotonicNs();
        sampleUntil([&] { return MonotonicNs() >= emptyNs + kLateNs / 2; });
    }
    sampleUntil([&] { return sink.QueuedSeconds() == 0.0; });
    const HeardClock heard = late.Finish();

    const Errors errors = ErrorsOf(samples, heard);
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), kOneQuantum);
    EXPECT_FALSE(GoesBack(samples));
    for (const double atPause : {0.1, 0.2})
        EXPECT_GT(std::count_if(samples.begin(), samples.end(),
                                [&](const Sample& sample)
                                { return std::fabs(sample.presented - atPause) < 1e-9; }),
                  10);
}

// The device goes on with what it was given, the position does so when the stream goes on.
TEST(SinkLatency, PausesWithinItEndWhereTheDeviceIs)
{
    LateSink late;
    RunningSink sink;
    PushFrames(sink, Constant(kSinkRate * 3 / 2));
    std::vector<Sample> samples;
    const auto sampleFor = [&](int64_t ns)
    {
        for (const int64_t end = MonotonicNs() + ns; MonotonicNs() < end; SleepMs(2))
            AddSample(samples, sink);
    };
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    sampleFor(kLateNs);
    for (const int pauseMs : {30, 50, 110, 400})
    {
        sink.SetActive(false);
        double held = 0.0;
        double later = 0.0;
        sink.GetStreamTime(&held, nullptr);
        SleepMs(pauseMs);
        sink.GetStreamTime(&later, nullptr);
        EXPECT_EQ(held, later);
        EXPECT_GT(sink.QueuedSeconds(), 0.02);
        sink.SetActive(true);
        sampleFor(90000000);
    }
    while (sink.QueuedSeconds() > 0.0)
        sampleFor(2000000);
    AddSample(samples, sink);
    const Errors errors = ErrorsOf(samples, late.Finish());
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), kOneQuantum);
    EXPECT_FALSE(GoesBack(samples));
    EXPECT_DOUBLE_EQ(samples.back().presented, 1.5);
}

// --- What has not been presented ----------------------------------------------------------------

class SinkQueueAtQuantum : public testing::TestWithParam<size_t>
{
};

TEST_P(SinkQueueAtQuantum, CountsWhatIsPushedAndNotPresented)
{
    constexpr size_t kBlock = 4800;
    constexpr size_t kBlocks = 20;
    ForceQuantum(GetParam());
    MonitorRecording recording;
    RunningSink sink;
    std::vector<Sample> samples;
    std::vector<double> pushed; // before each of the samples
    for (size_t blocks = 0; blocks < kBlocks || sink.QueuedSeconds() > 0.0; SleepMs(2))
    {
        if (blocks < kBlocks && sink.QueuedSeconds() <= 0.35)
        {
            PushFrames(sink, Constant(kBlock));
            ++blocks;
        }
        AddSample(samples, sink);
        pushed.resize(samples.size(), Seconds(blocks * kBlock));
    }
    AddSample(samples, sink);
    pushed.resize(samples.size(), Seconds(kBlocks * kBlock));
    const HeardClock heard = ClockOf(recording, kSinkRate, 4 * GetParam());

    Errors errors;
    for (size_t at = 0; at < samples.size(); ++at)
    {
        const double most = pushed[at] - heard.SecondsAt(samples[at].fromNs);
        const double least = pushed[at] - heard.SecondsAt(samples[at].untilNs);
        errors.all.push_back(samples[at].queued - std::clamp(samples[at].queued, least, most));
    }
    std::cout << errors << std::endl;
    EXPECT_LE(errors.Worst(), Seconds(GetParam()));
    EXPECT_LE(errors.Median(), Seconds(GetParam()) / 4);
    EXPECT_EQ(samples.back().queued, 0.0);
}

INSTANTIATE_TEST_SUITE_P(Frames, SinkQueueAtQuantum, testing::Values(1024, 8192),
                         testing::PrintToStringParamName());

// --- Clear --------------------------------------------------------------------------------------

// Old material stands in the left channel, new material in the right one.
std::vector<float> OldFrames(size_t frames)
{
    return Constant(frames, kSinkChannels, 0);
}

std::vector<float> NewFrames(size_t frames)
{
    return Constant(frames, kSinkChannels, 1);
}

// A stretch of old material and the new one behind it, as frames of the recording. What is fainter
// than a thousandth of the signal is the resampler's rounding.
struct Change
{
    size_t oldEnd = 0;   // behind the last frame of the old one
    size_t newStart = 0; // the first of the new one
    double newSum = 0.0; // of all frames of the new one
};

std::vector<Change> FindChanges(const std::vector<float>& recorded)
{
    constexpr float kAudible = kConstant / 1000.0f;
    std::vector<Change> changes;
    bool bNew = true;
    for (size_t frame = 0; frame < recorded.size() / kSinkChannels; ++frame)
    {
        const float left = std::fabs(recorded[frame * kSinkChannels]);
        const float right = std::fabs(recorded[frame * kSinkChannels + 1]);
        if (bNew && left > kConstant / 2 && right < kConstant / 2)
        {
            changes.emplace_back();
            bNew = false;
        }
        if (changes.empty())
            continue;
        Change& change = changes.back();
        if (left > kAudible && change.newSum < 100.0)
            change.oldEnd = frame + 1;
        if (right > kAudible && change.newStart == 0)
            change.newStart = frame;
        bNew = bNew || right > kConstant / 2;
        change.newSum += static_cast<double>(recorded[frame * kSinkChannels + 1]);
    }
    return changes;
}

// Compares a sum over a channel with the frames of that rate that it should be of. A resampler
// starts in the middle of the first frame's rise, which half a frame of the sum goes for.
testing::AssertionResult IsAllOf(size_t frames, int rate, double sum)
{
    const double heard = sum / static_cast<double>(kConstant) * rate / kSinkRate;
    const auto wanted = static_cast<double>(frames);
    const double tolerance = rate == kSinkRate ? 1e-6 : 0.5 + wanted * kGainTolerance;
    return (std::fabs(heard - wanted) <= tolerance ? testing::AssertionSuccess()
                                                   : testing::AssertionFailure())
           << heard << " frames heard of " << frames;
}

class SinkClearOfRate : public testing::TestWithParam<int>
{
};

// Without a flush of the resampler some 45 old frames would come with the first of the new ones;
// with it there is the step from the one to the other, which its filter makes of a few frames.
TEST_P(SinkClearOfRate, NothingOldIsHeardBeyondTheCycleInFlight)
{
    constexpr size_t kRounds = 16;
    const size_t kStep = GetParam() == kSinkRate ? 0 : 10;
    const size_t oldFrames = static_cast<size_t>(GetParam()) / 4;
    const size_t newFrames = static_cast<size_t>(GetParam()) / 10;
    std::mt19937 random(2);
    std::uniform_int_distribution<int> wait(10000, 60000);
    const std::vector<float> pushedNext = NewFrames(newFrames);
    MonitorRecording recording;
    RunningSink sink(GetParam());
    std::vector<int64_t> clearedNs;
    for (size_t round = 0; round < kRounds; ++round)
    {
        PushFrames(sink, OldFrames(oldFrames));
        ASSERT_TRUE(WaitUntil([&] { return QueuedFrames(sink) < oldFrames; }, kOftenMs));
        std::this_thread::sleep_for(std::chrono::microseconds(wait(random)));
        sink.Clear();
        clearedNs.push_back(MonotonicNs());
        PushFrames(sink, pushedNext);
        ASSERT_TRUE(WaitUntilPlayedOut(sink));
    }
    const HeardClock heard = ClockOf(recording);

    const std::vector<Change> changes = FindChanges(heard.Recorded());
    ASSERT_EQ(changes.size(), kRounds);
    size_t silences = 0;
    for (size_t round = 0; round < kRounds; ++round)
    {
        const Change& change = changes[round];
        const auto border = std::find_if(recording.Cycles().rbegin(), recording.Cycles().rend(),
                                         [&](const auto& cycle)
                                         { return cycle.endFrame <= change.newStart + kStep; });
        ASSERT_NE(border, recording.Cycles().rend());
        const double late = static_cast<double>(change.oldEnd) - heard.PlaceAt(clearedNs[round]);
        EXPECT_LE(late, static_cast<double>(kQuantum + kStep));
        EXPECT_LE(change.oldEnd, border->endFrame + kStep);
        silences += change.newStart > change.oldEnd + kStep ? 1 : 0;
        EXPECT_TRUE(IsAllOf(newFrames, GetParam(), change.newSum));
    }
    // A cycle that begins between Clear and the push has nothing to play.
    EXPECT_LE(silences, kRounds / 4);
}

TEST_P(SinkClearOfRate, WhatAPauseHeldIsDroppedByAClearInIt)
{
    const size_t newFrames = static_cast<size_t>(GetParam()) / 10;
    MonitorRecording recording;
    RunningSink sink(GetParam());
    PushFrames(sink, OldFrames(static_cast<size_t>(GetParam()) / 2));
    recording.AwaitSound();
    recording.AwaitMore(6 * kQuantum);
    sink.SetActive(false);
    recording.AwaitMore(4 * kQuantum);
    sink.Clear();
    sink.Clear();
    PushFrames(sink, NewFrames(newFrames));
    recording.AwaitMore(2 * kQuantum);
    const size_t resumed = recording.Now();
    sink.SetActive(true);
    ASSERT_TRUE(WaitUntilPlayedOut(sink));
    const std::vector<float> recorded = recording.Finish();
    const std::vector<float> after(
        recorded.begin() + static_cast<ptrdiff_t>(resumed * kSinkChannels), recorded.end());
    EXPECT_NEAR(SumOfChannel(after, 0), 0.0, 1e-3);
    EXPECT_TRUE(IsAllOf(newFrames, GetParam(), SumOfChannel(after, 1)));
}

// A control thread in a great hurry, and what plays after it.
TEST_P(SinkClearOfRate, AStormOfClearsLeavesTheSinkInOrder)
{
    const size_t newFrames = static_cast<size_t>(GetParam()) / 5;
    MonitorRecording recording;
    RunningSink sink(GetParam());
    std::atomic<bool> bEnd{false};
    std::thread storm(
        [&]
        {
            while (!bEnd)
            {
                sink.Clear();
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
    const std::vector<float> block = OldFrames(777);
    for (const int64_t end = MonotonicNs() + 1000000000; MonotonicNs() < end;)
    {
        PushFrames(sink, block);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    bEnd = true;
    storm.join();
    sink.Clear();
    PushFrames(sink, NewFrames(newFrames));
    ASSERT_TRUE(WaitUntilPlayedOut(sink));
    double presented = 0.0;
    double inFlight = -1.0;
    ASSERT_TRUE(sink.GetStreamTime(&presented, &inFlight));
    const std::vector<float> recorded = recording.Finish();
    EXPECT_TRUE(IsAllOf(newFrames, GetParam(), SumOfChannel(recorded, 1)));
    EXPECT_EQ(inFlight, 0.0);
}

INSTANTIATE_TEST_SUITE_P(Hz, SinkClearOfRate, testing::Values(8000, 44100, 48000, 96000),
                         testing::PrintToStringParamName());

// Whatever the moment: before the first cycle, within one, between two, many times.
TEST(SinkClear, LosesNothingThatIsPushedAfterIt)
{
    constexpr size_t kOld = 20000;
    constexpr size_t kNew = 1500;
    constexpr size_t kRounds = 60;
    std::mt19937 random(3);
    std::uniform_int_distribution<int> wait(0, 45000);
    MonitorRecording recording;
    RunningSink sink;
    for (size_t round = 0; round < kRounds; ++round)
    {
        const size_t first = round * (kOld + kNew);
        PushFrames(sink, IndexedFrames(first, kOld));
        std::this_thread::sleep_for(std::chrono::microseconds(round == 0 ? 0 : wait(random)));
        sink.Clear();
        PushFrames(sink, IndexedFrames(first + kOld, kNew));
        ASSERT_TRUE(WaitUntil([&] { return sink.QueuedBytes() == 0; }, 7));
    }
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, kRounds * (kOld + kNew));

    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered + heard.foreign, 0u);
    std::vector<size_t> count(kRounds);
    for (const uint32_t index : heard.indices)
        count[index / (kOld + kNew)] += index % (kOld + kNew) >= kOld ? 1 : 0;
    EXPECT_EQ(count, std::vector<size_t>(kRounds, kNew));
}

TEST(SinkClear, BeforeTheStreamRunsLeavesNothingOfTheOld)
{
    constexpr size_t kRounds = 5;
    MonitorRecording recording;
    for (size_t round = 0; round < kRounds; ++round)
    {
        PipeWirePlayer sink;
        ASSERT_TRUE(sink.Init(kSinkRate, kSinkChannels));
        PushFrames(sink, IndexedFrames(1000000, 5000));
        sink.Clear();
        PushFrames(sink, IndexedFrames(1000000, 5000));
        sink.Clear();
        sink.Clear();
        sink.SetActive(true);
        PushFrames(sink, IndexedFrames(round * 3000, 3000));
        ASSERT_TRUE(DrainAsWorkersDo(sink));
        double presented = 0.0;
        ASSERT_TRUE(sink.GetStreamTime(&presented, nullptr));
        EXPECT_DOUBLE_EQ(presented, Seconds(3000));
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kRounds * 3000)));
}

// --- How soon it is heard -----------------------------------------------------------------------

// Times in quanta of the graph, from a call on.
struct Reactions
{
    std::vector<double> all;

    double Worst() const { return *std::max_element(all.begin(), all.end()); }

    double Median() const
    {
        std::vector<double> sorted = all;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
};

std::ostream& operator<<(std::ostream& out, const Reactions& reactions)
{
    return out << reactions.all.size() << " times, median " << reactions.Median()
               << " quanta, worst " << reactions.Worst();
}

// Where in the recording a frame of the signal stands, in a complete recording.
size_t PlaceOf(const Heard& heard, size_t index)
{
    const auto found = std::find(heard.indices.begin(), heard.indices.end(), index);
    return found == heard.indices.end()
               ? SIZE_MAX
               : heard.positions[static_cast<size_t>(found - heard.indices.begin())];
}

struct PauseCase
{
    const char* name;
    size_t quantum;
    const char* latency; // as a user asks for it
};
void PrintTo(const PauseCase& pause, std::ostream* out)
{
    *out << pause.name;
}

class SinkPauseAt : public testing::TestWithParam<PauseCase>
{
protected:
    SinkPauseAt()
    {
        if (GetParam().latency)
            setenv("PIPEWIRE_LATENCY", GetParam().latency, 1);
    }
    ~SinkPauseAt() override { unsetenv("PIPEWIRE_LATENCY"); }
};

TEST_P(SinkPauseAt, TakesNothingMoreAndIsHeardWithinOneQuantum)
{
    constexpr size_t kPauses = 16;
    constexpr size_t kFrames = 6 * kSinkRate;
    const auto quantum = static_cast<double>(GetParam().quantum);
    struct Pause
    {
        int64_t pausedNs;
        int64_t resumedNs;
        size_t taken;
    };
    std::vector<Pause> pauses;
    std::mt19937 random(4);
    std::uniform_int_distribution<int> wait(40000, 70000);
    const auto waitSome = [&]
    {
        std::this_thread::sleep_for(std::chrono::microseconds(wait(random)));
    };
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kFrames));
    ASSERT_TRUE(WaitUntil([&] { return sink.GetStreamTime(nullptr, nullptr); }, kOftenMs));
    for (size_t round = 0; round < kPauses; ++round)
    {
        waitSome();
        sink.SetActive(false);
        Pause pause{};
        pause.pausedNs = MonotonicNs();
        pause.taken = kFrames - QueuedFrames(sink);
        waitSome();
        EXPECT_EQ(kFrames - QueuedFrames(sink), pause.taken);
        pause.resumedNs = MonotonicNs();
        sink.SetActive(true);
        pauses.push_back(pause);
        ASSERT_TRUE(WaitUntil([&] { return kFrames - QueuedFrames(sink) > pause.taken; }));
    }
    waitSome();
    sink.SetActive(false);
    const size_t taken = kFrames - QueuedFrames(sink);
    const HeardClock clock = ClockOf(recording);
    const Heard heard = FindIndexed(clock.Recorded(), 0, taken);

    ASSERT_TRUE(IsComplete(heard)); // to the last frame that was taken, and none beyond it
    Reactions silent;
    Reactions sounding;
    for (const Pause& pause : pauses)
    {
        const auto silentFrom = static_cast<double>(PlaceOf(heard, pause.taken - 1) + 1);
        const auto soundFrom = static_cast<double>(PlaceOf(heard, pause.taken));
        silent.all.push_back((silentFrom - clock.PlaceAt(pause.pausedNs)) / quantum);
        sounding.all.push_back((soundFrom - clock.PlaceAt(pause.resumedNs)) / quantum);
    }
    std::cout << "pause to silence: " << silent << "\nresumption to sound: " << sounding
              << std::endl;
    EXPECT_LE(silent.Worst(), 1.0);
    EXPECT_LE(sounding.Median(), 2.0); // it takes the daemon's ordinary thread to resume
}

INSTANTIATE_TEST_SUITE_P(Case, SinkPauseAt,
                         testing::Values(PauseCase{"Quantum1024", kQuantum, nullptr},
                                         PauseCase{"Latency256", 256, "256/48000"}),
                         [](const auto& pause) { return pause.param.name; });

// --- How soon the player is heard ---------------------------------------------------------------

constexpr size_t kMaterial = 20 * kSinkRate;

// A 24-bit codec keeps the indexed signal bit for bit.
std::string IndexedFile(const std::string& name, const std::string& codec)
{
    const std::string raw = RuntimePath("indexed.raw");
    const std::string path = RuntimePath(name);
    WriteFloats(raw, IndexedFrames(0, kMaterial));
    RunFfmpeg({"-f", "f32le", "-ar", "48000", "-ac", "2", "-i", raw, "-c:a", codec, path});
    return path;
}

struct SourceCase
{
    const char* name;
    const char* file; // none for a buffer
    const char* codec;
    size_t early; // frames before the target from which decoding may go on
};
void PrintTo(const SourceCase& source, std::ostream* out)
{
    *out << source.name;
}

// Plays, and returns when it is heard.
void Start(TovrelAudioPlayer& player, const SourceCase& source, const MonitorRecording& recording)
{
    player.SetEqualizerEnabled(false);
    if (source.file)
        player.PlayFile(IndexedFile(source.file, source.codec));
    else
        ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, kMaterial), kSinkRate, kSinkChannels));
    // The position runs from the start, heard or not.
    recording.AwaitSound();
    recording.AwaitMore(8 * kQuantum);
}

class PlayerReactionOf : public testing::TestWithParam<SourceCase>
{
};

TEST_P(PlayerReactionOf, SeekIsHeardSoonAndNothingOldAfterTheCycleInFlight)
{
    constexpr size_t kSeeks = 16;
    std::mt19937 random(5);
    std::uniform_int_distribution<int> wait(60000, 110000);
    MonitorRecording recording;
    TovrelAudioPlayer player;
    Start(player, GetParam(), recording);
    struct Seek
    {
        int64_t calledNs;
        size_t target;
    };
    std::vector<Seek> seeks;
    for (size_t round = 0; round < kSeeks; ++round)
    {
        std::this_thread::sleep_for(std::chrono::microseconds(wait(random)));
        const size_t target = (round % 2 == 0 ? 10 + round / 2 : 1 + round / 2) * kSinkRate + 321;
        seeks.push_back({MonotonicNs(), target});
        player.SeekToSeconds(Seconds(target));
        recording.AwaitIndexed(target, target + kSinkRate);
    }
    const HeardClock clock = ClockOf(recording);
    player.Stop();

    const Heard heard = FindIndexed(clock.Recorded(), 0, kMaterial);
    Reactions toTarget;
    Reactions toSilence;
    for (const Seek& seek : seeks)
    {
        const auto found = std::find_if(heard.indices.begin(), heard.indices.end(),
                                        [&](size_t index) {
                                            return index + GetParam().early >= seek.target &&
                                                   index <= seek.target + kSinkRate / 4;
                                        });
        ASSERT_NE(found, heard.indices.end()) << seek.target;
        ASSERT_NE(found, heard.indices.begin());
        const auto at = static_cast<size_t>(found - heard.indices.begin());
        EXPECT_LE(*found, seek.target); // nothing of the new place is missing
        const double called = clock.PlaceAt(seek.calledNs);
        toTarget.all.push_back((heard.positions[at] - called) / double{kQuantum});
        toSilence.all.push_back((heard.positions[at - 1] + 1 - called) / double{kQuantum});
    }
    EXPECT_EQ(heard.altered + heard.foreign, 0u);
    std::cout << "seek to target: " << toTarget << "\nseek to the end of the old: " << toSilence
              << std::endl;
    EXPECT_LE(toTarget.Median(), 2.0);
    EXPECT_LE(toTarget.Worst(), 8.0); // the worker may have to wait for a processor
}

TEST_P(PlayerReactionOf, StopIsSilentWithinOneQuantum)
{
    constexpr size_t kPlays = 10;
    std::mt19937 random(6);
    std::uniform_int_distribution<int> wait(100000, 150000);
    MonitorRecording recording;
    TovrelAudioPlayer player;
    const std::string file = GetParam().file ? IndexedFile(GetParam().file, GetParam().codec) : "";
    player.SetEqualizerEnabled(false);
    struct Call
    {
        int64_t calledNs;
        int64_t returnedNs;
    };
    std::vector<Call> calls;
    for (size_t play = 0; play < kPlays; ++play)
    {
        if (GetParam().file)
            player.PlayFile(file);
        else
            ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, kMaterial), kSinkRate, kSinkChannels));
        recording.AwaitSound();
        std::this_thread::sleep_for(std::chrono::microseconds(wait(random)));
        Call call{MonotonicNs(), 0};
        if (play % 2 == 0)
            player.RequestStop();
        else
            player.Stop();
        call.returnedNs = MonotonicNs();
        calls.push_back(call);
        recording.AwaitMore(3 * kQuantum);
    }
    player.Stop();
    const HeardClock clock = ClockOf(recording);
    const Heard heard = FindIndexed(clock.Recorded(), 0, kMaterial);

    Reactions toSilence;
    double worstAfterReturn = 0.0;
    for (const Call& call : calls)
    {
        // The last frame that was heard before the pause behind the call.
        const double called = clock.PlaceAt(call.calledNs);
        const double returned = clock.PlaceAt(call.returnedNs);
        const auto behind = std::upper_bound(heard.positions.begin(), heard.positions.end(),
                                             returned + 2.5 * kQuantum);
        ASSERT_NE(behind, heard.positions.begin());
        const double silent = *(behind - 1) + 1.0;
        toSilence.all.push_back((silent - called) / double{kQuantum});
        worstAfterReturn = std::max(worstAfterReturn, (silent - returned) / double{kQuantum});
    }
    std::cout << "stop to silence: " << toSilence << std::endl;
    EXPECT_LE(worstAfterReturn, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Source, PlayerReactionOf,
                         testing::Values(SourceCase{"Pcm", nullptr, nullptr, 0},
                                         SourceCase{"Wav", "indexed.wav", "pcm_f32le", 0},
                                         SourceCase{"Flac", "indexed.flac", "flac", 5760}),
                         [](const auto& source) { return source.param.name; });

} // namespace
