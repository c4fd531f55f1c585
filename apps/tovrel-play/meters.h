// Level meters and spectrum of what is heard now: the player's tap and its samples for a spectrum
// tell what has just been queued, a third of a second earlier.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "spectrum.h"

class Meters
{
public:
    using Clock = std::chrono::steady_clock;

    // On the player's worker: a block that will be heard from `heardAt` on.
    void Put(const float* samples, int frames, int sampleRateHz, int channels,
             Clock::time_point heardAt);

    // Whether blocks have come since the last call of PutSpectrum.
    bool HasNewBlock();

    // What the player has for a spectrum, once HasNewBlock has said so. `bands` may change.
    void PutSpectrum(const std::vector<float>& mono, size_t bands);

    // Moves everything to where it is now.
    void Update(Clock::time_point now);

    const Ballistics& Left() const { return m_left; }
    const Ballistics& Right() const { return m_right; }
    const std::vector<Ballistics>& Bands() const { return m_bands; }

private:
    struct Level
    {
        Clock::time_point heardAt;
        float left = 0.0f; // peaks, linear
        float right = 0.0f;
    };
    struct Spectra
    {
        Clock::time_point heardAt;
        std::vector<float> levelsDb;
    };

    std::mutex m_mutex; // guards what the worker writes:
    std::deque<Level> m_levels;
    uint64_t m_blocks = 0;
    int m_sampleRateHz = 0;
    Clock::time_point m_lastHeardAt;

    uint64_t m_analysed = 0; // of m_blocks
    Spectrum m_spectrum;
    std::deque<Spectra> m_spectra;
    Ballistics m_left;
    Ballistics m_right;
    std::vector<Ballistics> m_bands;
    Spectra m_heard; // the last one
    Clock::time_point m_updatedAt;
};
