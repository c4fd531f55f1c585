// The ten-band equalizer against its formulae and against its mathematics.
#include "plain_equalizer.h"
#include "playback.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <span>
#include <thread>

namespace
{

std::vector<uint32_t> Bits(const std::vector<float>& samples)
{
    std::vector<uint32_t> bits(samples.size());
    std::transform(samples.begin(), samples.end(), bits.begin(),
                   [](float sample) { return std::bit_cast<uint32_t>(sample); });
    return bits;
}

// Every test runs on a thread of its own, as every playback does: the history belongs to it.
class Equalizer : public Playback
{
protected:
    std::vector<float> Run(std::vector<float> samples, int channels, int rate = 48000) const
    {
        access.ApplyEqualizer(samples.data(), static_cast<int>(samples.size()) / channels, channels,
                              rate);
        return samples;
    }

    template <typename Function>
    static void OnNewThread(Function function)
    {
        std::thread(function).join();
    }

    const std::array<double, 10> gains = {3, -6, 9, -12, 18, -18, 0.5, -0.5, 6, -3};
};

} // namespace

TEST_F(Equalizer, FlatIsBitIdenticalToItsInput)
{
    const std::vector<float> samples = Ramp(1000, 2);
    EXPECT_EQ(Bits(Run(samples, 2)), Bits(samples));
}

TEST_F(Equalizer, GainsWithinAHundredthOfADecibelAreFlat)
{
    for (size_t band = 0; band < 10; ++band)
        player.SetEqualizerBandGain(band, band % 2 ? 0.01 : -0.01);
    const std::vector<float> samples = Ramp(1000, 2);
    EXPECT_EQ(Bits(Run(samples, 2)), Bits(samples));
}

TEST_F(Equalizer, OneBandJustOffFlatRunsTheWholeChain)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBandGain(4, 0.011);
            const std::vector<float> samples = Ramp(1000, 2);
            std::array<double, 10> one{};
            one[4] = 0.011;
            const std::vector<float> out = Run(samples, 2);
            EXPECT_EQ(Bits(out), Bits(PlainEqualizer(48000, one).Run(samples, 2)));
            EXPECT_NE(Bits(out), Bits(samples));
        });
}

TEST_F(Equalizer, OffIsBitIdenticalToItsInput)
{
    player.SetEqualizerBands(false, gains);
    const std::vector<float> samples = Ramp(1000, 2);
    EXPECT_EQ(Bits(Run(samples, 2)), Bits(samples));
}

TEST_F(Equalizer, BitForBitTheFormulae)
{
    for (const int channels : {1, 2, 4, 6})
    {
        for (const int rate : {1, 8000, 22050, 44100, 48000, 192000})
        {
            OnNewThread(
                [&]
                {
                    player.SetEqualizerBands(true, gains);
                    PlainEqualizer plain(rate, gains);
                    for (const size_t frames : {1u, 64u, 480u, 513u, 1024u})
                    {
                        const std::vector<float> samples = Ramp(frames, channels);
                        EXPECT_EQ(Bits(Run(samples, channels, rate)),
                                  Bits(plain.Run(samples, channels)))
                            << channels << " channels, " << rate << " Hz, " << frames << " frames";
                    }
                });
        }
    }
}

namespace
{

// What files and faulty decoders may hold: sound, silence, far too loud, next to nothing, and, in
// one sample of `one in`, no number at all.
std::vector<float> Anything(std::mt19937& random, size_t frames, unsigned oneIn = 0)
{
    std::vector<float> samples(frames * 2);
    unsigned long kind = 0;
    for (float& sample : samples)
    {
        if (random() % 64 == 0)
            kind = random() % 5;
        const float noise = static_cast<float>(static_cast<int32_t>(random())) / 2147483648.0f;
        sample = kind == 0   ? noise
                 : kind == 1 ? noise * 20.0f
                 : kind == 2 ? noise * 3e38f
                 : kind == 3 ? noise * 1e-39f // denormal
                             : std::copysign(0.0f, noise);
        if (oneIn > 0 && random() % oneIn == 0)
            sample =
                std::bit_cast<float>(static_cast<uint32_t>((random() & 0x807FFFFFu) | 0x7F800000u));
    }
    return samples;
}

// Blocks of every length up to where the last of the ten bands has left its corner twice, and those
// that playbacks use.
std::vector<size_t> BlockLengths()
{
    std::vector<size_t> lengths{64, 480, 513, 1024, 4096};
    for (size_t frames = 1; frames <= 30; ++frames)
        lengths.push_back(frames);
    return lengths;
}

} // namespace

TEST_F(Equalizer, EveryFormGivesTheBitsOfThePlainLoop)
{
    std::mt19937 random(1);
    for (const Internals::EqualizerForm form : Internals::EqualizerForms())
    {
        for (const int rate : {8000, 44100, 48000})
        {
            Internals::EqualizerCascade cascade(rate, gains);
            PlainEqualizer plain(rate, gains);
            for (const size_t frames : BlockLengths())
            {
                std::vector<float> samples = Anything(random, frames);
                const std::vector<float> expected = plain.Run(samples, 2);
                cascade.Run(form, samples.data(), static_cast<int>(frames));
                ASSERT_EQ(Bits(samples), Bits(expected))
                    << "form " << static_cast<int>(form) << ", " << frames << " frames";
            }
        }
    }
}

// Where a band lies above Nyquist its filter is unstable and leaves the numbers within a block.
TEST_F(Equalizer, EveryFormLeavesTheNumbersAsThePlainLoopDoes)
{
    size_t strayed = 0;
    std::mt19937 random(4);
    for (int rate = 1; rate <= 80; ++rate)
    {
        std::array<double, 10> steep{};
        std::generate(steep.begin(), steep.end(), [&] { return random() % 2 ? 18.0 : -18.0; });
        const std::vector<float> samples = Anything(random, 1500);
        std::vector<float> expected = samples;
        Internals::EqualizerCascade(rate, steep)
            .Run(Internals::EqualizerForm::kInTurn, expected.data(), 1500);
        for (const Internals::EqualizerForm form : Internals::EqualizerForms())
        {
            std::vector<float> out = samples;
            Internals::EqualizerCascade(rate, steep).Run(form, out.data(), 1500);
            ASSERT_EQ(Bits(out), Bits(expected)) << rate << " Hz, form " << static_cast<int>(form);
        }
        strayed += std::any_of(expected.begin(), expected.end(),
                               [](float sample) { return std::isnan(sample); });
    }
    EXPECT_GT(strayed, 0u);
}

TEST_F(Equalizer, EveryNumberOfChannelsGivesTheBitsOfThePlainLoop)
{
    std::mt19937 random(5);
    Internals::EqualizerCascade cascade(48000, gains);
    PlainEqualizer plain(48000, gains); // the histories go on from one to the other
    for (const int channels : {1, 2, 3, 6, 8, 2, 64, 512, 513, 1, 600, 2})
    {
        for (const int frames : {1, 9, 10, 11, 170, 171, 512, 513, 1100})
        {
            std::vector<float> samples =
                Anything(random, static_cast<size_t>(frames * channels + 1) / 2);
            samples.resize(static_cast<size_t>(frames * channels));
            const std::vector<float> expected = plain.Run(samples, channels);
            cascade.Run(samples.data(), frames, channels);
            ASSERT_EQ(Bits(samples), Bits(expected)) << channels << " channels, " << frames;
        }
    }
}

TEST_F(Equalizer, BlocksOfAnyLengthAreOneStream)
{
    std::mt19937 random(2);
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            const std::vector<float> whole = Anything(random, 20000);
            std::vector<float> out;
            while (out.size() < whole.size())
            {
                const auto from = whole.begin() + static_cast<ptrdiff_t>(out.size());
                const size_t frames =
                    std::min<size_t>(1 + random() % 60, (whole.size() - out.size()) / 2);
                const std::vector<float> block =
                    Run({from, from + static_cast<ptrdiff_t>(frames * 2)}, 2);
                out.insert(out.end(), block.begin(), block.end());
            }
            EXPECT_EQ(Bits(out), Bits(PlainEqualizer(48000, gains).Run(whole, 2)));
        });
}

TEST_F(Equalizer, WhatIsNoNumberPassesAsItDoesInTurn)
{
    std::mt19937 random(3);
    for (const unsigned oneIn : {10000u, 300u, 5u})
    {
        OnNewThread(
            [&]
            {
                player.SetEqualizerBands(true, gains);
                Internals::EqualizerCascade inTurn(48000, gains);
                for (int i = 0; i < 200; ++i)
                {
                    std::vector<float> samples = Anything(random, 1 + random() % 600, oneIn);
                    const std::vector<float> out = Run(samples, 2);
                    inTurn.Run(Internals::EqualizerForm::kInTurn, samples.data(),
                               static_cast<int>(samples.size() / 2));
                    ASSERT_EQ(Bits(out), Bits(samples));
                }
            });
    }
}

TEST_F(Equalizer, NaNKeepsItsPayload)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            std::vector<float> samples = Ramp(100, 2);
            samples[40] = std::bit_cast<float>(0xFFC12345u); // quiet, negative
            const std::vector<float> out = Run(samples, 2);
            for (size_t i = 40; i < out.size(); i += 2)
                ASSERT_EQ(std::bit_cast<uint32_t>(out[i]), 0xFFC12345u) << i;
            EXPECT_EQ(Bits(out), Bits(PlainEqualizer(48000, gains).Run(samples, 2)));
        });
}

TEST_F(Equalizer, NumbersAfterANewConfigurationAreCalculatedAsEver)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            Run(std::vector<float>(100, std::numeric_limits<float>::infinity()), 2);
            player.SetEqualizerBandGain(0, 4.0);
            std::array<double, 10> changed = gains;
            changed[0] = 4.0;
            const std::vector<float> samples = Ramp(500, 2);
            EXPECT_EQ(Bits(Run(samples, 2)), Bits(PlainEqualizer(48000, changed).Run(samples, 2)));
        });
}

TEST_F(Equalizer, EveryBandHasItsGainAtItsCentre)
{
    for (size_t band = 0; band < 10; ++band)
    {
        OnNewThread(
            [&]
            {
                std::array<double, 10> one{};
                one[band] = 6.0;
                player.SetEqualizerBands(true, one);
                // The response is the transform of what an impulse leaves behind.
                std::vector<float> impulse(48000, 0.0f);
                impulse[0] = 1.0f;
                const std::vector<float> response = Run(impulse, 1);
                for (const double hz :
                     {kBandFrequenciesHz[band], kBandFrequenciesHz[band] * 1.3, 700.0})
                {
                    std::complex<double> sum = 0.0;
                    for (size_t i = 0; i < response.size(); ++i)
                        sum += static_cast<double>(response[i]) *
                               std::polar(1.0, -kTwoPi * hz * static_cast<double>(i) / 48000.0);
                    EXPECT_NEAR(
                        20.0 * std::log10(std::abs(sum)),
                        PlainBand(48000, kBandFrequenciesHz[band], 6.0).MagnitudeDb(hz, 48000),
                        0.01) // float rounding between the bands
                        << "band " << band << " at " << hz << " Hz";
                }
                EXPECT_NEAR(PlainBand(48000, kBandFrequenciesHz[band], 6.0)
                                .MagnitudeDb(kBandFrequenciesHz[band], 48000),
                            6.0, 1e-9);
            });
    }
}

TEST_F(Equalizer, TopBandStaysBelowNyquist)
{
    OnNewThread(
        [&]
        {
            std::array<double, 10> top{};
            top[9] = 12.0;
            player.SetEqualizerBands(true, top);
            std::vector<float> impulse(2205, 0.0f);
            impulse[0] = 1.0f;
            std::vector<float> expected = impulse;
            PlainBand moved(22050, 10363.5, 12.0); // 94 % of 11025 Hz
            for (float& sample : expected)
                sample = moved.Process(sample, 0);
            const std::vector<float> out = Run(impulse, 1, 22050);
            for (size_t i = 0; i < out.size(); ++i)
                ASSERT_NEAR(out[i], expected[i], 1e-5f) << i;
        });
}

TEST_F(Equalizer, HistoryGoesOnFromBlockToBlock)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            const std::vector<float> whole = Ramp(1000, 2);
            const std::vector<float> expected = PlainEqualizer(48000, gains).Run(whole, 2);
            std::vector<float> out;
            for (size_t at = 0; at < 2000; at += 200)
            {
                const auto from = whole.begin() + static_cast<ptrdiff_t>(at);
                const std::vector<float> block = Run({from, from + 200}, 2);
                out.insert(out.end(), block.begin(), block.end());
            }
            EXPECT_EQ(Bits(out), Bits(expected));
        });
}

TEST_F(Equalizer, ChangingOneGainClearsTheHistoryOfAllBands)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            Run(Ramp(1000, 2), 2);
            std::array<double, 10> changed = gains;
            changed[7] = 2.0;
            player.SetEqualizerBandGain(7, 2.0);
            const std::vector<float> samples = Ramp(500, 2);
            EXPECT_EQ(Bits(Run(samples, 2)), Bits(PlainEqualizer(48000, changed).Run(samples, 2)));
        });
}

TEST_F(Equalizer, AnotherRateConfiguresAnewAndClearsTheHistory)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            Run(Ramp(1000, 2), 2, 48000);
            const std::vector<float> samples = Ramp(500, 2);
            EXPECT_EQ(Bits(Run(samples, 2, 44100)),
                      Bits(PlainEqualizer(44100, gains).Run(samples, 2)));
        });
}

TEST_F(Equalizer, BypassNeitherRunsNorClearsTheHistory)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            PlainEqualizer plain(48000, gains);
            const std::vector<float> samples = Ramp(500, 2);
            Run(samples, 2);
            plain.Run(samples, 2);
            player.SetEqualizerEnabled(false);
            Run(samples, 2);
            player.SetEqualizerEnabled(true);
            EXPECT_EQ(Bits(Run(samples, 2)), Bits(plain.Run(samples, 2)));
        });
}

TEST_F(Equalizer, NewThreadStartsWithSilentHistory)
{
    player.SetEqualizerBands(true, gains);
    const std::vector<float> samples = Ramp(500, 2);
    std::vector<float> first;
    std::vector<float> second;
    OnNewThread([&] { first = Run(samples, 2); });
    OnNewThread([&] { second = Run(samples, 2); });
    EXPECT_EQ(Bits(first), Bits(second));
}

TEST_F(Equalizer, BandOutputIsLimitedToExactlyFour)
{
    OnNewThread(
        [&]
        {
            std::array<double, 10> last{};
            last[9] = 18.0;
            player.SetEqualizerBands(true, last);
            std::vector<float> loud(2000);
            for (size_t i = 0; i < loud.size(); ++i)
                loud[i] = i % 3 == 0 ? 3.0f : -3.0f;
            const std::vector<float> out = Run(loud, 1);
            EXPECT_EQ(*std::max_element(out.begin(), out.end()), 4.0f);
            EXPECT_EQ(*std::min_element(out.begin(), out.end()), -4.0f);
        });
}

TEST_F(Equalizer, LimitIsAppliedBeforeTheNextBand)
{
    OnNewThread(
        [&]
        {
            std::array<double, 10> two{};
            two[3] = 18.0;
            two[9] = -18.0;
            player.SetEqualizerBands(true, two);
            std::vector<float> loud(4000);
            for (size_t i = 0; i < loud.size(); ++i)
                loud[i] = 2.0f * static_cast<float>(
                                     std::sin(kTwoPi * 250.0 * static_cast<double>(i) / 48000.0));
            EXPECT_EQ(Bits(Run(loud, 1)), Bits(PlainEqualizer(48000, two).Run(loud, 1)));
        });
}

TEST_F(Equalizer, ChannelsPastTheSecondShareItsHistory)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            const std::vector<float> four = Ramp(300, 4);
            const std::vector<float> out = Run(four, 4);
            // Channels 1, 2 and 3 in the order in which they come are one signal of three times the
            // rate.
            std::vector<float> shared;
            for (size_t i = 0; i < four.size(); ++i)
                if (i % 4 != 0)
                    shared.push_back(four[i]);
            const std::vector<float> expected = PlainEqualizer(48000, gains).Run(shared, 1);
            size_t next = 0;
            for (size_t i = 0; i < out.size(); ++i)
            {
                if (i % 4 != 0)
                {
                    ASSERT_EQ(std::bit_cast<uint32_t>(out[i]),
                              std::bit_cast<uint32_t>(expected[next++]));
                }
            }
        });
}

TEST_F(Equalizer, MonoLeavesTheSecondHistoryAlone)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            Run(Ramp(500, 1), 1);
            // The right channel must start from silence, the left one from where mono left it.
            const std::vector<float> stereo = Ramp(200, 2);
            const std::vector<float> out = Run(stereo, 2);
            std::vector<float> right;
            std::vector<float> heard;
            for (size_t i = 1; i < stereo.size(); i += 2)
            {
                right.push_back(stereo[i]);
                heard.push_back(out[i]);
            }
            EXPECT_EQ(Bits(heard), Bits(PlainEqualizer(48000, gains).Run(right, 1)));
        });
}

TEST_F(Equalizer, NaNPassesTheLimit)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            const std::vector<float> out = Run({std::numeric_limits<float>::quiet_NaN(), 0.5f}, 1);
            EXPECT_TRUE(std::isnan(out[0]));
            EXPECT_TRUE(std::isnan(out[1]));
        });
}

TEST_F(Equalizer, NaNGainForcesConfigurationEveryBlock)
{
    OnNewThread(
        [&]
        {
            access.EqualizerGainsDb()[0] = std::numeric_limits<double>::quiet_NaN();
            access.EqualizerGainsDb()[5] = 6.0;
            Run(Ramp(10, 1), 1);
            // A good gain again: nothing of the NaN is left behind.
            std::array<double, 10> one{};
            one[5] = 6.0;
            player.SetEqualizerBands(true, one);
            const std::vector<float> samples = Ramp(500, 1);
            EXPECT_EQ(Bits(Run(samples, 1)), Bits(PlainEqualizer(48000, one).Run(samples, 1)));
        });
}

TEST_F(Equalizer, EmptyBlocksAreLeftAlone)
{
    player.SetEqualizerBands(true, gains);
    float sample = 0.5f;
    access.ApplyEqualizer(nullptr, 1, 1, 48000);
    access.ApplyEqualizer(&sample, 0, 1, 48000);
    access.ApplyEqualizer(&sample, 1, 0, 48000);
    access.ApplyEqualizer(&sample, 1, 1, 0);
    access.ApplyEqualizer(&sample, -1, -1, -1);
    EXPECT_EQ(sample, 0.5f);
}

TEST_F(Equalizer, EmptyBlocksOfAnotherRateLeaveTheHistoryAlone)
{
    OnNewThread(
        [&]
        {
            player.SetEqualizerBands(true, gains);
            const std::vector<float> block = Ramp(500, 2);
            PlainEqualizer plain(48000, gains);
            EXPECT_EQ(Bits(Run(block, 2)), Bits(plain.Run(block, 2)));
            float sample = 0.5f;
            access.ApplyEqualizer(&sample, 0, 1, 44100);
            access.ApplyEqualizer(&sample, 1, 0, 44100);
            EXPECT_EQ(Bits(Run(block, 2)), Bits(plain.Run(block, 2)));
        });
}

#if defined(__x86_64__)

// Anything else goes through the bands in turn, where it is what the definition makes of it.
TEST_F(Equalizer, OnlyNumbersRunSideBySide)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    const Internals::EqualizerCascade cascade(48000, gains);
    const std::vector<float> numbers = {std::numeric_limits<float>::max(),
                                        std::numeric_limits<float>::lowest(),
                                        std::numeric_limits<float>::denorm_min(),
                                        -0.0f,
                                        1.0f,
                                        -1.0f,
                                        0.0f};
    EXPECT_TRUE(cascade.IsFinite(numbers));
    for (const float other : {infinity, -infinity, nan, -nan})
    {
        for (size_t at = 0; at < numbers.size(); ++at)
        {
            std::vector<float> samples = numbers;
            samples[at] = other;
            EXPECT_FALSE(cascade.IsFinite(samples)) << other << " at " << at;
            EXPECT_TRUE(cascade.IsFinite(std::span(samples).first(at))) << at;
        }
    }
}

TEST_F(Equalizer, OnlyHistoriesOfNumbersRunSideBySide)
{
    for (const double other :
         {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()})
    {
        for (size_t band = 0; band < 10; ++band)
        {
            for (size_t word = 0; word < 4; ++word)
            {
                Internals::EqualizerCascade cascade(48000, gains);
                *cascade.History(band)[word] = other;
                EXPECT_FALSE(cascade.IsFinite(std::array{0.5f})) << other << ", band " << band;
            }
        }
    }
}

TEST_F(Equalizer, OnlyGainsThatAreNumbersRunSideBySide)
{
    std::array<double, 10> one{};
    one[9] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(Internals::EqualizerCascade(48000, one).IsFinite(std::array{0.5f}));
}

#endif
