// What one block costs on its way through the processing chain. Every figure stands beside the copy
// of the same block, the floor of what touching it can cost.
#include "internals.h"
#include "plain_equalizer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <vector>

namespace
{

constexpr int kRate = 48000;
constexpr std::array<double, 10> kGainsDb = {3, -6, 9, -12, 6, -3, 1, -1, 6, -3};

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

// What the equalizer is measured by: the loop of its definition, compiled beside it.
void EqualizerPlain(benchmark::State& state)
{
    PlainEqualizer plain(kRate, kGainsDb);
    Run(state,
        [&](Block& block) { plain.Process(block.samples.data(), block.frames, block.channels); });
}

// Its forms, of which the engine takes the last that the processor has.
void EqualizerForm(benchmark::State& state, Internals::EqualizerForm form)
{
    Internals::EqualizerCascade cascade(kRate, kGainsDb);
    Run(state, [&](Block& block) { cascade.Run(form, block.samples.data(), block.frames); });
}

void RunEqualizer(benchmark::State& state, const std::array<double, 10>& gainsDb)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    player.SetEqualizerBands(true, gainsDb);
    Run(state, [&](Block& block)
        { access.ApplyEqualizer(block.samples.data(), block.frames, block.channels, kRate); });
}

void Equalizer(benchmark::State& state)
{
    RunEqualizer(state, kGainsDb);
}

void EqualizerOneBand(benchmark::State& state)
{
    RunEqualizer(state, {0, 0, 0, 0, 6, 0, 0, 0, 0, 0});
}

// A slider that moves: all bands are configured anew for every block.
void EqualizerMoving(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    player.SetEqualizerBands(true, kGainsDb);
    double dB = 0.0;
    Run(state,
        [&](Block& block)
        {
            dB = dB < 6.0 ? dB + 0.1 : 0.0;
            player.SetEqualizerBandGain(4, dB);
            access.ApplyEqualizer(block.samples.data(), block.frames, block.channels, kRate);
        });
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

// From the equalizer to the spectrum, as every playback runs it.
void Chain(benchmark::State& state)
{
    TovrelAudioPlayer player;
    const TovrelAudioPlayerTestAccess access{player};
    player.SetEqualizerBands(true, kGainsDb);
    Run(state,
        [&](Block& block)
        {
            float* const samples = block.samples.data();
            access.ApplyEqualizer(samples, block.frames, block.channels, kRate);
            access.ApplyGainAndPan(samples, block.frames, block.channels, 0.5);
            access.CaptureSpectrumSamples(samples, block.frames, block.channels);
        });
}

void Blocks(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"frames", "channels"});
    for (const int channels : {1, 2, 6})
        for (const int frames : {1, 64, 480, 513, 1024, 4096})
            bench->Args({frames, channels});
}

void StereoBlocks(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"frames", "channels"});
    for (const int frames : {64, 480, 513, 1024, 4096})
        bench->Args({frames, 2});
}

BENCHMARK(Floor)->Apply(Blocks);
BENCHMARK(EqualizerPlain)->Apply(Blocks);
BENCHMARK_CAPTURE(EqualizerForm, sse2, Internals::EqualizerForm::kSse2)->Apply(StereoBlocks);
BENCHMARK_CAPTURE(EqualizerForm, avx2, Internals::EqualizerForm::kAvx2)->Apply(StereoBlocks);
BENCHMARK(Equalizer)->Apply(Blocks);
BENCHMARK(EqualizerOneBand)->Apply(Blocks);
BENCHMARK(EqualizerMoving)->Apply(Blocks);
BENCHMARK(EqualizerBypass)->Apply(Blocks);
BENCHMARK(GainAndPan)->Apply(Blocks);
BENCHMARK(Spectrum)->Apply(Blocks);
BENCHMARK(Chain)->Apply(Blocks);

} // namespace
