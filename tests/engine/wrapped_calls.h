// FFmpeg's functions on the way from the engine: made to fail, and logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// While it lives, one call of the named function fails: the one after `skip` calls that succeed.
// Functions that return a code return `code`, functions that return a pointer return null.
class FailingCall
{
public:
    explicit FailingCall(const char* function, int code = 0, int skip = 0);
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    // Whether the call came and failed.
    bool Happened() const;
};

// While it lives, every decoded frame carries these times, in the stream's time base.
class ChangedFrameTimes
{
public:
    ChangedFrameTimes(int64_t bestEffort, int64_t pts);
    ~ChangedFrameTimes();
    ChangedFrameTimes(const ChangedFrameTimes&) = delete;
    ChangedFrameTimes& operator=(const ChangedFrameTimes&) = delete;
};

// The calls that released something, in order, since the process began or ForgetReleases.
std::vector<std::string> Releases();
void ForgetReleases();

// How often the named function was called since the process began.
int CallCount(const std::string& function);
