// The arguments of tovrel-play.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "response.h"

struct Options
{
    std::optional<double> volume; // linear, 0 to 1.5
    double pan = 0.0;             // -1 (left) to 1 (right)
    Gains gainsDb{};
    double startSeconds = 0.0;             // of every file
    std::optional<double> durationSeconds; // after which all of it ends
    int rateHz = 48000;                    // of standard input,
    int channels = 2;                      // raw floats
    std::string recording;                 // the file to record to; empty: none
    bool bShuffle = false;
    bool bRepeat = false;
    bool bOnce = false; // ends after the last entry, also on a whole terminal
    bool bJson = false;
    bool bKeys = true;
    bool bLine = false;             // one line of a terminal, not the whole of it
    std::vector<std::string> names; // of files, folders, playlists and addresses; "-"
};

// Where there is nothing to play (help, version, arguments that make no sense) the answer is
// printed, `exitStatus` is set and nothing is returned.
std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus);
