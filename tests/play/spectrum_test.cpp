// Levels of the bands of sounds that are known, and how a meter moves.
#include "spectrum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace
{

constexpr size_t kBands = 24;
constexpr float kFloor = Ballistics::kFloorDb;
// A sine between two bins loses this much in a Hann window; one in the middle of a band less.
constexpr float kScallopingDb = 1.5f;

std::vector<float> Sine(double hertz, float amplitude, size_t frames = Spectrum::kFrames,
                        double rate = 48000.0)
{
    std::vector<float> samples(frames);
    for (size_t i = 0; i < frames; ++i)
        samples[i] = amplitude * static_cast<float>(std::sin(2.0 * std::numbers::pi * hertz *
                                                             static_cast<double>(i) / rate));
    return samples;
}

std::vector<float> Analysed(const std::vector<float>& mono, double rate = 48000.0)
{
    Spectrum spectrum;
    std::vector<float> levels(kBands);
    spectrum.Analyse(mono, rate, levels);
    return levels;
}

double Centre(size_t band)
{
    return std::sqrt(Spectrum::EdgeHz(band, kBands) * Spectrum::EdgeHz(band + 1, kBands));
}

} // namespace

TEST(SpectrumBands, AreEquallyWideInOctaves)
{
    EXPECT_DOUBLE_EQ(Spectrum::EdgeHz(0, kBands), 30.0);
    EXPECT_DOUBLE_EQ(Spectrum::EdgeHz(kBands, kBands), 18000.0);
    const double ratio = Spectrum::EdgeHz(1, kBands) / Spectrum::EdgeHz(0, kBands);
    for (size_t band = 1; band < kBands; ++band)
        EXPECT_NEAR(Spectrum::EdgeHz(band + 1, kBands) / Spectrum::EdgeHz(band, kBands), ratio,
                    1e-9);
}

TEST(SpectrumBands, SineIsLoudestInItsOwnBand)
{
    for (size_t band = 10; band < kBands; ++band) // the lower ones share their bins
    {
        const std::vector<float> levels = Analysed(Sine(Centre(band), 1.0f));
        const auto loudest = std::max_element(levels.begin(), levels.end());
        EXPECT_EQ(static_cast<size_t>(loudest - levels.begin()), band);
        EXPECT_NEAR(*loudest, 0.0f, kScallopingDb) << Centre(band) << " Hz";
    }
}

TEST(SpectrumBands, ScaleIsInDecibels)
{
    for (const float dB : {-6.0f, -20.0f, -40.0f, -60.0f})
    {
        const float amplitude = std::pow(10.0f, dB / 20.0f);
        const std::vector<float> levels = Analysed(Sine(3000.0, amplitude));
        EXPECT_NEAR(*std::max_element(levels.begin(), levels.end()), dB, kScallopingDb);
    }
}

TEST(SpectrumBands, SineIsQuietFarFromItsBand)
{
    const std::vector<float> levels = Analysed(Sine(Centre(20), 1.0f));
    for (size_t band = 0; band < kBands; ++band)
    {
        const bool bFar = band < 17 || band > 22;
        EXPECT_TRUE(!bFar || levels[band] < -60.0f) << band;
    }
}

TEST(SpectrumBands, SilenceAndNothingAreAtTheFloor)
{
    for (const auto& mono :
         {std::vector<float>(Spectrum::kFrames), std::vector<float>(), std::vector<float>{0.5f}})
        EXPECT_EQ(Analysed(mono), std::vector<float>(kBands, kFloor));
}

TEST(SpectrumBands, ShortAndLongBlocksHaveTheSameLevel)
{
    for (const size_t frames : {480u, 1152u, 2047u, 2048u, 5000u})
    {
        const std::vector<float> levels = Analysed(Sine(3000.0, 0.5f, frames));
        EXPECT_NEAR(*std::max_element(levels.begin(), levels.end()), -6.02f, kScallopingDb)
            << frames;
    }
}

TEST(SpectrumBands, LowRateHasNothingAboveItsHalf)
{
    const std::vector<float> levels = Analysed(Sine(1000.0, 1.0f, 2048, 8000.0), 8000.0);
    for (size_t band = 0; band < kBands; ++band)
    {
        const bool bAbove = Spectrum::EdgeHz(band, kBands) > 4000.0;
        EXPECT_TRUE(!bAbove || levels[band] == kFloor) << band;
    }
}

TEST(SpectrumBands, NoNumbersAreNoHarm)
{
    std::vector<float> mono = Sine(1000.0, 1.0f);
    mono[100] = std::numeric_limits<float>::quiet_NaN();
    mono[200] = std::numeric_limits<float>::infinity();
    for (const float level : Analysed(mono))
        EXPECT_GE(level, kFloor);
}

TEST(MeterBallistics, RiseAtOnceAndFallSlowly)
{
    Ballistics level;
    level.Update(-10.0f, 0.03f);
    EXPECT_EQ(level.LevelDb(), -10.0f);
    level.Update(kFloor, 0.1f);
    EXPECT_FLOAT_EQ(level.LevelDb(), -14.0f);
    for (int i = 0; i < 100; ++i)
        level.Update(kFloor, 0.1f);
    EXPECT_EQ(level.LevelDb(), kFloor);
}

TEST(MeterBallistics, HoldTheirPeak)
{
    Ballistics level;
    level.Update(-10.0f, 0.03f);
    for (int i = 0; i < 7; ++i)
        level.Update(kFloor, 0.1f);
    EXPECT_EQ(level.PeakDb(), -10.0f);
    level.Update(kFloor, 0.2f);
    EXPECT_LT(level.PeakDb(), -10.0f);
    EXPECT_GT(level.PeakDb(), level.LevelDb());
}

TEST(MeterBallistics, DecibelsOfNothingAreTheFloor)
{
    EXPECT_EQ(Decibels(0.0f), kFloor);
    EXPECT_EQ(Decibels(1e-9f), kFloor);
    EXPECT_EQ(Decibels(std::numeric_limits<float>::quiet_NaN()), kFloor);
    EXPECT_FLOAT_EQ(Decibels(1.0f), 0.0f);
    EXPECT_NEAR(Decibels(0.5f), -6.02f, 0.01f);
}
