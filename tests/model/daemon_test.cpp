// The same on a real daemon, in real time: random sequences of playing, seeking, pausing and
// stopping, with what was heard in the end held against what was asked for.
#include "harness.h"
#include "operations.h"
#include "property.h"

#include "tovrel_audio_player.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

// Up to three seconds each. Shrinking takes minutes: "noshrink=0" where it is wanted.
constexpr const char* kSequences = "max_success=20 max_size=40 noshrink=1";
constexpr unsigned kWatchdogSeconds = 60; // for each

constexpr size_t kFrames = kSinkRate * 3 / 2; // of every playback
constexpr double kDuration = Seconds(kFrames);
constexpr int kSources = 2; // a PCM buffer and a file

// With so little left everything may be queued, and a seek come too late.
constexpr double kNearTheEnd = 1.0;

double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Seek
{
    size_t frame = 0;
    bool bInTime = false; // so that it must be followed, unless another one or a stop follows
};

// One playback, which has its own part of the indexed signal.
struct Playback
{
    size_t first = 0; // index
    size_t start = 0; // frame within the playback
    std::vector<Seek> seeks;
    bool bCut = false; // by a stop or the next playback
};

class HeardPlayer
{
public:
    void Do(const Operation& operation);

    // Lets what plays come to its end, and compares all that was heard with what was asked for.
    void PlayOut();

private:
    void Start(const Operation& operation);
    void NoteSeek(double seconds);
    void PauseOrResume(bool bPaused);
    void NoteStop();
    void LookAtState();
    void LookAtPosition();
    size_t FrameOf(double seconds) const;
    std::vector<uint32_t>::const_iterator LookAt(const Playback& playback,
                                                 std::vector<uint32_t>::const_iterator next,
                                                 std::vector<uint32_t>::const_iterator end) const;

    MonitorRecording m_recording;
    TovrelAudioPlayer m_player;
    std::vector<Playback> m_playbacks;
    bool m_bFile = false;
    bool m_bPaused = false;
    bool m_bStopRequested = false;
    double m_latest = 0.0;   // the position that cannot be passed yet
    double m_latestAt = 0.0; // as of then
    double m_frozen = -1.0;  // read in this pause
};

void HeardPlayer::Do(const Operation& operation)
{
    using enum Operation::Kind;
    const bool bOn = operation.choice != 0;
    switch (operation.kind)
    {
    case Play:
        Start(operation);
        break;
    case SeekToSeconds:
        NoteSeek(operation.number);
        m_player.SeekToSeconds(operation.number);
        break;
    case SeekToFraction:
        NoteSeek(std::clamp(operation.number, 0.0, 1.0) * kDuration);
        m_player.SeekToFraction(operation.number);
        break;
    case SetPaused:
        PauseOrResume(bOn);
        break;
    case TogglePaused:
        PauseOrResume(!m_player.IsPaused());
        break;
    case RequestStop:
        NoteStop();
        m_player.RequestStop();
        break;
    case Stop:
        NoteStop();
        m_player.Stop();
        RC_ASSERT(!m_player.IsPlaying());
        break;
    case Look:
        LookAtPosition();
        break;
    default:
        SleepMs(static_cast<int>(operation.number * 1000.0));
    }
    LookAtState();
}

void HeardPlayer::Start(const Operation& operation)
{
    NoteStop();
    m_bFile = operation.choice != 0;
    Playback playback;
    playback.first = m_playbacks.size() * kFrames;
    const std::vector<float> samples = IndexedFrames(playback.first, kFrames);
    const double start = m_bFile || std::isnan(operation.number)
                             ? 0.0
                             : std::clamp(operation.number, 0.0, kDuration);
    playback.start = FrameOf(start);
    m_latest = start;
    m_latestAt = Now();
    if (m_bFile)
    {
        const std::string raw = RuntimePath("model.raw");
        const std::string wav = RuntimePath("model.wav");
        WriteFloats(raw, samples);
        RunFfmpeg({"-f", "f32le", "-ar", "48000", "-ac", "2", "-i", raw, "-c:a", "pcm_f32le", wav});
        RC_ASSERT(m_player.PlayFile(wav));
        // A seek is nothing to a file whose duration is not known yet.
        RC_ASSERT(WaitUntil([&] { return m_player.DurationSeconds() > 0.0; }, kOftenMs));
    }
    else
        RC_ASSERT(m_player.PlayPcm(samples, kSinkRate, kSinkChannels, operation.number));
    RC_ASSERT(std::fabs(m_player.DurationSeconds() - kDuration) < 1e-9);
    m_playbacks.push_back(playback);
    m_bPaused = false;
    m_bStopRequested = false;
    m_frozen = -1.0;
}

// Before the seek itself.
void HeardPlayer::NoteSeek(double seconds)
{
    if (m_playbacks.empty() || std::isnan(seconds))
        return;
    const double target = std::clamp(seconds, 0.0, kDuration);
    const bool bInTime = m_player.IsPlaying() && !m_bStopRequested &&
                         m_player.CurrentSeconds() < kDuration - kNearTheEnd;
    m_playbacks.back().seeks.push_back({FrameOf(target), bInTime});
    m_latest = target;
    m_latestAt = Now();
    m_frozen = -1.0;
}

void HeardPlayer::PauseOrResume(bool bPaused)
{
    m_player.SetPaused(bPaused);
    m_bPaused = bPaused;
    m_frozen = -1.0;
}

void HeardPlayer::NoteStop()
{
    m_bStopRequested = true;
    m_bPaused = false;
    m_frozen = -1.0;
    if (!m_playbacks.empty() && !m_player.HasFinished())
        m_playbacks.back().bCut = true;
}

size_t HeardPlayer::FrameOf(double seconds) const
{
    // Files are sought in microseconds.
    const double exact = m_bFile ? static_cast<double>(std::llround(seconds * 1e6)) / 1e6 : seconds;
    return static_cast<size_t>(std::llround(exact * kSinkRate));
}

void HeardPlayer::LookAtState()
{
    RC_ASSERT(m_player.LastError() == "");
    RC_ASSERT(m_player.IsStopRequestedForInterrupt() == m_bStopRequested);
    // What ends by itself may end at any moment; it keeps its pause then.
    if (m_player.IsPlaying())
        RC_ASSERT(m_player.IsPaused() == m_bPaused);
}

void HeardPlayer::LookAtPosition()
{
    const double position = m_player.CurrentSeconds();
    RC_ASSERT(position >= 0.0);
    RC_ASSERT(position <= kDuration + 1e-9);
    // A queue is ahead of the clock where a playback was stopped.
    constexpr double kMostQueued = 0.6;
    if (!m_bStopRequested)
        RC_ASSERT(position <= m_latest + (Now() - m_latestAt) + kMostQueued);
    if (!m_player.IsPlaying() || !m_player.IsPaused())
        return;
    constexpr double kTick = 0.0011;
    const bool bFrozen = m_frozen < 0.0 || std::fabs(position - m_frozen) < kTick ||
                         std::fabs(position - m_latest) < kTick;
    RC_ASSERT(bFrozen);
    m_frozen = position;
}

void HeardPlayer::PlayOut()
{
    PauseOrResume(false);
    if (!m_playbacks.empty())
        RC_ASSERT(WaitForEnd(m_player));
    LookAtPosition();
    m_player.Stop();
    const Heard heard = FindIndexed(m_recording.Finish(), 0, m_playbacks.size() * kFrames);
    RC_ASSERT(heard.altered == 0U);
    RC_ASSERT(heard.foreign == 0U);
    auto next = heard.indices.begin();
    for (const Playback& playback : m_playbacks)
        next = LookAt(playback, next, heard.indices.end());
    RC_ASSERT(next == heard.indices.end());
}

// Frame after frame, but where a seek goes elsewhere. Returns what comes after this playback.
std::vector<uint32_t>::const_iterator
HeardPlayer::LookAt(const Playback& playback, std::vector<uint32_t>::const_iterator next,
                    std::vector<uint32_t>::const_iterator end) const
{
    size_t expected = playback.start;
    size_t from = playback.start;       // where it went on last
    auto seek = playback.seeks.begin(); // the first that was not followed yet
    const auto follow = [&](size_t frame)
    {
        const auto to = std::find_if(seek, playback.seeks.end(),
                                     [&](const Seek& other) { return other.frame == frame; });
        if (to == playback.seeks.end())
            return false;
        expected = from = frame;
        seek = to + 1;
        return true;
    };
    for (; next != end && *next >= playback.first && *next < playback.first + kFrames; ++next)
    {
        const size_t frame = *next - playback.first;
        if (frame != expected && !follow(frame))
            RC_FAIL("frame " + std::to_string(frame) + " of the playback from " +
                    std::to_string(playback.first) + " on was heard instead of " +
                    std::to_string(expected));
        ++expected;
    }
    if (playback.bCut)
        return next;
    if (expected != kFrames && !follow(kFrames))
        RC_FAIL("the playback from " + std::to_string(playback.first) + " on ended at frame " +
                std::to_string(expected));
    const bool bFollowed = playback.seeks.empty() || !playback.seeks.back().bInTime ||
                           playback.seeks.back().frame == from;
    RC_ASSERT(bFollowed);
    return next;
}

TEST(ModelOnADaemon, WhatIsAskedForIsHeardInEverySequence)
{
    Weights weights;
    weights.control = 0;
    ExpectProperty(kSequences,
                   [&]
                   {
                       const Operations operations = *RandomOperations(kSources, weights);
                       alarm(kWatchdogSeconds);
                       HeardPlayer player;
                       for (const Operation& operation : operations)
                           player.Do(operation);
                       player.PlayOut();
                   });
}

} // namespace
