// The picture of the equalizer against what the equalizer does.
#include "response.h"

#include "internals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>

namespace
{

// What the player's own filters make of an impulse, transformed at one frequency.
double MeasuredDb(const Gains& gains, double hertz, double rate)
{
    std::vector<float> samples(32768);
    samples[0] = 0.1f; // far from the limit of a band's output
    Internals::EqualizerCascade cascade(rate, gains);
    cascade.Run(samples.data(), static_cast<int>(samples.size()), 1);
    std::complex<double> sum = 0.0;
    for (size_t i = 0; i < samples.size(); ++i)
        sum += static_cast<double>(samples[i]) *
               std::polar(1.0, -2.0 * std::numbers::pi * hertz * static_cast<double>(i) / rate);
    return 20.0 * std::log10(std::abs(sum) / 0.1);
}

constexpr double kRoundingDb = 0.01; // of samples in single precision

} // namespace

TEST(Response, IsWhatTheEqualizerDoes)
{
    const Gains gains = {3, -6, 9, -12, 18, -18, 0.5, -0.5, 6, -3};
    for (const double rate : {44100.0, 48000.0})
        for (const double hertz :
             {20.0, 31.0, 90.0, 440.0, 1000.0, 3000.0, 8000.0, 16000.0, 20000.0})
            EXPECT_NEAR(ResponseDb(gains, hertz, rate), MeasuredDb(gains, hertz, rate), kRoundingDb)
                << hertz << " Hz at " << rate;
}

TEST(Response, OfFlatGainsIsFlat)
{
    for (const double hertz : {20.0, 1000.0, 20000.0})
        EXPECT_EQ(ResponseDb({}, hertz), 0.0);
}

TEST(Response, HasEachGainAtItsCentre)
{
    for (size_t band = 0; band < kBandHz.size(); ++band)
    {
        Gains gains{};
        gains[band] = 12.0;
        EXPECT_NEAR(ResponseDb(gains, kBandHz[band]), 12.0, 1e-6);
    }
}

TEST(Response, PresetsAreWithinTheRange)
{
    ASSERT_EQ(BuiltInPresets().size(), 5u);
    EXPECT_EQ(BuiltInPresets()[0].gainsDb, Gains{});
    for (const Preset& preset : BuiltInPresets())
        for (const double dB : preset.gainsDb)
            EXPECT_LE(std::fabs(dB), kMaxGainDb) << preset.name;
}
