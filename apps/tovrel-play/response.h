// What the equalizer does to a tone, for its picture, and settings for it that are worth a name.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tovrel_audio_player.h"

using Gains = std::array<double, TovrelAudioPlayer::EqualizerBandCount>; // dB, of each band

constexpr Gains kBandHz = {31.0,   62.0,   125.0,  250.0,  500.0,
                           1000.0, 2000.0, 4000.0, 8000.0, 16000.0};
constexpr double kMaxGainDb = 18.0;

// The gain in dB of all bands together for a sine of this frequency (0 to half the rate), both in
// Hz: the magnitude of the peaking filters of Robert Bristow-Johnson's "Cookbook formulae for audio
// EQ biquad filter coefficients", with the Q of 1.15 that the player's bands have.
double ResponseDb(const Gains& gainsDb, double frequencyHz, double sampleRateHz = 48000.0);

struct Preset
{
    std::string name;
    Gains gainsDb{};
};

// Flat, Bass, Treble, Vocal, Loudness.
const std::vector<Preset>& BuiltInPresets();
