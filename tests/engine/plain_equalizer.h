// A plain rendering of the equalizer, sample after sample and band after band, to be met bit for
// bit.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <vector>

constexpr double kTwoPi = 6.283185307179586;
constexpr std::array<double, 10> kBandFrequenciesHz = {31,   62,   125,  250,  500,
                                                       1000, 2000, 4000, 8000, 16000};

struct PlainBand
{
    double b0, b1, b2, a1, a2;
    double z1[2] = {0, 0};
    double z2[2] = {0, 0};

    PlainBand(double rate, double hz, double dB)
    {
        const double nyquist = std::max(rate * 0.5, 1.0);
        const double freq = std::min(std::max(hz, 1.0), nyquist * 0.94);
        const double a = std::pow(10.0, dB / 40.0);
        const double omega = freq * kTwoPi / rate;
        const double alpha = std::sin(omega) / 2.3;
        const double a0 = 1.0 + alpha / a;
        b0 = (1.0 + alpha * a) / a0;
        b1 = (-2.0 * std::cos(omega)) / a0;
        b2 = (1.0 - alpha * a) / a0;
        a1 = (-2.0 * std::cos(omega)) / a0;
        a2 = (1.0 - alpha / a) / a0;
    }

    float Process(float sample, int channel)
    {
        const int ch = channel > 1 ? 1 : channel;
        const double x = sample;
        const double out = b0 * x + z1[ch];
        z1[ch] = b1 * x - a1 * out + z2[ch];
        z2[ch] = b2 * x - a2 * out;
        return static_cast<float>(out < -4.0 ? -4.0 : out > 4.0 ? 4.0 : out);
    }

    double MagnitudeDb(double hz, double rate) const
    {
        const std::complex<double> z = std::polar(1.0, -kTwoPi * hz / rate);
        return 20.0 *
               std::log10(std::abs((b0 + b1 * z + b2 * z * z) / (1.0 + a1 * z + a2 * z * z)));
    }
};

struct PlainEqualizer
{
    std::vector<PlainBand> bands;

    PlainEqualizer(double rate, const std::array<double, 10>& gains)
    {
        for (size_t band = 0; band < 10; ++band)
            bands.emplace_back(rate, kBandFrequenciesHz[band], gains[band]);
    }

    void Process(float* samples, int frames, int channels)
    {
        for (int i = 0; i < frames; ++i)
        {
            for (int ch = 0; ch < channels; ++ch, ++samples)
            {
                float value = *samples;
                for (PlainBand& band : bands)
                    value = band.Process(value, ch);
                *samples = value;
            }
        }
    }

    std::vector<float> Run(std::vector<float> samples, int channels)
    {
        Process(samples.data(), static_cast<int>(samples.size()) / channels, channels);
        return samples;
    }
};
