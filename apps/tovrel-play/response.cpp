#include "response.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace
{

constexpr double kQ = 1.15;
constexpr double kNyquistPart = 0.94; // no band lies above this part of half the rate

} // namespace

double ResponseDb(const Gains& gainsDb, double frequencyHz, double sampleRateHz)
{
    const double highestHz = sampleRateHz * 0.5 * kNyquistPart;
    const std::complex<double> z =
        std::polar(1.0, -2.0 * std::numbers::pi * frequencyHz / sampleRateHz); // one frame of delay
    double sumDb = 0.0;
    for (size_t band = 0; band < gainsDb.size(); ++band)
    {
        const double a = std::pow(10.0, gainsDb[band] / 40.0);
        const double omega =
            2.0 * std::numbers::pi * std::min(kBandHz[band], highestHz) / sampleRateHz;
        const double alpha = std::sin(omega) / (2.0 * kQ);
        const double middle = -2.0 * std::cos(omega);
        const std::complex<double> zeros = 1.0 + alpha * a + middle * z + (1.0 - alpha * a) * z * z;
        const std::complex<double> poles = 1.0 + alpha / a + middle * z + (1.0 - alpha / a) * z * z;
        sumDb += 20.0 * std::log10(std::abs(zeros / poles));
    }
    return sumDb;
}

const std::vector<Preset>& BuiltInPresets()
{
    static const std::vector<Preset> presets = {
        {"Flat", {}},
        {"Bass", {7.0, 6.0, 5.0, 2.5, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0}},
        {"Treble", {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 2.0, 4.0, 5.5, 6.0}},
        {"Vocal", {-3.0, -3.0, -2.0, 0.0, 2.5, 4.0, 4.0, 2.5, 0.0, -1.5}},
        {"Loudness", {6.0, 5.0, 2.5, 0.0, -1.0, -1.0, 0.0, 1.0, 3.5, 5.0}},
    };
    return presets;
}
