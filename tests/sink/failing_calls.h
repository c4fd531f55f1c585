// The sink's calls into PipeWire, the C library and the allocator: made to fail, and counted.
#pragma once

#include <climits>

// What fails goes by the function's name, which failing_calls.cpp lists. Allocations fail within
// the sink's own Init and PushBytes only, and what the sink's stream calls on its data thread fails
// for no other stream. These go by other names:
constexpr const char* kAllocation = "operator new";
constexpr const char* kStreamError = "a stream that is refused"; // told while Init waits
constexpr const char* kZeroRate = "a time without a rate";       // told by pw_stream_get_time_n

constexpr int kForever = INT_MAX;

// While it lives, calls of the named function fail: those that come after `skip` of them, `count`
// in all, and only every `every`-th of these. Several functions can fail at the same time.
class FailingCalls
{
public:
    explicit FailingCalls(const char* function, int skip = 0, int count = 1, int every = 1);
    ~FailingCalls();
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;

    // How many have failed by now.
    int Failed() const;

private:
    const char* m_function;
};

// How often the named function was called since the process began.
int CallCount(const char* function);

// While it lives, PipeWire's library passes for this version.
class OtherLibraryVersion
{
public:
    explicit OtherLibraryVersion(const char* version);
    ~OtherLibraryVersion();
    OtherLibraryVersion(const OtherLibraryVersion&) = delete;
    OtherLibraryVersion& operator=(const OtherLibraryVersion&) = delete;
};

// How many silent buffers the sink's latest stream has passed on before its first sound.
int SilentBuffersBeforeSound();
