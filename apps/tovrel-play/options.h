// The arguments of tovrel-play.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tovrel_audio_player.h"

struct Options
{
    double volume = 1.0; // linear, 0 to 1.5
    double pan = 0.0;    // -1 (left) to 1 (right)
    std::array<double, TovrelAudioPlayer::EqualizerBandCount> gainsDb{};
    double startSeconds = 0.0;      // of every file
    std::vector<std::string> names; // of files, playlists and addresses
};

// Where there is nothing to play (help, version, arguments that make no sense) the answer is
// printed, `exitStatus` is set and nothing is returned.
std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus);
