#include "host.h"

#include "virtual_sink.h"

#include <algorithm>
#include <utility>

std::shared_ptr<Taps::Token> Taps::MakeToken()
{
    const std::lock_guard lock(m_mutex);
    auto token = std::make_shared<Token>();
    m_tokens.emplace_back(token);
    ++m_newest;
    return token;
}

TovrelAudioPlayer::PCMCallback Taps::Make()
{
    auto token = MakeToken();
    return [this, token, tap = Newest()](const float* samples, int frames, int rate, int channels,
                                         long us)
    {
        Note(tap, samples, frames, rate, channels, us);
    };
}

TovrelAudioPlayer::PCMCallback Taps::MakeOneThatReplacesItself(TovrelAudioPlayer& player)
{
    auto token = MakeToken();
    return [this, token, &player, tap = Newest()](const float* samples, int frames, int rate,
                                                  int channels, long us)
    {
        player.SetAudioPCMCallback(Make());
        Note(tap, samples, frames, rate, channels, us);
    };
}

bool Taps::IsAlive(int tap) const
{
    const std::lock_guard lock(m_mutex);
    return tap > 0 && !m_tokens[static_cast<size_t>(tap) - 1].expired();
}

std::vector<TapCall> Taps::TakeCalls()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_calls, {});
}

void Taps::Note(int tap, const float* samples, int frames, int rate, int channels, long us)
{
    const auto sinks = VirtualDevice::Sinks();
    const std::lock_guard lock(m_mutex);
    m_calls.push_back({tap,
                       {samples, samples + static_cast<ptrdiff_t>(frames) * channels},
                       frames,
                       rate,
                       channels,
                       us,
                       sinks.empty() ? 0 : sinks.back()->pushedFrames.size(),
                       std::this_thread::get_id() == m_host});
}

TovrelAudioPlayer::StreamStatusCallback Reports::Callback()
{
    return [this](TovrelAudioPlayer::StreamState state, const TovrelAudioPlayer::StreamInfo&,
                  const std::string&)
    {
        const std::lock_guard lock(m_mutex);
        m_states.push_back(state);
    };
}

std::vector<TovrelAudioPlayer::StreamState> Reports::All() const
{
    const std::lock_guard lock(m_mutex);
    return m_states;
}

std::array<double, TovrelAudioPlayer::EqualizerBandCount> BandsOf(const Operation& operation)
{
    std::array<double, TovrelAudioPlayer::EqualizerBandCount> gains{};
    gains.front() = operation.number;
    gains.back() = operation.number / 2.0;
    return gains;
}

Outcome Host::Start(const Source& source, double start) const
{
    Outcome outcome;
    outcome.error = "untouched";
    switch (source.kind)
    {
    case Source::Kind::Pcm:
        outcome.bPlays =
            player.PlayPcm(source.input, source.rate, source.channels, start, &outcome.error);
        break;
    case Source::Kind::File:
        outcome.bPlays = player.PlayFile(source.path, &outcome.error);
        break;
    case Source::Kind::Stream:
        outcome.bPlays = player.PlayStream(source.path, reports.Callback(), &outcome.error);
        break;
    }
    return outcome;
}

Outcome Host::Do(const Operation& operation) const
{
    using enum Operation::Kind;
    const auto& [kind, choice, number] = operation;
    switch (kind)
    {
    case Wait:
    case Look:
        break;
    case Play:
        return Start(sources.At(choice), number);
    case SeekToSeconds:
        player.SeekToSeconds(number);
        break;
    case SeekToFraction:
        player.SeekToFraction(number);
        break;
    case SetPaused:
        player.SetPaused(choice != 0);
        break;
    case TogglePaused:
        player.TogglePaused();
        break;
    case Stop:
        player.Stop();
        break;
    case RequestStop:
        player.RequestStop();
        break;
    case SetVolume:
        player.SetVolume(number);
        break;
    case AdjustVolume:
        player.AdjustVolume(number);
        break;
    case SetPan:
        player.SetPan(number);
        break;
    case AdjustPan:
        player.AdjustPan(number);
        break;
    case SetEqualizerEnabled:
        player.SetEqualizerEnabled(choice != 0);
        break;
    case SetEqualizerBandGain:
        player.SetEqualizerBandGain(static_cast<size_t>(choice), number);
        break;
    case SetEqualizerBands:
        player.SetEqualizerBands(choice != 0, BandsOf(operation));
        break;
    case SetTap:
        player.SetAudioPCMCallback(choice == 0   ? nullptr
                                   : choice == 1 ? taps.Make()
                                                 : taps.MakeOneThatReplacesItself(player));
        break;
    }
    return {};
}
