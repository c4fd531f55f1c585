// A host that does to a player what an operation says.
#pragma once

#include "operations.h"
#include "sources.h"

#include "tovrel_audio_player.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// One call of a tap.
struct TapCall
{
    int tap = 0; // which one
    std::vector<float> samples;
    int frames = 0;
    int rate = 0;
    int channels = 0;
    long microseconds = 0;
    size_t blocksBefore = 0; // that the sink had been given by then
    bool bOnHostThread = false;
};

// The taps that a host installs, numbered from 1, and what they were told.
class Taps
{
public:
    TovrelAudioPlayer::PCMCallback Make();

    // One that puts the next one in its own place when it is first called.
    TovrelAudioPlayer::PCMCallback MakeOneThatReplacesItself(TovrelAudioPlayer& player);

    int Newest() const { return m_newest; }
    bool IsAlive(int tap) const;
    std::vector<TapCall> TakeCalls();

private:
    struct Token
    {
    };
    std::shared_ptr<Token> MakeToken();
    void Note(int tap, const float* samples, int frames, int rate, int channels, long us);

    const std::thread::id m_host = std::this_thread::get_id();
    mutable std::mutex m_mutex; // guards the calls and the tokens
    std::vector<TapCall> m_calls;
    std::vector<std::weak_ptr<Token>> m_tokens;
    std::atomic<int> m_newest{0};
};

// What the status callbacks were told.
class Reports
{
public:
    TovrelAudioPlayer::StreamStatusCallback Callback();
    std::vector<TovrelAudioPlayer::StreamState> All() const;

private:
    mutable std::mutex m_mutex; // guards the states
    std::vector<TovrelAudioPlayer::StreamState> m_states;
};

struct Outcome
{
    bool bPlays = true; // what a Play returned
    std::string error;  // and said
};

struct Host
{
    Sources& sources;
    TovrelAudioPlayer& player;
    Taps& taps;
    Reports& reports;

    // Waiting and looking are left to the caller.
    Outcome Do(const Operation& operation) const;

private:
    Outcome Start(const Source& source, double start) const;
};

// The gains that SetEqualizerBands is called with.
std::array<double, TovrelAudioPlayer::EqualizerBandCount> BandsOf(const Operation& operation);
