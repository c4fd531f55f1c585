// What one block costs on its way through the processing chain. Every figure stands beside the copy
// of the same block, the floor of what touching it can cost.
#include "internals.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace
{

constexpr int kRate = 48000;

struct Block
{
    int frames;
    int channels;
    std::vector<float> source;
    std::vector<float> samples;

    explicit Block(const benchmark::State& state) :
        frames(static_cast<int>(state.range(0))), channels(static_cast<int>(state.range(1))),
        source(static_cast<size_t>(frames * channels)), samples(source.size())
    {
        for (size_t i = 0; i < source.size(); ++i)
            source[i] = static_cast<float>(i * 7919 % 65536) / 65536.0f - 0.5f;
    }

    // Fresh samples each time: what has been processed often enough has died away.
    void Refill() { std::copy(source.begin(), source.end(), samples.begin()); }

    void Count(benchmark::State& state) const
    {
        state.SetItemsProcessed(state.iterations() * frames); // frames a second
    }
};

template <typename Process>
void Run(benchmark::State& state, Process process)
{
    Block block(state);
    for ([[maybe_unused]] auto _ : state)
    {
        block.Refill();
        process(block);
        benchmark::DoNotOptimize(block.samples.data());
        benchmark::ClobberMemory();
    }
    block.Count(state);
}

void Floor(benchmark::State& state)
{
    Run(state, [](Block&) {});
}

void Equalizer(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    player.SetEqualizerBands(true, {3, -6, 9, -12, 6, -3, 1, -1, 6, -3});
    Run(state, [&](Block& block)
        { access.ApplyEqualizer(block.samples.data(), block.frames, block.channels, kRate); });
}

void EqualizerBypass(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    Run(state, [&](Block& block)
        { access.ApplyEqualizer(block.samples.data(), block.frames, block.channels, kRate); });
}

void GainAndPan(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    player.SetPan(0.25);
    Run(state, [&](Block& block)
        { access.ApplyGainAndPan(block.samples.data(), block.frames, block.channels, 0.5); });
}

void Spectrum(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    Run(state, [&](Block& block)
        { access.CaptureSpectrumSamples(block.samples.data(), block.frames, block.channels); });
}

void Blocks(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"frames", "channels"});
    for (const int channels : {1, 2, 6})
        for (const int frames : {1, 64, 480, 513, 1024, 4096})
            bench->Args({frames, channels});
}

BENCHMARK(Floor)->Apply(Blocks);
BENCHMARK(Equalizer)->Apply(Blocks);
BENCHMARK(EqualizerBypass)->Apply(Blocks);
BENCHMARK(GainAndPan)->Apply(Blocks);
BENCHMARK(Spectrum)->Apply(Blocks);

} // namespace
