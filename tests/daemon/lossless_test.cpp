// Nothing lost, nothing doubled: over many plays, pauses at any moment, ends and stops, cycles and
// rates of the graph, and on a busy machine.
#include "harness.h"

#include "pipewire_player.h"
#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <complex>
#include <functional>
#include <iostream>
#include <ostream>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace
{

constexpr size_t kSecond = kSinkRate; // in frames
constexpr int kCdRate = 44100;
constexpr int kEndPollMs = 5; // of a play that lasts a twentieth of a second

// --- A constant signal that changes its sign ----------------------------------------------------

// What a resampler makes of a frame cannot be told apart from its neighbours. The sum of a constant
// signal still tells how many were heard, and the sign which play they belong to.
constexpr float kLoud = 0.05f; // beyond what a resampler rings with on the other side of zero

float SignOfPlay(size_t play)
{
    return play % 2 == 0 ? 1.0f : -1.0f;
}

// One play of the constant signal, as recorded.
struct Burst
{
    float sign = 0.0f;
    size_t first = 0; // the recording's first and last loud frame of it
    size_t last = 0;
    double frames = 0.0; // how many were heard, in frames of the stream
};

std::vector<Burst> BurstsIn(const std::vector<float>& recorded, int streamRate, int graphRate)
{
    const size_t frames = recorded.size() / kSinkChannels;
    std::vector<Burst> bursts;
    for (size_t at = 0; at < frames; ++at)
    {
        const float value = recorded[at * kSinkChannels];
        if (std::fabs(value) < kLoud)
            continue;
        const float sign = value > 0.0f ? 1.0f : -1.0f;
        if (bursts.empty() || bursts.back().sign != sign)
            bursts.push_back({sign, at, at, 0.0});
        bursts.back().last = at;
    }
    // What rings before and after belongs to each, as far as the middle between them.
    for (size_t burst = 0; burst < bursts.size(); ++burst)
    {
        const size_t from = burst == 0 ? 0 : (bursts[burst - 1].last + bursts[burst].first + 1) / 2;
        const size_t to = burst + 1 == bursts.size()
                              ? frames
                              : (bursts[burst].last + bursts[burst + 1].first + 1) / 2;
        double sum = 0.0;
        for (size_t at = from; at < to; ++at)
            sum += static_cast<double>(recorded[at * kSinkChannels]);
        bursts[burst].frames =
            sum / static_cast<double>(kConstant * bursts[burst].sign) * streamRate / graphRate;
    }
    return bursts;
}

// What a resampler makes of a play's first frame is a tenth short of it.
constexpr double kResamplerTolerance = 0.25; // frames; a lost or repeated one is 1

// A level that is off by a hundred thousandth adds to that in long plays.
constexpr double kGainTolerance = 0.00001;

void ExpectHeard(const Burst& burst, size_t frames)
{
    EXPECT_NEAR(burst.frames, static_cast<double>(frames),
                kResamplerTolerance + static_cast<double>(frames) * kGainTolerance);
}

// --- Many plays ---------------------------------------------------------------------------------

// Sanitizers make every start of a play longer than the play.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kPlays = 100;
#else
constexpr size_t kPlays = 200;
#endif

// Around every border of chunk, cycle and end rule, and anywhere else.
size_t LengthOfPlay(size_t play)
{
    constexpr std::array<size_t, 20> kBorders = {1,    480,  959,  960,  961,  1023, 1024,
                                                 1025, 1983, 1984, 2047, 2048, 2049, 2400,
                                                 3007, 3008, 4096, 4799, 4800, 4801};
    return play % 2 == 0 ? kBorders[play / 2 % kBorders.size()] : 1 + play * 1237 % 4000;
}

// A way to play the indexed signal bit for bit.
struct Exact
{
    const char* name;
    int rate; // of the stream and of the graph
    int channels;
};
void PrintTo(const Exact& format, std::ostream* out)
{
    *out << format.name;
}

// Mono sounds on both channels; of surround sound the front channels alone have something to say.
std::vector<float> IndexedFramesFor(const Exact& format, size_t first, size_t count)
{
    const std::vector<float> stereo = IndexedFrames(first, count);
    const auto channels = static_cast<size_t>(format.channels);
    std::vector<float> samples(count * channels);
    for (size_t frame = 0; frame < count; ++frame)
        std::copy_n(&stereo[frame * kSinkChannels], std::min<size_t>(channels, kSinkChannels),
                    &samples[frame * channels]);
    return samples;
}

// What was heard of mono material, as if it had been stereo.
std::vector<float> WithRightInverted(std::vector<float> recording)
{
    for (size_t at = 1; at < recording.size(); at += kSinkChannels)
        recording[at] = -recording[at];
    return recording;
}

class LosslessPlays : public testing::TestWithParam<Exact>
{
};

TEST_P(LosslessPlays, InARowAreHeardBitForBitFromFirstFrameToLast)
{
    const Exact& format = GetParam();
    if (format.rate != kSinkRate)
        ForceRate(format.rate);
    MonitorRecording recording("null-sink", format.rate);
    TovrelAudioPlayer player;
    size_t next = 0;
    for (size_t play = 0; play < kPlays; ++play)
    {
        const size_t length = LengthOfPlay(play);
        ASSERT_TRUE(
            player.PlayPcm(IndexedFramesFor(format, next, length), format.rate, format.channels));
        ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
        next += length;
    }
    const std::vector<float> recorded = recording.Finish();
    EXPECT_TRUE(IsComplete(
        FindIndexed(format.channels == 1 ? WithRightInverted(recorded) : recorded, 0, next)));
}

INSTANTIATE_TEST_SUITE_P(Format, LosslessPlays,
                         testing::Values(Exact{"Stereo48000", 48000, 2},
                                         Exact{"Mono48000", 48000, 1},
                                         Exact{"Surround48000", 48000, 6},
                                         Exact{"Stereo44100OnItsOwnGraph", 44100, 2}),
                         [](const auto& format) { return format.param.name; });

TEST(LosslessPlaysResampled, InARowAreHeardFromFirstFrameToLast)
{
    constexpr size_t kShortest = 100; // below this the resampler leaves too little to tell apart
    MonitorRecording recording;
    TovrelAudioPlayer player;
    for (size_t play = 0; play < kPlays; ++play)
    {
        ASSERT_TRUE(player.PlayPcm(
            ConstantFrames(kShortest + LengthOfPlay(play), SignOfPlay(play) * kConstant), kCdRate,
            kSinkChannels));
        ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    }
    const std::vector<Burst> bursts = BurstsIn(recording.Finish(), kCdRate, kSinkRate);
    ASSERT_EQ(bursts.size(), kPlays);
    double least = 0.0;
    double most = -1.0;
    for (size_t play = 0; play < kPlays; ++play)
    {
        const size_t length = kShortest + LengthOfPlay(play);
        SCOPED_TRACE("play " + std::to_string(play) + " of " + std::to_string(length) + " frames");
        ExpectHeard(bursts[play], length);
        least = std::min(least, bursts[play].frames - static_cast<double>(length));
        most = std::max(most, bursts[play].frames - static_cast<double>(length));
    }
    std::cout << kPlays << " plays, heard of each " << least << " to " << most << " frames more"
              << std::endl;
}

// --- Pauses at any moment -----------------------------------------------------------------------

constexpr int kPauses = 30;
constexpr size_t kPausedSeconds = 3; // of material

// Holds and resumes at random moments, now and then without any time between.
void PauseAtRandom(const std::function<void(bool bPaused)>& setPaused)
{
    std::mt19937 random(20240229);
    std::uniform_int_distribution<int> milliseconds(0, 60);
    for (int pause = 0; pause < kPauses; ++pause)
    {
        SleepMs(milliseconds(random));
        setPaused(true);
        SleepMs(pause % 5 == 0 ? 0 : milliseconds(random));
        setPaused(false);
    }
}

TEST(LosslessPauses, OfThePlayerAtRandomMomentsLoseAndRepeatNothing)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    ASSERT_TRUE(
        player.PlayPcm(IndexedFrames(0, kPausedSeconds * kSecond), kSinkRate, kSinkChannels));
    PauseAtRandom([&](bool bPaused) { player.SetPaused(bPaused); });
    ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    const Heard heard = FindIndexed(recording.Finish(), 0, kPausedSeconds * kSecond);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.gaps, size_t{kPauses} / 4);
}

TEST(LosslessPauses, OfTheSinkAtRandomMomentsLoseAndRepeatNothing)
{
    MonitorRecording recording;
    RunningSink sink;
    PushFrames(sink, IndexedFrames(0, kPausedSeconds * kSecond));
    PauseAtRandom([&](bool bPaused) { sink.SetActive(!bPaused); });
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    const Heard heard = FindIndexed(recording.Finish(), 0, kPausedSeconds * kSecond);
    EXPECT_TRUE(IsComplete(heard));
    EXPECT_GE(heard.gaps, size_t{kPauses} / 4);
}

// To the left a constant, which counts the frames that were heard, to the right a tone, whose phase
// tells which frame one is: a lost or repeated frame sets the two apart from there on.
constexpr double kToneHz = 1000.0;
constexpr size_t kTonePeriods = 10;
constexpr size_t kToneWindow = kTonePeriods * kSinkRate / static_cast<size_t>(kToneHz);
constexpr size_t kRinging = 64; // frames to either side of a break that a resampler rings for

std::vector<float> CountedTone(size_t frames, int rate)
{
    std::vector<float> samples;
    samples.reserve(frames * kSinkChannels);
    for (size_t frame = 0; frame < frames; ++frame)
    {
        samples.push_back(kConstant);
        const double angle = 2.0 * M_PI * kToneHz * static_cast<double>(frame) / rate;
        samples.push_back(static_cast<float>(0.5 * std::cos(angle)));
    }
    return samples;
}

struct ToneOutcome
{
    double frames = 0.0;     // heard, in frames of the stream
    double worstSlip = 0.0;  // by how many frames the tone is off its count, anywhere
    size_t windows = 0;      // in which that was looked at
    double levelError = 0.0; // of the constant in these, relative
};

ToneOutcome FollowTone(const std::vector<float>& recorded, int streamRate)
{
    const size_t frames = recorded.size() / kSinkChannels;
    const auto left = [&](size_t at)
    {
        return static_cast<double>(recorded[at * kSinkChannels]) / static_cast<double>(kConstant);
    };
    // The windows in which nothing breaks.
    std::vector<size_t> windows;
    size_t steady = 0;
    double level = 0.0;
    for (size_t at = 0; at < frames; ++at)
    {
        steady = std::fabs(left(at) - 1.0) < 0.001 ? steady + 1 : 0;
        if (steady < kToneWindow + 2 * kRinging)
            continue;
        windows.push_back(at + 1 - kToneWindow - kRinging);
        steady -= kToneWindow;
        for (size_t frame = windows.back(); frame < windows.back() + kToneWindow; ++frame)
            level += left(frame);
    }
    ToneOutcome outcome;
    outcome.windows = windows.size();
    if (windows.empty())
        return outcome;
    level /= static_cast<double>(windows.size() * kToneWindow);
    outcome.levelError = level - 1.0;

    const double perFrame = streamRate / (level * kSinkRate);
    const double slipPerRadian = streamRate / (2.0 * M_PI * kToneHz);
    size_t at = 0;
    double firstPhase = 0.0;
    for (const size_t window : windows)
    {
        for (; at < window; ++at)
            outcome.frames += left(at) * perFrame;
        std::complex<double> sum = 0.0;
        for (size_t frame = 0; frame < kToneWindow; ++frame)
            sum += static_cast<double>(recorded[(window + frame) * kSinkChannels + 1]) *
                   std::polar(1.0, -2.0 * M_PI * kToneHz * static_cast<double>(frame) / kSinkRate);
        const double phase = std::arg(sum) - outcome.frames / slipPerRadian;
        if (window == windows.front())
            firstPhase = phase;
        const double slip = std::remainder(phase - firstPhase, 2.0 * M_PI) * slipPerRadian;
        outcome.worstSlip = std::max(outcome.worstSlip, std::fabs(slip));
    }
    for (; at < frames; ++at)
        outcome.frames += left(at) * perFrame;
    return outcome;
}

void ExpectWholeTone(const std::vector<float>& recorded, size_t frames, int rate)
{
    const ToneOutcome outcome = FollowTone(recorded, rate);
    std::cout << "of " << frames << " frames heard " << outcome.frames << ", off by at most "
              << outcome.worstSlip << " frames in " << outcome.windows << " places, level error "
              << outcome.levelError << std::endl;
    EXPECT_NEAR(outcome.frames, static_cast<double>(frames), kResamplerTolerance);
    EXPECT_LE(outcome.worstSlip, kResamplerTolerance);
    EXPECT_GE(outcome.windows, size_t{kPauses});
}

TEST(LosslessPausesResampled, OfThePlayerAtRandomMomentsLoseAndRepeatNothing)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    ASSERT_TRUE(
        player.PlayPcm(CountedTone(kPausedSeconds * kCdRate, kCdRate), kCdRate, kSinkChannels));
    PauseAtRandom([&](bool bPaused) { player.SetPaused(bPaused); });
    ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    ExpectWholeTone(recording.Finish(), kPausedSeconds * kCdRate, kCdRate);
}

TEST(LosslessPausesResampled, OfTheSinkAtRandomMomentsLoseAndRepeatNothing)
{
    MonitorRecording recording;
    RunningSink sink(kCdRate);
    PushFrames(sink, CountedTone(kPausedSeconds * kCdRate, kCdRate));
    PauseAtRandom([&](bool bPaused) { sink.SetActive(!bPaused); });
    ASSERT_TRUE(DrainAsWorkersDo(sink));
    ExpectWholeTone(recording.Finish(), kPausedSeconds * kCdRate, kCdRate);
}

// --- Ends and stops -----------------------------------------------------------------------------

constexpr size_t kRounds = 12;
constexpr size_t kRoundFrames = 5000;

// The recording goes on by this much before the next round starts: what the graph has taken is
// played within two cycles and recorded in a third.
constexpr size_t kUntilSilent = 4 * kQuantum;

// Plays a round to its end or, every other one, to a stop in its middle, through the same sink, and
// returns when the sink is silent.
void PlayRound(PipeWirePlayer& sink, const MonitorRecording& recording, size_t round,
               const std::vector<float>& samples)
{
    PushFrames(sink, samples);
    sink.SetActive(true);
    if (round % 2 == 0)
    {
        EXPECT_TRUE(DrainAsWorkersDo(sink));
    }
    else
    {
        recording.AwaitMore(2 * kQuantum);
        sink.SetActive(false);
        sink.Clear();
    }
    recording.AwaitMore(kUntilSilent);
}

// What was heard from one round's start to the next one's.
struct Round
{
    double frames = 0.0; // of its own, in frames of the stream
    size_t residue = 0;  // frames of the recording that belong to the round before
};

Round HeardOfRound(const std::vector<float>& recorded, const std::vector<size_t>& starts,
                   size_t round)
{
    const size_t end =
        round + 1 < starts.size() ? starts[round + 1] : recorded.size() / kSinkChannels;
    Round heard;
    for (size_t at = starts[round]; at < end; ++at)
    {
        const float value = recorded[at * kSinkChannels] * SignOfPlay(round);
        heard.frames += static_cast<double>(value / kConstant) * kCdRate / kSinkRate;
        heard.residue += value < -kLoud ? 1 : 0;
    }
    return heard;
}

// A round that was stopped may have been heard or not; the one after it is whole and alone.
void ExpectWholeRoundsWithoutResidue(const std::vector<float>& recorded,
                                     const std::vector<size_t>& starts)
{
    for (size_t round = 0; round < starts.size(); ++round)
    {
        SCOPED_TRACE("round " + std::to_string(round));
        const Round heard = HeardOfRound(recorded, starts, round);
        EXPECT_EQ(heard.residue, 0u);
        if (round % 2 == 0)
        {
            EXPECT_NEAR(heard.frames, kRoundFrames, kResamplerTolerance);
        }
    }
}

TEST(LosslessEnds, OfOnePlayLeaveNoResidueInTheNextOfTheSameSink)
{
    MonitorRecording recording;
    RunningSink sink;
    std::vector<size_t> starts;
    for (size_t round = 0; round < kRounds; ++round)
    {
        starts.push_back(recording.Now());
        PlayRound(sink, recording, round, IndexedFrames(round * kRoundFrames, kRoundFrames));
    }
    const Heard heard = FindIndexed(recording.Finish(), 0, kRounds * kRoundFrames);
    EXPECT_EQ(heard.repeated + heard.outOfOrder + heard.altered, 0u);
    std::vector<size_t> heardOf(kRounds);
    for (size_t at = 0; at < heard.indices.size(); ++at)
    {
        const size_t round = heard.indices[at] / kRoundFrames;
        EXPECT_EQ(heard.indices[at] % kRoundFrames, heardOf[round]) << "of round " << round;
        ++heardOf[round];
        EXPECT_GE(heard.positions[at], starts[round]);
        if (round + 1 < kRounds)
        {
            EXPECT_LT(heard.positions[at], starts[round + 1]) << "a residue of round " << round;
        }
    }
    for (size_t round = 0; round < kRounds; round += 2)
        EXPECT_EQ(heardOf[round], kRoundFrames) << "round " << round << " is cut";
}

// Resamplers hold back some frames of what they were given.
TEST(LosslessEnds, OfOneResampledPlayLeaveNoResidueInTheNextOfTheSameSink)
{
    MonitorRecording recording;
    RunningSink sink(kCdRate);
    std::vector<size_t> starts;
    for (size_t round = 0; round < kRounds; ++round)
    {
        starts.push_back(recording.Now());
        PlayRound(sink, recording, round,
                  ConstantFrames(kRoundFrames, SignOfPlay(round) * kConstant));
    }
    ExpectWholeRoundsWithoutResidue(recording.Finish(), starts);
}

TEST(LosslessEnds, OfOneStoppedPlayLeaveNoResidueInTheNextOfTheSamePlayer)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    std::vector<size_t> starts;
    for (size_t round = 0; round < kRounds; ++round)
    {
        starts.push_back(recording.Now());
        ASSERT_TRUE(player.PlayPcm(ConstantFrames(kRoundFrames, SignOfPlay(round) * kConstant),
                                   kCdRate, kSinkChannels));
        if (round % 2 == 0)
        {
            ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
        }
        else
        {
            recording.AwaitMore(4 * kQuantum); // of which one or two are heard
            player.Stop();
        }
        recording.AwaitMore(kUntilSilent);
    }
    ExpectWholeRoundsWithoutResidue(recording.Finish(), starts);
}

// --- The graph's cycle and rate -----------------------------------------------------------------

// Plays buffers of these lengths, one after another, and returns their sum.
size_t PlayInARow(const std::vector<size_t>& lengths)
{
    TovrelAudioPlayer player;
    size_t next = 0;
    for (const size_t length : lengths)
    {
        EXPECT_TRUE(player.PlayPcm(IndexedFrames(next, length), kSinkRate, kSinkChannels));
        EXPECT_TRUE(WaitForEnd(player, kEndPollMs));
        next += length;
    }
    return next;
}

class LosslessAtQuantum : public testing::TestWithParam<size_t>
{
};

TEST_P(LosslessAtQuantum, EveryFrameIsHeard)
{
    if (!MayRunAtQuantum(GetParam()))
        GTEST_SKIP() << "no real-time priority for this process";
    const size_t quantum = GetParam();
    ForceQuantum(quantum);
    MonitorRecording recording;
    const size_t played =
        PlayInARow({1, quantum - 1, quantum, quantum + 1, 960, 1025, 2 * quantum + 1, 6000});
    const std::vector<float> recorded = recording.Finish(4 * std::max(quantum, kQuantum));
    EXPECT_TRUE(IsComplete(FindIndexed(recorded, 0, played)));
}

INSTANTIATE_TEST_SUITE_P(Frames, LosslessAtQuantum, testing::Values(32, 64, 1024, 8192),
                         testing::PrintToStringParamName());

class LosslessAtGraphRate : public testing::TestWithParam<int>
{
};

TEST_P(LosslessAtGraphRate, StreamOfTheSameRateIsHeardBitForBit)
{
    constexpr size_t kFrames = 30011;
    ForceRate(GetParam());
    MonitorRecording recording("null-sink", GetParam());
    TovrelAudioPlayer player;
    ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, kFrames), GetParam(), kSinkChannels));
    ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kFrames)));
}

TEST_P(LosslessAtGraphRate, StreamsOfOtherRatesAreHeardToTheLastFrame)
{
    constexpr size_t kFrames = 20011;
    ForceRate(GetParam());
    size_t play = 0;
    for (const int rate : {44100, 48000, 96000})
    {
        if (rate == GetParam())
            continue;
        MonitorRecording recording("null-sink", GetParam());
        TovrelAudioPlayer player;
        ASSERT_TRUE(player.PlayPcm(ConstantFrames(kFrames), rate, kSinkChannels));
        ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
        const std::vector<Burst> bursts = BurstsIn(recording.Finish(), rate, GetParam());
        ASSERT_EQ(bursts.size(), 1u);
        std::cout << "of " << kFrames << " frames at " << rate << " Hz heard " << bursts[0].frames
                  << std::endl;
        ExpectHeard(bursts[0], kFrames);
        ++play;
    }
    EXPECT_EQ(play, 2u);
}

INSTANTIATE_TEST_SUITE_P(Hz, LosslessAtGraphRate, testing::Values(44100, 48000, 96000),
                         testing::PrintToStringParamName());

// --- A busy machine -----------------------------------------------------------------------------

// Threads that compute without end, in the life of the object, at the priority of an ordinary
// program: the launcher of these tests may have raised this one's.
class BusyMachine
{
public:
    BusyMachine()
    {
        for (std::thread& thread : m_threads)
            thread = std::thread(
                [this]
                {
                    setpriority(PRIO_PROCESS, 0, 0); // of this thread alone
                    while (!m_bEnd)
                    {
                    }
                });
    }
    ~BusyMachine()
    {
        m_bEnd = true;
        for (std::thread& thread : m_threads)
            thread.join();
    }
    BusyMachine(const BusyMachine&) = delete;
    BusyMachine& operator=(const BusyMachine&) = delete;

private:
    std::atomic<bool> m_bEnd{false};
    std::array<std::thread, 4> m_threads;
};

constexpr size_t kBusyFrames = 2 * kSecond;

TEST(LosslessOnABusyMachine, BufferIsHeardFromFirstFrameToLast)
{
    MonitorRecording recording;
    TovrelAudioPlayer player;
    {
        const BusyMachine busy;
        ASSERT_TRUE(player.PlayPcm(IndexedFrames(0, kBusyFrames), kSinkRate, kSinkChannels));
        ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    }
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kBusyFrames)));
}

TEST(LosslessOnABusyMachine, FileIsHeardFromFirstFrameToLast)
{
    const std::string raw = RuntimePath("indexed.raw");
    const std::string path = RuntimePath("indexed.wav");
    WriteFloats(raw, IndexedFrames(0, kBusyFrames));
    RunFfmpeg({"-f", "f32le", "-ar", "48000", "-ac", "2", "-i", raw, "-c:a", "pcm_f32le", path});
    MonitorRecording recording;
    TovrelAudioPlayer player;
    {
        const BusyMachine busy;
        player.PlayFile(path);
        ASSERT_TRUE(WaitForEnd(player, kEndPollMs));
    }
    EXPECT_EQ(player.LastError(), "");
    EXPECT_TRUE(IsComplete(FindIndexed(recording.Finish(), 0, kBusyFrames)));
}

} // namespace
