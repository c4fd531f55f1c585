#include "modelled_player.h"

#include "joining.h"
#include "virtual_time.h"

#include <rapidcheck.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>
#include <thread>
#include <utility>

namespace
{

// What the worker's polls leave open, in seconds: a full queue is looked at every 8 ms, everything
// else within 20 ms, a stream that waits for its next attempt within 100 ms.
constexpr double kQueuePoll = 0.008;
constexpr double kStep = 0.020;
constexpr double kStreamStep = 0.100;
constexpr double kClockTick = 0.001; // of the player's clock
constexpr double kRounding = 1e-9;

constexpr double kPcmLimit = 0.35;
constexpr double kFileLimit = 0.5;
constexpr double kStreamLimit = 2.0;
constexpr double kPlayedOut = 0.02;
constexpr double kLongestBlock = 0.15; // of a file, in seconds

// How early a seek in a file of blocks may land, in seconds.
constexpr double kLandsEarly = 0.3;

// How far a tap's position may lie from the place where a resampler or an encoder's padding has
// moved it, in seconds.
constexpr double kTapSlack = 0.03;

constexpr size_t kSpectrumFrames = 2048;

// A NaN stays: the bounds are of range.
double Clamped(double value, double low, double high)
{
    value = value < low ? low : value;
    return value > high ? high : value;
}

bool IsSame(float a, float b)
{
    return a == b || (std::isnan(a) && std::isnan(b));
}

bool IsSame(double a, double b)
{
    return a == b || (std::isnan(a) && std::isnan(b));
}

bool IsSame(const float* a, const float* b, size_t count)
{
    return std::equal(a, a + count, b, [](float x, float y) { return IsSame(x, y); });
}

std::vector<float> MixedToMono(const std::vector<float>& samples, int channels)
{
    const auto width = static_cast<size_t>(channels);
    const size_t frames = samples.size() / width;
    std::vector<float> mono;
    for (size_t frame = frames - std::min(frames, kSpectrumFrames); frame < frames; ++frame)
    {
        float sum = 0.0f;
        for (size_t channel = 0; channel < width; ++channel)
            sum += samples[frame * width + channel];
        mono.push_back(sum / static_cast<float>(channels));
    }
    return mono;
}

template <class... Parts>
std::string Text(const Parts&... parts)
{
    std::ostringstream text;
    text.precision(10);
    (text << ... << parts);
    return text.str();
}

} // namespace

ModelledPlayer::ModelledPlayer(Sources& sources) : m_sources(sources)
{
    VirtualDevice::Reset();
    Joining::SetWorkerEnded(
        [this]
        { return !TovrelAudioPlayerTestAccess{m_player}.HasThread() || m_player.HasFinished(); });
}

ModelledPlayer::~ModelledPlayer()
{
    m_player.Stop();
    Joining::NoWorker();
    m_sources.EndServer();
}

template <class... Parts>
void ModelledPlayer::Require(bool bKept, const Parts&... message) const
{
    if (!bKept)
        RC_FAIL("after " + m_doing + ": " + Text(message...));
}

void ModelledPlayer::Do(const Operation& operation)
{
    using enum Operation::Kind;
    m_doing = Text(operation);
    // While it sleeps, the worker does nothing that was not there before: what is done to it shows
    // when time passes, or with the next one.
    m_bMayDeliver = operation.kind == Play ||
                    (operation.kind == Wait && m_bPlaying && !m_bPaused && !m_bStopRequested);
    m_bStarting = false;
    const size_t sinks = VirtualDevice::Sinks().size();
    Joining::TakeSeconds();
    if (operation.kind == Wait)
        VirtualTime::Step(operation.number);
    const Outcome outcome = m_host.Do(operation);
    VirtualTime::Settle();
    Promise(operation, outcome);
    if (m_bStarting)
        m_sinksBefore = sinks;
    LookAtEverything();
    if (operation.kind == Look)
        LookAtPosition();
}

void ModelledPlayer::PlayOut()
{
    using enum Operation::Kind;
    if (m_bPlaying && m_bPaused)
        Do({SetPaused, 0});
    if (m_bPlaying && !IsStream())
    {
        constexpr double kPolls = 0.1;
        const double seconds = static_cast<double>(m_source->Frames()) / m_source->rate;
        Do({Wait, 0, seconds + kPolls});
        Require(m_bFinished, "it has not come to its end");
    }
    LookAtPosition();
    Do({Stop});
    LookAtPosition();
    Do({Wait, 0, 1.0});
    LookAtPosition();
}

// --- What is promised of each operation

void ModelledPlayer::Promise(const Operation& operation, const Outcome& outcome)
{
    using enum Operation::Kind;
    const auto& [kind, choice, number] = operation;
    const bool bOn = choice != 0;
    const auto setVolume = [&](double volume)
    {
        m_controls.volume = Clamped(volume, 0.0, 1.5);
    };
    const auto setPan = [&](double pan)
    {
        m_controls.pan = Clamped(pan, -1.0, 1.0);
    };
    const auto setGain = [&](size_t band, double dB)
    {
        if (band < m_controls.gains.size())
            m_controls.gains[band] = Clamped(dB, -18.0, 18.0);
    };
    switch (kind)
    {
    case Wait:
    case Look:
        return;
    case Play:
        return PromisePlay(operation, outcome);
    case SeekToSeconds:
        PromiseSeek(number);
        // At once.
        if (m_duration > 0.0 && !std::isnan(number))
            Require(std::fabs(m_player.CurrentSeconds() - Clamped(number, 0.0, m_duration)) <
                        kRounding,
                    "the position reads ", m_player.CurrentSeconds());
        return;
    case SeekToFraction:
        return PromiseSeek(Clamped(number, 0.0, 1.0) * m_duration);
    case SetPaused:
        return PromisePaused(bOn);
    case TogglePaused:
        return PromisePaused(!m_bPaused);
    case Stop:
        PromiseStopRequest();
        return PromiseStop();
    case RequestStop:
        return PromiseStopRequest();
    case SetVolume:
        return setVolume(number);
    case AdjustVolume:
        return setVolume(m_controls.volume + number);
    case SetPan:
        return setPan(number);
    case AdjustPan:
        return setPan(m_controls.pan + number);
    case SetEqualizerEnabled:
        m_controls.bEqualizer = bOn;
        return;
    case SetEqualizerBandGain:
        return setGain(static_cast<size_t>(choice), number);
    case SetEqualizerBands:
        m_controls.bEqualizer = bOn;
        for (size_t band = 0; band < m_controls.gains.size(); ++band)
            setGain(band, BandsOf(operation)[band]);
        return;
    case SetTap:
        m_controls.tap = choice == 0 ? 0 : m_taps.Newest();
        m_controls.bTapReplacesItself = choice == 2;
        return;
    }
}

void ModelledPlayer::PromisePlay(const Operation& operation, const Outcome& outcome)
{
    const Source& source = m_sources.At(operation.choice);
    m_doing += " which is " + source.name;
    PromiseStopRequest();
    PromiseStop();
    Require(outcome.bPlays == source.reject.empty() && outcome.error == source.reject,
            "it returned ", outcome.bPlays, " and said: ", outcome.error);
    if (!outcome.bPlays)
        return;

    const bool bFromThere = source.kind == Source::Kind::Pcm && !std::isnan(operation.number);
    const double start = bFromThere ? Clamped(operation.number, 0.0, source.duration) : 0.0;
    m_source = &source;
    m_bPlaying = true;
    m_bStarting = true;
    m_bLingers = false;
    m_bPaused = false;
    m_bFinished = false;
    m_bStopRequested = false;
    m_duration = source.duration;
    // Of a lossy file it is what the container says.
    if (source.durationSlack > 0.0)
        m_duration = m_player.DurationSeconds();
    Require(std::fabs(m_duration - source.duration) <= source.durationSlack + kRounding,
            "the duration is ", m_duration);
    m_error = source.error;
    m_places = {Place{static_cast<size_t>(std::llround(start * source.rate)), {}, {}}};
    m_liveSeconds = 0.0;
    m_soughtAt = VirtualTime::Now() - kStep;
    AnchorAt({start, start});
    m_sink = nullptr;
    m_blocks = 0;
    m_samples = 0;
    m_droppedSamples = 0;
    m_samplesAtSeek.reset();
    m_bLastQueued = false;
    m_soughtTo = -1.0;
    m_changedAt = VirtualTime::Now();
}

void ModelledPlayer::PromiseSeek(double seconds)
{
    if (m_duration <= 0.0 || std::isnan(seconds))
        return;
    const double target = Clamped(seconds, 0.0, m_duration);
    m_soughtAt = VirtualTime::Now();
    m_soughtTo = target;
    AnchorAt({target, target});
    if (!m_bPlaying)
        m_resting = {target, target};
    else if (m_bStopRequested)
        m_resting = EndFrom({target, target});
    if (!m_bPlaying || m_bStopRequested)
        return;
    m_changedAt = VirtualTime::Now();
    // What is queued last is played to its end, whatever comes then.
    if (!m_bLastQueued)
        PlaceAt(target);
}

// What is delivered next comes from there.
void ModelledPlayer::PlaceAt(double target)
{
    if (m_samplesAtSeek != m_samples) // otherwise nothing came since the last one
        m_placesBeforeSeek = m_places;
    m_samplesAtSeek = m_samples;
    m_places.clear();
    const auto add = [&](size_t frame)
    {
        for (Place place : m_placesBeforeSeek)
        {
            place.frame = frame;
            m_places.push_back(place);
        }
    };
    // Files are sought in microseconds.
    const bool bPcm = m_source->kind == Source::Kind::Pcm;
    const double exact = bPcm ? target : static_cast<double>(std::llround(target * 1e6)) / 1e6;
    const auto frame = static_cast<size_t>(std::llround(exact * m_source->rate));
    if (m_source->seeking == Source::Seeking::ToTheFrame)
        add(frame);
    if (m_source->seeking != Source::Seeking::ToABlock)
        return;
    const auto early = static_cast<size_t>(kLandsEarly * m_source->rate);
    for (size_t block = 0; block <= frame; block += m_source->blockFrames)
        if (block + early >= frame)
            add(block);
}

void ModelledPlayer::PromisePaused(bool bPaused)
{
    if (m_bLingers)
    {
        // Whether it still counts as playing nobody knows.
        m_bPaused = m_player.IsPaused();
        m_resting = {0.0, m_duration};
    }
    if (!m_bPlaying)
        return;
    AnchorAt(Position());
    m_bPaused = bPaused;
    m_liveSeconds = 0.0;
    if (m_bStopRequested)
        m_resting = EndFrom(m_anchor);
    m_changedAt = VirtualTime::Now();
}

void ModelledPlayer::PromiseStopRequest()
{
    if (m_bPlaying && !m_bStopRequested)
    {
        m_stopRequestedAt = VirtualTime::Now();
        AnchorAt(Position());
        m_resting = EndFrom(m_anchor);
    }
    m_bStopRequested = true;
    m_bPaused = false;
    m_changedAt = VirtualTime::Now();
}

void ModelledPlayer::PromiseStop()
{
    const double seconds = Joining::TakeSeconds();
    Require(seconds <= (IsStream() ? kStreamStep : kStep) + kClockTick, "stopping took ", seconds,
            " s");
    if (m_sink)
        Require(m_sink->pushedFrames.size() == m_blocks, "blocks came after the stop");
    for (const auto& sink : VirtualDevice::Sinks())
    {
        const bool bNext = m_bMayDeliver && sink == VirtualDevice::Sinks().back() && sink != m_sink;
        Require(bNext || (sink->bDeleted && !sink->bOpen), "an old output is still there");
    }
    m_bFinished = m_bFinished || m_bPlaying;
    m_bPlaying = false;
    m_bLingers = false;
    m_bPaused = false;
    m_sink = nullptr;
}

// --- The clock

ModelledPlayer::Bounds ModelledPlayer::Position() const
{
    if (m_bLingers)
        return {0.0, m_duration};
    if (!m_bPlaying)
        return m_resting;
    if (m_duration <= 0.0)
        return {};
    const double elapsed = m_bPaused ? 0.0 : VirtualTime::Now() - m_anchoredAt;
    // The worker that takes a seek lets the clock start from its target again.
    const double late = m_anchoredAt - m_soughtAt < kStep ? kStep : 0.0;
    return {Clamped(m_anchor.low + std::max(0.0, elapsed - late), 0.0, m_duration),
            Clamped(m_anchor.high + elapsed, 0.0, m_duration)};
}

void ModelledPlayer::AnchorAt(Bounds position)
{
    m_anchor = position;
    m_anchoredAt = VirtualTime::Now();
    if (m_anchoredAt == m_soughtAt)
        return;
    m_anchor.low -= kClockTick;
    m_anchor.high += kClockTick;
}

// Where a playback ends that is stopped at this position: somewhere between what is heard and what
// is queued.
ModelledPlayer::Bounds ModelledPlayer::EndFrom(Bounds position) const
{
    if (IsStream())
        return {m_liveSeconds, m_liveSeconds};
    if (m_duration <= 0.0)
        return {0.0, static_cast<double>(m_source->Frames()) / m_source->rate};
    const double queued = position.high + QueueLimit() + kLongestBlock;
    return {Clamped(position.low - kLandsEarly - kStep, 0.0, m_duration),
            m_bLastQueued ? m_duration : Clamped(queued, 0.0, m_duration)};
}

double ModelledPlayer::QueueLimit() const
{
    switch (m_source->kind)
    {
    case Source::Kind::Pcm:
        return kPcmLimit;
    case Source::Kind::File:
        return kFileLimit;
    case Source::Kind::Stream:
        break;
    }
    return kStreamLimit;
}

// --- What is seen

void ModelledPlayer::LookAtEverything()
{
    FindSink();
    LookForFailedSeek();
    LookAtBlocks();
    LookAtEnd();
    LookAtSink();
    LookAtQueue();
    LookAtState();
}

// Demuxers of compressed files that have read to the end may refuse to go back to the last blocks;
// what is queued is played to its end then.
void ModelledPlayer::LookForFailedSeek()
{
    const std::string refused = "Audio seek failed.";
    if (!m_bPlaying || m_source->seeking == Source::Seeking::ToTheFrame ||
        m_soughtTo < m_duration - kLandsEarly || m_player.LastError() != refused)
        return;
    m_error = refused;
    m_places.clear();
}

void ModelledPlayer::FindSink()
{
    const auto sinks = VirtualDevice::Sinks();
    if (!m_bPlaying)
        return;
    Require(sinks.size() <= m_sinksBefore + 1, "there is more than one output");
    if (sinks.size() <= m_sinksBefore)
        return;
    m_sink = sinks.back();
    Require(m_sink->sampleRate == m_source->rate && m_sink->channels == m_source->channels,
            "the output runs at ", m_sink->sampleRate, " Hz");
}

void ModelledPlayer::LookAtBlocks()
{
    std::vector<TapCall> calls = m_taps.TakeCalls();
    std::reverse(calls.begin(), calls.end()); // the next one is the last one
    const size_t blocks = m_sink ? m_sink->pushedFrames.size() : m_blocks;
    // In a pause nothing comes, but for the one block that a buffer's worker has in its hands.
    const bool bInHands = m_bPlaying && m_bPaused && !m_bBlockSincePause &&
                          m_source->kind == Source::Kind::Pcm && blocks == m_blocks + 1;
    Require(blocks == m_blocks || m_bMayDeliver || bInHands, blocks - m_blocks,
            " blocks were not to come");
    m_bBlockSincePause = m_bPaused && (m_bBlockSincePause || bInHands);
    while (m_blocks < blocks)
        LookAtBlock(m_sink->pushedFrames[m_blocks], calls);
    Require(calls.empty(), "the tap was called without a block");
    Require(m_player.CopySpectrumSamples().size() == m_spectrum.size() &&
                IsSame(m_player.CopySpectrumSamples().data(), m_spectrum.data(), m_spectrum.size()),
            "the spectrum's samples are not the last block's");
}

void ModelledPlayer::LookAtBlock(size_t frames, std::vector<TapCall>& calls)
{
    const auto first = m_sink->pushed.begin() + static_cast<ptrdiff_t>(m_samples);
    const std::vector<float> block(first,
                                   first + static_cast<ptrdiff_t>(frames) * m_source->channels);
    std::optional<TapCall> call;
    if (m_controls.tap != 0)
    {
        Require(!calls.empty(), "the tap missed block ", m_blocks);
        call = std::move(calls.back());
        calls.pop_back();
        LookAtTap(m_blocks, block, *call);
    }
    m_liveSeconds += static_cast<double>(frames) / m_source->rate;
    if (IsStream() && call)
        Require(call->microseconds == std::llround(m_liveSeconds * 1e6), "the tap's position is ",
                call->microseconds);

    const bool bKnown = !m_places.empty();
    const size_t from = bKnown ? m_places.front().frame : 0;
    std::erase_if(m_places,
                  [&](Place& place) { return !Follows(place, block, call ? &*call : nullptr); });
    Require(!bKnown || !m_places.empty(), "block ", m_blocks, " of ", frames,
            " frames is not what comes next, from frame ", from);
    m_spectrum = MixedToMono(block, m_source->channels);
    m_samples += block.size();
    ++m_blocks;
    m_bLastQueued = bKnown && IsAllDelivered();
}

// Whether the block is what comes next at this place, which moves behind it.
bool ModelledPlayer::Follows(Place& place, const std::vector<float>& block,
                             const TapCall* call) const
{
    const size_t frames = block.size() / static_cast<size_t>(m_source->channels);
    const double seconds = static_cast<double>(place.frame) / m_source->rate;
    if (place.frame + frames > m_source->Frames())
        return false;
    if (call && !IsStream())
    {
        const bool bExact = m_source->seeking != Source::Seeking::Anywhere;
        const double slack = bExact ? 0.0 : kTapSlack * 1e6;
        if (std::fabs(static_cast<double>(call->microseconds - std::llround(seconds * 1e6))) >
            slack)
            return false;
    }
    const std::vector<float> expected = Processed(place, frames);
    place.frame += frames;
    return IsSame(expected.data(), block.data(), block.size());
}

// The source's next frames, after equalizer, loudness gain, volume and pan.
std::vector<float> ModelledPlayer::Processed(Place& place, size_t frames) const
{
    const auto width = static_cast<size_t>(m_source->channels);
    const auto first = m_source->sound.begin() + static_cast<ptrdiff_t>(place.frame * width);
    std::vector<float> samples(first, first + static_cast<ptrdiff_t>(frames * width));

    const auto bHeard = [](double dB)
    {
        return std::fabs(dB) > 0.01;
    };
    const Gains& gains = m_controls.gains;
    if (m_controls.bEqualizer && std::any_of(gains.begin(), gains.end(), bHeard))
    {
        if (!place.equalizer || place.gains != gains)
            place.equalizer.emplace(m_source->rate, gains);
        place.gains = gains;
        place.equalizer->Process(samples.data(), static_cast<int>(frames), m_source->channels);
    }

    const float g = static_cast<float>(m_source->gain) * static_cast<float>(m_controls.volume);
    const double angle = (m_controls.pan + 1.0) * 0.25 * 3.141592653589793;
    const double unity = 1.4142135623730951;
    const auto left = static_cast<float>(static_cast<double>(g) * std::cos(angle) * unity);
    const auto right = static_cast<float>(static_cast<double>(g) * std::sin(angle) * unity);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] *= width == 1 || i % width > 1 ? g : i % width == 0 ? left : right;
    return samples;
}

void ModelledPlayer::LookAtTap(size_t block, const std::vector<float>& samples, const TapCall& call)
{
    Require(call.tap == m_controls.tap, "tap ", call.tap, " was called instead of ",
            m_controls.tap);
    Require(call.blocksBefore == block, "the tap was called after ", call.blocksBefore,
            " blocks instead of ", block);
    Require(call.frames * call.channels == static_cast<int>(samples.size()) &&
                IsSame(call.samples.data(), samples.data(), samples.size()),
            "the tap was not told what was queued");
    Require(call.rate == m_source->rate && call.channels == m_source->channels,
            "the tap was told of ", call.rate, " Hz, ", call.channels, " channels");
    Require(!call.bOnHostThread, "the tap was called on the host's thread");
    if (m_controls.bTapReplacesItself)
        ++m_controls.tap;
    m_controls.bTapReplacesItself = false;
}

bool ModelledPlayer::IsAllDelivered() const
{
    const auto bAtEnd = [&](const Place& place)
    {
        return place.frame + m_source->kept >= m_source->Frames();
    };
    return m_places.empty() || std::any_of(m_places.begin(), m_places.end(), bAtEnd);
}

void ModelledPlayer::LookAtEnd()
{
    if (!m_bPlaying || !m_player.HasFinished())
        return;
    m_bPlaying = false;
    m_bFinished = true;
    m_bLingers = m_bStarting;
    // What the worker does last follows at once.
    for (int i = 0; i < 1000000 && m_player.IsPlaying() && !m_bLingers; ++i)
        std::this_thread::yield();
    if (m_bStopRequested)
        return;
    m_resting = {m_duration, m_duration};
    if (!m_source->error.empty())
        return;
    Require(!IsStream(), "a stream has ended by itself");
    Require(IsAllDelivered(), "it has ended at frame ", m_places.empty() ? 0 : m_places[0].frame);
    Require(m_sink && m_sink->QueuedSeconds() <= kPlayedOut + kRounding, "it has ended with ",
            m_sink ? m_sink->QueuedSeconds() : 0.0, " s queued");
    if (m_duration <= 0.0)
        m_resting.high = static_cast<double>(m_source->Frames()) / m_source->rate;
    if (m_source->seeking == Source::Seeking::Anywhere)
        m_resting.low -= kLongestBlock;
    if (!m_error.empty())
        m_resting.low = 0.0;
}

void ModelledPlayer::LookAtSink()
{
    if (!m_sink)
        return;
    const bool bSounds = m_bPlaying && !m_bPaused && !m_bStopRequested;
    Require(m_sink->bActive == bSounds || m_bLingers, "the output is ",
            m_sink->bActive ? "active" : "silent");
    Require(m_bPlaying || !m_sink->bOpen || !IsStream(), "the stream's output is still open");

    // Only a seek drops anything, and all that was queued before it.
    if (!m_sink->bOpen)
        return;
    const size_t dropped = m_sink->nextSample - m_sink->heard.size();
    const bool bTaken = m_samplesAtSeek && m_sink->nextSample >= *m_samplesAtSeek;
    const bool bOverdue = m_bPlaying && !m_bStopRequested && m_samplesAtSeek &&
                          VirtualTime::Now() - m_soughtAt > kStep + kRounding;
    Require(!bOverdue || bTaken || m_places.empty(),
            "what was queued before the seek is still there");
    Require(m_samplesAtSeek || dropped == m_droppedSamples, dropped - m_droppedSamples,
            " samples were dropped");
    m_droppedSamples = dropped;
    if (bOverdue)
        m_samplesAtSeek.reset();
}

void ModelledPlayer::LookAtQueue()
{
    if (!m_bPlaying || m_bStopRequested)
        return;
    if (m_source->kind == Source::Kind::File)
        Require(m_source->error.empty(), "it has not ended");
    if (!m_sink)
        return Require(!m_source->error.empty(), "there is no output");
    const double queued = m_sink->QueuedSeconds();
    const double block =
        m_blocks > 0 ? static_cast<double>(m_sink->pushedFrames.back()) / m_source->rate : 0.0;
    Require(queued <= QueueLimit() + std::max(block, kLongestBlock), queued, " s are queued");
    // A worker that is held up by what was done a moment ago may be behind.
    if (m_bPaused || VirtualTime::Now() - m_changedAt < kStep + kRounding)
        return;
    const double least = IsAllDelivered() ? 0.0 : QueueLimit() - kQueuePoll - 0.002;
    Require(queued > least, "only ", queued, " s are queued, and it goes on");
}

void ModelledPlayer::LookAtState()
{
    const double now = VirtualTime::Now();
    Require(!m_bPlaying || !m_bStopRequested ||
                now - m_stopRequestedAt <= (IsStream() ? kStreamStep : kStep) + kRounding,
            "the worker has not ended");
    Require(m_player.IsPlaying() == m_bPlaying || m_bLingers, "IsPlaying is ",
            m_player.IsPlaying());
    Require(m_player.IsPaused() == m_bPaused, "IsPaused is ", m_player.IsPaused());
    Require(m_player.HasFinished() == m_bFinished, "HasFinished is ", m_player.HasFinished());
    Require(m_player.IsStopRequestedForInterrupt() == m_bStopRequested,
            "IsStopRequestedForInterrupt is ", m_player.IsStopRequestedForInterrupt());
    Require(m_player.LastError() == m_error, "LastError is: ", m_player.LastError());
    Require(std::fabs(m_player.DurationSeconds() - m_duration) < kRounding, "DurationSeconds is ",
            m_player.DurationSeconds());
    Require(IsSame(m_player.Volume(), m_controls.volume), "Volume is ", m_player.Volume());
    Require(IsSame(m_player.Pan(), m_controls.pan), "Pan is ", m_player.Pan());
    for (int tap = 1; tap <= m_taps.Newest(); ++tap)
        Require(m_taps.IsAlive(tap) == (tap == m_controls.tap), "tap ", tap, " is ",
                m_taps.IsAlive(tap) ? "kept" : "gone");
    const auto reports = m_reports.All();
    if (m_bPlaying && IsStream())
        m_reportsAtStop = 0;
    else if (m_reportsAtStop == 0)
        m_reportsAtStop = reports.size();
    else
        Require(reports.size() == m_reportsAtStop, "the stream is reported on after its end");
    Require(m_bPlaying || reports.empty() ||
                reports.back() == TovrelAudioPlayer::StreamState::Stopped,
            "the stream's last report is not Stopped");
}

void ModelledPlayer::LookAtPosition()
{
    const Bounds expected = Position();
    const double position = m_player.CurrentSeconds();
    Require(position >= expected.low - kClockTick && position <= expected.high + kClockTick,
            "the position reads ", position, " instead of ", expected.low, " to ", expected.high);
    if (!m_bPlaying && !m_bLingers)
        m_resting = {position, position};
}
