#include "joining.h"

#include "virtual_time.h"

#include <cstdlib>
#include <iostream>
#include <thread>
#include <utility>

namespace
{

std::function<bool()> g_bEnded = []
{
    return true;
};
double g_seconds = 0.0;

} // namespace

namespace Joining
{

void SetWorkerEnded(const std::function<bool()>& bEnded)
{
    g_bEnded = bEnded;
    VirtualTime::SetWorkerEnded(bEnded);
}

void NoWorker()
{
    SetWorkerEnded([] { return true; });
}

double TakeSeconds()
{
    return std::exchange(g_seconds, 0.0);
}

} // namespace Joining

extern "C"
{
    void __real__ZNSt6thread4joinEv(std::thread* thread);

    // Other threads than the worker are joined only while there is none.
    void __wrap__ZNSt6thread4joinEv(std::thread* thread);
    void __wrap__ZNSt6thread4joinEv(std::thread* thread)
    {
        constexpr double kPoll = 0.001;
        constexpr double kHopeless = 10.0;
        const double start = VirtualTime::Now();
        while (!g_bEnded())
        {
            if (VirtualTime::Now() - start > kHopeless)
            {
                std::cerr << "the worker does not end\n";
                std::abort();
            }
            VirtualTime::Step(kPoll);
        }
        g_seconds += VirtualTime::Now() - start;
        __real__ZNSt6thread4joinEv(thread);
    }
}
