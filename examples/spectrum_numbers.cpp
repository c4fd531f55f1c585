// Plays a file and prints how loud each octave is, ten times a second, in dB.
#include "tovrel_audio_player.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <thread>
#include <vector>

// The level of the sine at this frequency: one term of the Fourier transform, of samples that a
// Hann window fades in and out.
double LevelDb(const std::vector<float>& mono, double hertz)
{
    std::complex<double> sum = 0.0;
    const double turn = 2.0 * std::numbers::pi;
    const auto count = static_cast<double>(mono.size());
    for (size_t i = 0; i < mono.size(); ++i)
    {
        const auto at = static_cast<double>(i);
        const double window = 0.5 - 0.5 * std::cos(turn * at / count);
        sum += std::polar(window * mono[i], -turn * hertz * at / 48000.0);
    }
    return 20.0 * std::log10(std::max(std::abs(sum) * 4.0 / std::max(count, 1.0), 1e-5));
}

int main(int argc, char** argv)
{
    if (argc != 2)
        return std::puts("usage: spectrum_numbers FILE"), 2;
    TovrelAudioPlayer player;
    player.PlayFile(argv[1]);
    while (!player.HasFinished())
    {
        const std::vector<float> mono = player.CopySpectrumSamples();
        std::printf("%6.1f s", player.CurrentSeconds());
        for (double hertz = 62.5; hertz < 20000.0; hertz *= 2.0)
            std::printf(" %5.0f", LevelDb(mono, hertz));
        std::puts("");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::puts(player.LastError().c_str());
    return player.LastError().empty() ? 0 : 1;
}
