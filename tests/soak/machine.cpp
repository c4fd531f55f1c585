#include "machine.h"

#include "harness.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <malloc.h>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace
{

// A worker that is kept waiting for as long as this, a bit less than the shortest queue, may come
// too late for it.
constexpr int64_t kLateNs = 200'000'000;

// Longer than a round.
constexpr int64_t kRememberedNs = 100'000'000'000;

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool TellsOfDroppedCycles(const std::string& line)
{
    static constexpr std::array<std::string_view, 3> kMarks = {"graph not finished",
                                                               "client missed", "XRun!"};
    return std::any_of(kMarks.begin(), kMarks.end(),
                       [&](std::string_view mark) { return line.find(mark) != std::string::npos; });
}

// "[D][47663.125425] pw.node ...": seconds by the monotonic clock.
int64_t TimeOf(const std::string& line)
{
    double seconds = 0.0;
    return std::sscanf(line.c_str(), "[%*c][%lf]", &seconds) == 1
               ? static_cast<int64_t>(seconds * 1e9)
               : NowNs();
}

size_t KibibytesOf(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    size_t kibibytes = 0;
    for (std::string word; status >> word;)
        if (word == name)
            status >> kibibytes;
    return kibibytes;
}

} // namespace

void Machine::Look()
{
    const int64_t now = NowNs();
    if (m_latestLook > 0 && now - m_latestLook > kLateNs)
    {
        for (int64_t ns = m_latestLook; ns < now; ns += kLateNs)
            m_troubles.push_back(ns);
        m_troubles.push_back(now);
    }
    m_latestLook = now;
}

void Machine::ReadDaemonLog()
{
    const std::string path = RuntimePath("pipewire.log");
    std::ifstream log(path, std::ios::binary);
    log.seekg(m_logRead);
    for (std::string line; std::getline(log, line);)
    {
        m_logRead += static_cast<std::streamoff>(line.size()) + 1;
        if (TellsOfDroppedCycles(line))
            m_troubles.push_back(TimeOf(line));
    }
    // Over hours it would fill the disk. The daemon goes on writing where it stands.
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    (void)fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, m_logRead);
    close(file);
    const int64_t old = NowNs() - kRememberedNs;
    std::erase_if(m_troubles, [=](int64_t ns) { return ns < old; });
    m_latestLook = 0;
}

int64_t Machine::NsToTrouble(int64_t ns) const
{
    int64_t nearest = std::numeric_limits<int64_t>::max();
    for (const int64_t trouble : m_troubles)
        nearest = std::min(nearest, std::abs(trouble - ns));
    return nearest;
}

void BeginWithPlainAllocator(char** argv)
{
    constexpr const char* kName = "GLIBC_TUNABLES";
    const std::string wanted = "glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1:"
                               "glibc.malloc.mmap_threshold=131072";
    const char* found = std::getenv(kName);
    if (!found || found != wanted)
    {
        setenv(kName, wanted.c_str(), 1);
        execv("/proc/self/exe", argv);
        throw std::runtime_error("the program cannot begin anew");
    }
    unsetenv(kName); // not for the programs that this one starts
}

Holdings Holdings::Now()
{
    malloc_trim(0);
    const std::string daemonDescriptors = "/proc/" + std::to_string(DaemonPid()) + "/fd";
    Holdings now;
    now.nodes = EngineNodeCount();
    const std::filesystem::directory_iterator entries(daemonDescriptors);
    now.daemonDescriptors = static_cast<size_t>(std::distance(begin(entries), end(entries)));
    const Resources resources = Resources::Now();
    now.threads = resources.threads;
    now.descriptors = resources.descriptors;
    const struct mallinfo2 heap = mallinfo2();
    now.heap = heap.uordblks + heap.hblkhd;
    now.resident = (KibibytesOf("RssAnon:") + KibibytesOf("RssShmem:")) * 1024;
    return now;
}

std::ostream& operator<<(std::ostream& out, const Holdings& holdings)
{
    return out << "heap " << holdings.heap / 1024 << " KiB, resident " << holdings.resident / 1024
               << " KiB, " << holdings.threads << " threads, " << holdings.descriptors
               << " descriptors, of the daemon's " << holdings.daemonDescriptors << ", "
               << holdings.nodes << " nodes";
}
