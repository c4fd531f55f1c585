// What the sequences play, and what is known of it: every sample of the exact ones is told from all
// others, so that whatever is delivered tells its place.
#pragma once

#include "scripted_server.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

struct Source
{
    enum class Kind
    {
        Pcm,
        File,
        Stream
    };
    // Where the sound goes on after a seek.
    enum class Seeking
    {
        ToTheFrame,
        ToABlock, // of `blockFrames`, at or shortly before the target
        Anywhere, // nor is its sound told then: a resampler or a lossy decoder has started anew
    };

    std::string name;
    Kind kind = Kind::Pcm;
    std::vector<float> input; // of a PCM buffer
    std::string path;         // or the URL
    int rate = 48000;         // of the output
    int channels = 2;
    std::vector<float> sound; // what the output is to be given, at unity
    double gain = 1.0;        // by its tags
    double duration = 0.0;    // seconds, 0 where it is unknown
    double durationSlack = 0.0;
    size_t kept = 0; // frames that a resampler may keep at the end
    Seeking seeking = Seeking::ToTheFrame;
    size_t blockFrames = 0;
    std::string error;  // what LastError says as soon as the worker has looked at it
    std::string reject; // what Play itself says, which fails then

    size_t Frames() const { return sound.size() / static_cast<size_t>(channels); }
};

class Sources
{
public:
    Sources();

    // The sources come in order of how simple they are: it is what a failing one shrinks to.
    static constexpr int kCount = 22;
    const Source& At(int index);

    // Lets go of the server of the streams, if there is one.
    void EndServer() { m_server.reset(); }

private:
    std::vector<Source> m_sources;
    std::unique_ptr<ScriptedServer> m_server;
};

// Interleaved samples of which no two are the same, within [-0.5, 0.5).
std::vector<float> Coded(size_t frames, int channels);
