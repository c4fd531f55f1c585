// FFmpeg's functions on the way from the engine: made to fail, and logged; and the memory that the
// engine asks the standard library for.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

extern "C"
{
#include <libavutil/error.h>
}

// An error code and what FFmpeg says of it.
struct ErrorCode
{
    int code;
    const char* text;
};

// Codes that its callers meet, and at the end one that it does not know.
inline constexpr ErrorCode kErrorCodes[] = {
    {AVERROR(ENOMEM), "Cannot allocate memory"},
    {AVERROR_INVALIDDATA, "Invalid data found when processing input"},
    {AVERROR(EIO), "Input/output error"},
    {AVERROR(EINVAL), "Invalid argument"},
    {AVERROR(ENOSYS), "Function not implemented"},
    {AVERROR_EXTERNAL, "Generic error in an external library"},
    {AVERROR_UNKNOWN, "Unknown error occurred"},
    {-1234567, "Error number -1234567 occurred"},
};

// While it lives, one call of the named function fails: the one after `skip` calls that succeed.
// Functions that return a code return `code`, functions that return a pointer return null. Several
// may live at a time.
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

// While it lives, `act` is called at the start of one call of the named function, the one after
// `skip` others, on the thread that calls it.
class DuringCall
{
public:
    DuringCall(const char* function, int skip, std::function<void()> act);
    ~DuringCall();
    DuringCall(const DuringCall&) = delete;
    DuringCall& operator=(const DuringCall&) = delete;
};

// While it lives, memory is short from one call of the named function on, the one after `skip`
// others, up to the next call of any function: the first who asks for this many bytes or more gets
// none. Without a name it is short from now on.
class ShortMemory
{
public:
    ShortMemory(const char* function, int skip, size_t bytes);
    ~ShortMemory();
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;

    // Whether anybody got none.
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

// Every call while it lives, in order, with what NoteCall adds.
class RecordedCalls
{
public:
    RecordedCalls();
    ~RecordedCalls();
    RecordedCalls(const RecordedCalls&) = delete;
    RecordedCalls& operator=(const RecordedCalls&) = delete;

    std::vector<std::string> All() const;
};
void NoteCall(const std::string& what);

// The calls that released something, in order, since the process began or ForgetReleases.
std::vector<std::string> Releases();
void ForgetReleases();

// How often the named function was called since the process began; of one that releases, how often
// there was something to release.
int CallCount(const std::string& function);

// How many objects of each kind, by the name of what creates it, were created and not released
// since the process began.
std::map<std::string, int> Unreleased();

// For wrappers elsewhere: whether this call of the function is one that fails.
bool FailsHere(const char* function);
