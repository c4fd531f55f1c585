// What the sink's process callback does on PipeWire's thread, as the C library sees it. What this
// program and its libraries allocate, release, lock or wait for, by the functions that stand in
// traced_callback.cpp, is counted while a traced region runs on the thread that does it.
#pragma once

#include "pipewire_player.h"

#include <iosfwd>
#include <pthread.h>

struct Trace
{
    int callbacks = 0;
    int allocations = 0;
    int releases = 0;
    int ownLocks = 0;       // of mutexes within the sink, which has one
    int contendedLocks = 0; // those of them that somebody else held
    int foreignLocks = 0;   // of anything else
    int waits = 0;          // for a condition, a semaphore, time, a file

    bool operator==(const Trace&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Trace& trace);

// Since the process began.
Trace TraceUntilNow();

// The sink's mutex, null before its callback has locked it.
pthread_mutex_t* MutexOfSink();

// What happens on this thread while it lives is counted, as if the sink's callback did it.
class TracedRegion
{
public:
    explicit TracedRegion(const PipeWirePlayer& sink);
    ~TracedRegion();
    TracedRegion(const TracedRegion&) = delete;
    TracedRegion& operator=(const TracedRegion&) = delete;
};
