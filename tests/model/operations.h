// What a host may do to a player, as values: drawn at random, shrunk, and shown as the calls that
// they stand for.
#pragma once

#include <rapidcheck.h>

#include <iosfwd>
#include <vector>

struct Operation
{
    enum class Kind
    {
        Wait, // number: seconds
        Look, // at the position, which a host need not do
        Play, // choice: of the sources; number: where a PCM buffer starts, in seconds
        SeekToSeconds,
        SeekToFraction,
        SetPaused, // choice: 0 or 1
        TogglePaused,
        Stop,
        RequestStop,
        SetVolume,
        AdjustVolume,
        SetPan,
        AdjustPan,
        SetEqualizerEnabled,  // choice: 0 or 1
        SetEqualizerBandGain, // choice: the band
        SetEqualizerBands,    // choice: 0 or 1; number: of the first band, half of it of the last
        SetTap,               // choice: none, one, one that replaces itself when it is first called
    };

    Kind kind = Kind::Look;
    int choice = 0;
    double number = 0.0;
};

using Operations = std::vector<Operation>;

// Each kind this often, relative to the others.
struct Weights
{
    size_t wait = 8;
    size_t play = 6;
    size_t seek = 4;
    size_t pause = 4;
    size_t stop = 1;
    size_t look = 4;
    size_t control = 1;
};

// Sequences that play the first `sources` sources.
rc::Gen<Operations> RandomOperations(int sources, const Weights& weights = {});

std::ostream& operator<<(std::ostream& out, const Operation& operation);
void showValue(const Operations& operations, std::ostream& out); // for RapidCheck
