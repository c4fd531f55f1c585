// A player that nothing holds up: its time is virtual, its sink keeps nothing, its network is the
// fuzz target, and what asks for a lot of memory gets none.
#pragma once

#include "tovrel_audio_player.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class QuickPlayback
{
public:
    // What the next one that connects is sent before the other side closes. Without an answer the
    // connection is refused.
    using Network = std::function<std::optional<std::string>()>;

    // Takes from the end of the input what the host is to do meanwhile, so that in front of it
    // files and streams can stand as they are. More than `queueLimit` seconds of sound must never
    // be queued when a block comes.
    QuickPlayback(FuzzedDataProvider& input, double queueLimit, Network network);

    // Stops, and checks that nothing stays.
    ~QuickPlayback();

    QuickPlayback(const QuickPlayback&) = delete;
    QuickPlayback& operator=(const QuickPlayback&) = delete;

    // Lets the worker run to its end. It is asked to stop once it has made some seconds of sound,
    // as what a few bytes can claim to be may last for years, or when it takes long: some answers,
    // a gzip body that breaks off for one, keep FFmpeg going round until somebody stops it.
    void RunToEnd();

    TovrelAudioPlayer player;

private:
    // Something that the host does while a block passes.
    struct Deed
    {
        size_t block = 0;
        int what = 0;
        double value = 0.0; // within [0, 1]
    };

    void OnBlock(const float* samples, int frames, int rate, int channels, long microseconds);
    void Do(const Deed& deed);

    std::array<Deed, 3> deeds;
    size_t blocks = 0;
    double seconds = 0.0; // of sound so far
    int lowestDescriptor; // that was free before
};

// Whether a text is one of these, or begins with one that ends in ": ".
bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> known);

// Tells libFuzzer that an input has led to something of its own. FFmpeg is not instrumented, so
// that its ways do not show otherwise.
void NoteOutcome(std::string_view outcome);
