// What the virtual device, which stands in for the sink, was given and has played.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct VirtualSink
{
    int sampleRate = 0;
    int channels = 0;
    bool bOpen = false;
    bool bActive = false;
    bool bDeleted = false;
    std::vector<float> pushed;        // everything, in the order in which it came
    std::vector<size_t> pushedFrames; // the size of each push
    std::vector<float> heard;         // what was consumed while active
    size_t nextSample = 0;            // of `pushed`, to be consumed next
    double frameRest = 0.0;           // the part of a frame by which time is ahead

    double QueuedSeconds() const;
    double HeardSeconds() const;
};

namespace VirtualDevice
{

// As if nothing had ever been played.
void Reset();

// Every sink that was made, in order, also those that are gone. The worker must be asleep or ended.
std::vector<std::shared_ptr<const VirtualSink>> Sinks();

// The newest one; an empty one where none was made.
VirtualSink Last();

// Every call that changes a sink, as "Init 48000 2", "SetActive 1", "Push 480", "Clear",
// "GetStreamTime", "Destroy" and "delete", with `except` left out.
std::vector<std::string> Calls(const std::string& except = "Push");
void ForgetCalls();

// The coming calls of Init fail.
void FailInit(bool bFail);

// The coming calls of Init take so long.
void SlowInit(double seconds);

// GetStreamTime fails and leaves its outputs alone.
void FailStreamTime(bool bFail);

} // namespace VirtualDevice
