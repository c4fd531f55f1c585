// Makes a chord and plays it: samples from memory, at a rate and with channels of their own.
#include "tovrel_audio_player.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>
#include <thread>
#include <utility>
#include <vector>

int main()
{
    constexpr int kRateHz = 44100;
    constexpr int kSeconds = 2;
    std::vector<float> mono(kRateHz * kSeconds);
    for (size_t i = 0; i < mono.size(); ++i)
    {
        const double seconds = static_cast<double>(i) / kRateHz;
        double sum = 0.0;
        for (const double hertz : {220.0, 277.18, 329.63})
            sum += std::sin(2.0 * std::numbers::pi * hertz * seconds);
        mono[i] = static_cast<float>(0.2 * sum * std::exp(-1.5 * seconds));
    }
    TovrelAudioPlayer player;
    player.SetPan(-0.3);
    std::string error;
    if (!player.PlayPcm(std::move(mono), kRateHz, 1, 0.0, &error))
        return std::puts(error.c_str()), 1;
    while (!player.HasFinished())
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::puts(player.LastError().c_str());
    return player.LastError().empty() ? 0 : 1;
}
