#include "harness.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace
{

constexpr unsigned kWatchdogSeconds = 60;

// Times of some 100 ms are measured here, and cannot be where ready threads do not run for that
// long.
constexpr std::chrono::milliseconds kLongestFairWait{100};

constexpr int kWrongPlace = 2;
constexpr int kInconclusive = 75; // for the launcher: to be tried again

// A case that hangs ends by itself, so that its daemon is cleaned up after.
class Watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override { alarm(kWatchdogSeconds); }
    void OnTestEnd(const testing::TestInfo&) override { alarm(0); }
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    // What is played here is noise, and some cases kill the daemon: never a user's own session.
    if (!std::filesystem::exists(RuntimePath("wireplumber.pid")))
    {
        std::cerr << "These tests run under scripts/with-null-sink only.\n";
        return kWrongPlace;
    }
    unsetenv("PIPEWIRE_DEBUG");    // the daemon's log is wanted, not this process's
    std::signal(SIGPIPE, SIG_IGN); // some daemons go away in the middle of a write
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    const ProcessorWatch watch;
    const int status = RUN_ALL_TESTS();
    if (status == 0)
        return status;
    std::cout << "A thread waited for a processor for " << watch.LongestWait().count()
              << " ms at the longest." << std::endl;
    // Only what was recorded depends on the machine in that way.
    const bool bCyclesDropped = MonitorRecording::AnyRecorded() &&
                                (MonitorRecording::AnyMissedCycles() || DaemonDroppedCycles());
    if (bCyclesDropped || watch.LongestWait() >= kLongestFairWait)
    {
        std::cout << "No verdict: the machine kept "
                  << (bCyclesDropped ? "the graph waiting, which dropped cycles."
                                     : "threads waiting.")
                  << std::endl;
        return kInconclusive;
    }
    return status;
}
