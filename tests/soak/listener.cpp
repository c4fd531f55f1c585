#include "listener.h"

#include "report.h"
#include "scripted_server.h"
#include "stations.h"

#include "harness.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

namespace
{

// How long a Stop may take by what the player promises; a busy machine has its slack beyond that.
constexpr std::chrono::milliseconds kStopBound{20};
constexpr std::chrono::milliseconds kRadioStopBound{100};

// FLAC is sought to the start of a block, by a guess that may fall short.
constexpr size_t kFlacSeekReach = kSinkRate / 4;

constexpr size_t kLongestPcm = 2 * kSinkRate; // frames
constexpr size_t kBurstPlays = 20;
constexpr size_t kBurstFrames = 2400;

constexpr size_t kMsOfTail = kTail * 1000 / kSinkRate;

} // namespace

// ------------------------------------------------------------------------------------------------
// What they all do

Listener::Listener(const Round& round, uint64_t seed) : m_round(round), m_random(seed)
{
}

void Listener::Run()
{
    try
    {
        while (!IsOver())
            PlaySomething();
    }
    catch (const std::exception& exception)
    {
        m_round.report.Fail(std::string("an exception: ") + exception.what());
    }
}

void Listener::Listen(size_t milliseconds)
{
    const auto until = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (!m_player.HasFinished() && Clock::now() < until)
        std::this_thread::sleep_for(
            std::min<Clock::duration>(std::chrono::milliseconds(kRarelyMs), until - Clock::now()));
}

void Listener::HearOut(const std::string& kind)
{
    if (!WaitForEnd(m_player))
        m_round.report.Fail(kind + " does not end");
}

void Listener::Stop(const std::string& kind, std::chrono::milliseconds bound)
{
    const auto start = Clock::now();
    m_player.Stop();
    const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    m_round.report.AddPlay(kind);
    m_round.report.AddStop(kind, taken);
    if (taken > bound + kSlack)
        m_slowStops.push_back(
            {std::chrono::nanoseconds(Clock::now().time_since_epoch()).count(),
             "Stop of " + kind + " took " + std::to_string(taken.count() / 1000) + " ms"});
}

void Listener::ChangeTap()
{
    if (m_random.OneIn(3))
        m_player.SetAudioPCMCallback({});
    else
        m_player.SetAudioPCMCallback(
            [&report = m_round.report](const float*, int frames, int rate, int channels, long)
            {
                if (frames < 1 || rate != kSinkRate || channels != kSinkChannels)
                    report.Fail("a tap of " + std::to_string(frames) + " frames, " +
                                std::to_string(rate) + " Hz");
            });
}

void Listener::SetRandomEqualizer()
{
    std::array<double, TovrelAudioPlayer::EqualizerBandCount> gains{};
    for (double& gain : gains)
        gain = 24.0 * m_random.Fraction() - 12.0;
    m_player.SetEqualizerBands(true, gains);
    m_player.SetEqualizerBandGain(m_random.Below(12), 6.0);
}

void Listener::AskEverything() const
{
    const double seconds = m_player.CurrentSeconds();
    const double duration = m_player.DurationSeconds();
    if (!(seconds >= 0.0) || (m_player.IsPlaying() && duration > 0.0 && seconds > duration))
        m_round.report.Fail("a position of " + std::to_string(seconds) + " s of " +
                            std::to_string(duration));
    (void)m_player.CopySpectrumSamples();
    (void)m_player.LastError();
}

// ------------------------------------------------------------------------------------------------
// On a lane

LaneListener::LaneListener(const Round& round, uint64_t seed, Lane lane) :
    Listener(round, seed), m_lane(lane)
{
}

void LaneListener::PlaySomething()
{
    const CodedMaterial& material = m_round.library.coded[static_cast<size_t>(m_lane)];
    const bool bPcmLeft = m_nextIndex + kBurstPlays * kBurstFrames + kLongestPcm < kIndexEnd;
    const size_t choice = m_random.Below(10);
    if (choice < 2 && !IsStillHeard("WAV file"))
        PlayFile("WAV file", material.wav, kWavStretch);
    else if (choice < 4 && !IsStillHeard("FLAC file"))
        PlayFile("FLAC file", material.flac, kFlacStretch);
    else if (choice < 6 && !IsStillHeard("radio"))
        PlayRadio();
    else if (choice < 9 && bPcmLeft)
        PlayPcm(m_random.Between(1, kLongestPcm), m_random.OneIn(4));
    else if (bPcmLeft)
        PlayBurst();
    if (m_random.OneIn(2))
        std::this_thread::sleep_for(std::chrono::milliseconds(m_random.Below(300)));
}

// What is heard of a play must not be taken for another one's of the same sound.
bool LaneListener::IsStillHeard(const std::string& kind) const
{
    const auto last = std::find_if(m_plays.rbegin(), m_plays.rend(),
                                   [&](const Play& play) { return play.kind == kind; });
    return last != m_plays.rend() && Now() < last->endAt + kTail;
}

// Many plays that end, or are ended, when they have hardly begun.
void LaneListener::PlayBurst()
{
    for (size_t i = 0; i < kBurstPlays && !IsOver(); ++i)
    {
        Play play;
        play.kind = "PCM in a burst";
        play.stretch = {m_nextIndex, kBurstFrames};
        play.first = m_nextIndex;
        m_nextIndex += kBurstFrames + 1;
        Begin(play);
        m_player.PlayPcm(CodedFrames(m_lane, play.stretch), kSinkRate, kSinkChannels);
        Listen(m_random.Below(30));
        play.bStopped = !m_player.HasFinished();
        End(play);
    }
}

void LaneListener::PlayPcm(size_t frames, bool bFromSomewhere)
{
    Play play;
    play.kind = "PCM";
    play.stretch = {m_nextIndex, frames};
    const size_t start = bFromSomewhere ? m_random.Below(frames) : 0;
    play.first = m_nextIndex + start;
    m_nextIndex += frames + 1;
    Begin(play);
    m_player.PlayPcm(CodedFrames(m_lane, play.stretch), kSinkRate, kSinkChannels, Seconds(start));
    Use(std::move(play));
}

void LaneListener::PlayFile(const std::string& kind, const std::string& path, Stretch stretch)
{
    Play play;
    play.kind = kind;
    play.stretch = stretch;
    play.first = stretch.first;
    play.seekReach = kFlacSeekReach;
    Begin(play);
    m_player.PlayFile(path);
    Use(std::move(play));
}

void LaneListener::PlayRadio()
{
    const CodedMaterial& material = m_round.library.coded[static_cast<size_t>(m_lane)];
    const Station station = FaultlessStation(material.radio, m_random.OneIn(2));
    Play play;
    play.kind = "radio";
    play.stretch = kRadioStretch;
    play.first = kRadioStretch.first;
    play.bStopped = true; // it has no end
    Begin(play);
    m_player.PlayStream(station.url);
    for (size_t i = m_random.Below(4); i > 0; --i)
        Act(play);
    Listen(m_random.Below(3000));
    End(play);
}

// Half of them are heard out as they are, the rest in any other way.
void LaneListener::Use(Play play)
{
    if (m_random.OneIn(2))
        for (size_t i = m_random.Between(1, 5); i > 0 && !m_player.HasFinished(); --i)
            Act(play);
    if (m_random.OneIn(4))
        Listen(m_random.Below(1000));
    else
        HearOut(play.kind);
    play.bStopped = !m_player.HasFinished();
    End(play);
}

void LaneListener::Begin(Play& play)
{
    play.bAltered = m_random.OneIn(8) && play.kind != "PCM in a burst";
    if (play.bAltered)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(kMsOfTail));
        m_player.SetVolume(0.1 + 1.4 * m_random.Fraction());
        m_player.SetPan(1.6 * m_random.Fraction() - 0.8);
        SetRandomEqualizer();
    }
    play.startAt = Now();
}

void LaneListener::Act(Play& play)
{
    Listen(m_random.Below(500));
    switch (m_random.Below(play.bAltered ? 6 : 4))
    {
    case 0:
    {
        const size_t from = Now();
        m_player.SetPaused(true);
        Listen(m_random.Below(300));
        m_player.SetPaused(false);
        play.pauses.push_back({from, Now()});
        break;
    }
    case 1:
        if (play.kind != "radio")
        {
            const auto frame = static_cast<size_t>(0.9 * m_random.Fraction() *
                                                   static_cast<double>(play.stretch.count));
            play.seeks.push_back({Now(), play.stretch.first + frame});
            m_player.SeekToSeconds(Seconds(frame));
        }
        break;
    case 2:
        ChangeTap();
        break;
    case 3:
        AskEverything();
        break;
    case 4:
        m_player.AdjustVolume(m_player.Volume() > 0.8 ? -0.2 : 0.2);
        m_player.AdjustPan(-m_player.Pan() / 2.0);
        break;
    default:
        SetRandomEqualizer();
        break;
    }
}

void LaneListener::End(Play& play)
{
    Stop(play.kind, play.kind == "radio" ? kRadioStopBound : kStopBound);
    play.endAt = Now();
    const std::string error = m_player.LastError();
    m_round.report.AddText(error);
    const bool bOpening = play.kind == "radio" && error == "Radio stream open cancelled.";
    if (!error.empty() && !bOpening)
        m_round.report.Fail(play.kind + ": " + error);
    if (play.bAltered)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(kMsOfTail));
        m_player.SetVolume(1.0);
        m_player.SetPan(0.0);
        m_player.SetEqualizerBands(m_random.OneIn(2), {});
    }
    m_plays.push_back(std::move(play));
}

size_t LaneListener::Now() const
{
    return m_round.recording.Now();
}

// ------------------------------------------------------------------------------------------------
// Unheard

SilentListener::SilentListener(const Round& round, uint64_t seed) : Listener(round, seed)
{
    m_player.SetVolume(0.0);
}

void SilentListener::PlaySomething()
{
    if (m_random.OneIn(2))
        PlayRadio();
    else
        PlayFile(m_round.library.files[m_random.Below(m_round.library.files.size())]);
}

void SilentListener::PlayFile(const File& file)
{
    m_player.PlayFile(file.path);
    const bool bOut = m_random.OneIn(2);
    for (size_t i = bOut ? 1 : m_random.Below(4); i > 0; --i)
        Meddle();
    if (bOut || !file.error.empty())
        HearOut(file.kind);
    Stop(file.kind, kStopBound);
    const std::string error = m_player.LastError();
    m_round.report.AddText(error);
    if (error != file.error)
        m_round.report.Fail(file.kind + ": " + error);
}

void SilentListener::PlayRadio()
{
    // What a report still needs when all else here is gone, should it come too late.
    struct Told
    {
        Report& report;
        std::string kind;
        std::atomic<bool> bStopped{false};
    };
    const Station station = RandomStation(m_round.library, m_random);
    const std::shared_ptr<Told> told(new Told{m_round.report, station.kind});
    m_player.PlayStream(station.url,
                        [told](TovrelAudioPlayer::StreamState, const TovrelAudioPlayer::StreamInfo&,
                               const std::string& text)
                        {
                            const size_t reason =
                                text.rfind("retry ", 0) == 0 ? text.find(": ") + 2 : 0;
                            told->report.AddText(text.substr(reason));
                            if (told->bStopped)
                                told->report.Fail(told->kind + ": a report after Stop");
                            if (!IsKnownRadioText(text.substr(reason)))
                                told->report.Fail(told->kind + " reports: " + text);
                        });
    for (size_t i = m_random.Below(5); i > 0; --i)
        Meddle();
    if (m_random.OneIn(6)) // long enough for a station's next connection
        Listen(m_random.Below(8000));
    Stop(station.kind, kRadioStopBound);
    told->bStopped = true;
    const std::string error = m_player.LastError();
    m_round.report.AddText(error);
    if (!IsKnownRadioText(error))
        m_round.report.Fail(station.kind + ": " + error);
}

void SilentListener::Meddle()
{
    Listen(m_random.Below(800));
    switch (m_random.Below(8))
    {
    case 0:
        m_player.SetPaused(true);
        Listen(m_random.Below(300));
        m_player.SetPaused(false);
        break;
    case 1:
        m_player.SeekToFraction(m_random.Fraction());
        break;
    case 2:
        ChangeTap();
        break;
    case 3:
        AskEverything();
        break;
    case 4:
        m_player.AdjustVolume(-m_random.Fraction());
        m_player.SetPan(2.0 * m_random.Fraction() - 1.0);
        break;
    case 5:
        SetRandomEqualizer();
        break;
    case 6:
        m_player.RequestStop();
        break;
    default:
        break;
    }
}
