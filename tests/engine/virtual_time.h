// Time for the tests: the worker sleeps in it, the player's clock reads it, the virtual device
// consumes by it.
#pragma once

#include <cstdint>
#include <functional>

namespace VirtualTime
{

// Seconds since the process began.
double Now();
int64_t NowNs();

// In stepped time a sleeping worker waits until Step has moved time past its sleep, and runs only
// then; in free-running time a sleep moves time by its own length and returns at once, so that a
// worker runs as fast as it can and in the same order every time. Tests begin in stepped time.
void SetFreeRunning(bool bFree);

// Whether the worker under test has ended; by default none is there.
void SetWorkerEnded(std::function<bool()> bEnded);

// Waits, in real time, until the worker sleeps or has ended. Fails the test after some seconds.
void Settle();

// Moves time by this much, letting the worker run at every point at which its sleep ends.
void Step(double seconds);

// Called with the nanoseconds by which time is about to move.
void SetOnAdvance(std::function<void(int64_t)> onAdvance);

} // namespace VirtualTime
