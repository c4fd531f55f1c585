// When the machine was too busy for sound, and what this process takes of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ios>
#include <iosfwd>
#include <string>
#include <vector>

// What is heard, or not heard, this near to a trouble may be its doing. Sound is queued before it
// is heard, 0.5 s at the most but for radio, and the daemon and the recording hear of a trouble a
// few cycles apart.
constexpr int64_t kTroubledNs = 1'000'000'000;

// All times are monotonic, in nanoseconds.
class Machine
{
public:
    // To be called every few milliseconds of a round: it tells how long this process is kept
    // waiting.
    void Look();

    // At the end of a round, after which nobody looks for a while: reads what the daemon has
    // written in it, and lets go of what was noted long before.
    void ReadDaemonLog();

    // Notes that cycles of the graph are missing from a recording.
    void AddLostCycles(int64_t ns) { m_troubles.push_back(ns); }

    // How far from this time the nearest trouble is, before it or after it.
    int64_t NsToTrouble(int64_t ns) const;

private:
    std::vector<int64_t> m_troubles;
    int64_t m_latestLook = 0;
    std::streamoff m_logRead = 0;
};

// Lets the program begin anew, where it has not, with an allocator that holds nothing back of what
// is freed: what it would keep for threads that are gone and for blocks of sizes that come again is
// more than many a leak.
void BeginWithPlainAllocator(char** argv);

// What a playback could leave behind.
struct Holdings
{
    size_t heap = 0;     // bytes that are allocated and not freed
    size_t resident = 0; // bytes that only this process has in memory, shared files' aside
    size_t threads = 0;
    size_t descriptors = 0;
    size_t daemonDescriptors = 0;
    size_t nodes = 0; // of the engine's, that the daemon knows

    static Holdings Now();
};
std::ostream& operator<<(std::ostream& out, const Holdings& holdings);
