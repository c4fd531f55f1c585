// How cases are entered that measure moments of their own.
#pragma once

#include <benchmark/benchmark.h>

#include <exception>
#include <string>

// One iteration, so that repetitions in random order bring the contenders side by side. What
// `measure` throws is why the case is skipped.
template <typename Measure>
void RegisterCase(const std::string& name, Measure measure)
{
    const auto run = [measure](benchmark::State& state)
    {
        try
        {
            measure(state);
        }
        catch (const std::exception& error)
        {
            state.SkipWithError(error.what());
        }
    };
    benchmark::RegisterBenchmark(name.c_str(), run)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
}
