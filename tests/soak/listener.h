// Those who use players at random, each with one of its own and on a thread of its own.
#pragma once

#include "hearing.h"
#include "library.h"

#include "tovrel_audio_player.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

class MonitorRecording;
class Report;

using Clock = std::chrono::steady_clock;

class Random
{
public:
    explicit Random(uint64_t seed) : m_engine(seed) {}

    size_t Below(size_t end) { return static_cast<size_t>(m_engine() % end); }
    bool OneIn(size_t times) { return Below(times) == 0; }
    size_t Between(size_t low, size_t high) { return low + Below(high - low + 1); }
    double Fraction() { return static_cast<double>(Below(10000)) / 10000.0; }

private:
    std::mt19937_64 m_engine;
};

// What everybody of a round shares.
struct Round
{
    const Library& library;
    const MonitorRecording& recording;
    Report& report;
    Clock::time_point end; // nothing is started after it
};

class Listener
{
public:
    Listener(const Round& round, uint64_t seed);
    virtual ~Listener() = default;
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Plays one thing after another until the round ends.
    void Run();

    // A Stop that took longer than it may on a machine that is not late itself.
    struct SlowStop
    {
        int64_t ns = 0; // when it returned, monotonic
        std::string text;
    };
    const std::vector<SlowStop>& SlowStops() const { return m_slowStops; }

protected:
    virtual void PlaySomething() = 0;

    bool IsOver() const { return Clock::now() >= m_round.end; }

    // Waits for this time, or for as long as the playback lasts.
    void Listen(size_t milliseconds);

    // Waits for the playback to end by itself, which it must.
    void HearOut(const std::string& kind);

    // Stops, which should take no longer than the documented time.
    void Stop(const std::string& kind, std::chrono::milliseconds bound);

    void ChangeTap();
    void SetRandomEqualizer();
    void AskEverything() const;

    const Round& m_round;
    Random m_random;
    std::vector<SlowStop> m_slowStops;
    TovrelAudioPlayer m_player;
};

// Heard on its lane: all of it is compared with the recording.
class LaneListener : public Listener
{
public:
    LaneListener(const Round& round, uint64_t seed, Lane lane);

    const std::vector<Play>& Plays() const { return m_plays; }

private:
    void PlaySomething() override;
    bool IsStillHeard(const std::string& kind) const;
    void PlayBurst();
    void PlayPcm(size_t frames, bool bFromSomewhere);
    void PlayFile(const std::string& kind, const std::string& path, Stretch stretch);
    void PlayRadio();
    void Use(Play play);
    void Begin(Play& play);
    void Act(Play& play);
    void End(Play& play);
    size_t Now() const;

    const Lane m_lane;
    size_t m_nextIndex = kFirstPcmIndex;
    std::vector<Play> m_plays;
};

// Silent, at volume 0, so that the lanes can be compared: plays what cannot be compared anyway,
// compressed and broken files and stations that do what stations do.
class SilentListener : public Listener
{
public:
    SilentListener(const Round& round, uint64_t seed);

private:
    void PlaySomething() override;
    void PlayFile(const File& file);
    void PlayRadio();
    void Meddle();
};
