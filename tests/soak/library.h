// What the listeners play: sound in which every frame is told from every other, and sound and
// rubbish of which nothing is expected but that it does no harm.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// Two listeners are heard at the same time, each on a channel of its own; neither adds anything to
// the other's, whatever volume, pan and equalizer make of it.
enum class Lane : size_t
{
    Left = 0,
    Right = 1,
};

// A stretch of the coded signal: frame i of it has the index `first` + i.
struct Stretch
{
    size_t first = 0;
    size_t count = 0;
};

// The files and the station have their places in the signal, and buffers anything behind.
constexpr Stretch kWavStretch{0, 150000};
constexpr Stretch kFlacStretch{200000, 150000};
constexpr Stretch kRadioStretch{400000, 300000};
constexpr size_t kFirstPcmIndex = 800000;

// One less than a float and FLAC's 24 bits tell apart: 174 s.
constexpr size_t kIndexEnd = (size_t{1} << 23) - 1;

// Stereo frames of one lane: a ramp of the smallest steps that pass the chain bit for bit.
std::vector<float> CodedFrames(Lane lane, Stretch stretch);

// The index of a sample, or kNoIndex where it is none of such a signal.
constexpr size_t kNoIndex = kIndexEnd;
size_t IndexOf(float sample);

struct CodedMaterial
{
    std::string wav;   // paths
    std::string flac;  // 24 bits
    std::string radio; // the bytes of a WAV file without an end
};

// A file of which it is known how its playback ends.
struct File
{
    std::string kind;
    std::string path;
    std::string error; // what LastError says
};

struct Library
{
    Library(); // makes them all with the ffmpeg program, in the runtime directory

    std::vector<CodedMaterial> coded; // by lane
    std::vector<File> files;
    std::map<std::string, std::string> streams; // what stations send, by the name of its format
};
