// The spectrum of what is played, and levels that move as a meter's do.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

struct AVTXContext;

// A level in dB that rises at once and falls slowly, and its peak, which is held for a while.
class Ballistics
{
public:
    static constexpr float kFloorDb = -72.0f; // what lies below is not shown

    // `seconds` after the last time.
    void Update(float levelDb, float seconds);

    float LevelDb() const { return m_levelDb; }
    float PeakDb() const { return m_peakDb; }

private:
    float m_levelDb = kFloorDb;
    float m_peakDb = kFloorDb;
    float m_heldSeconds = 0.0f;
};

// Decibels of a linear amplitude, kFloorDb at the least. 1 is 0 dB.
float Decibels(float amplitude);

// Bands of equal width in octaves, from 30 Hz to 18 kHz.
class Spectrum
{
public:
    static constexpr double kLowestHz = 30.0;
    static constexpr double kHighestHz = 18000.0;
    static constexpr size_t kFrames = 2048; // that are transformed, of more the last ones

    Spectrum();
    ~Spectrum();
    Spectrum(const Spectrum&) = delete;
    Spectrum& operator=(const Spectrum&) = delete;

    // The level of each band in dB: that of the strongest sine in it, where a full-scale one is
    // 0 dB. Fewer frames than kFrames make the low bands coarse. Allocates nothing once `levelsDb`
    // has its size, and cannot fail.
    void Analyse(const std::vector<float>& mono, double sampleRateHz, std::vector<float>& levelsDb);

    // Where band `band` of `bands` begins; of the one after the last, where that ends.
    static double EdgeHz(size_t band, size_t bands);

private:
    struct Transform;
    std::unique_ptr<Transform> m_transform;
    std::vector<float> m_window; // of m_windowFrames frames
    float m_windowSum = 0.0f;
    std::vector<float> m_powers; // of each bin, in the window's own scale
};
