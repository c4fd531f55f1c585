// Loudness gain, volume and constant-power pan.
#include "playback.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace
{

class GainPan : public Playback
{
protected:
    std::vector<float> Apply(std::vector<float> samples, int channels, double gain) const
    {
        access.ApplyGainAndPan(samples.data(), static_cast<int>(samples.size()) / channels,
                               channels, gain);
        return samples;
    }
};

// The law in one line a step, to be met bit for bit.
std::vector<float> Plain(std::vector<float> samples, int channels, double metadataGain,
                         double volume, double pan)
{
    const double clampedGain = metadataGain < 0.0 ? 0.0 : metadataGain > 4.0 ? 4.0 : metadataGain;
    const float g = static_cast<float>(clampedGain) * static_cast<float>(volume);
    const double angle = ((pan + 1.0) * 0.25) * 3.141592653589793;
    const double g2 = g;
    const float left = static_cast<float>(g2 * std::cos(angle) * 1.4142135623730951);
    const float right = static_cast<float>(g2 * std::sin(angle) * 1.4142135623730951);
    for (size_t i = 0; i < samples.size(); ++i)
    {
        const size_t channel = i % static_cast<size_t>(channels);
        samples[i] *= channels == 1 || channel > 1 ? g : channel == 0 ? left : right;
    }
    return samples;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](float x, float y)
                      { return std::bit_cast<uint32_t>(x) == std::bit_cast<uint32_t>(y); });
}

} // namespace

TEST_F(GainPan, MonoIgnoresPan)
{
    player.SetPan(1.0);
    player.SetVolume(0.5);
    EXPECT_EQ(Apply({1.0f, -0.5f}, 1, 2.0), (std::vector<float>{1.0f, -0.5f}));
    player.SetVolume(0.25);
    EXPECT_EQ(Apply({1.0f, -0.5f}, 1, 2.0), (std::vector<float>{0.5f, -0.25f}));
}

TEST_F(GainPan, CentredPanAtUnityChangesNothing)
{
    const std::vector<float> samples = Ramp(500, 2);
    const std::vector<float> out = Apply(samples, 2, 1.0);
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_FLOAT_EQ(out[i], samples[i]);
}

TEST_F(GainPan, HardLeftSilencesTheRightAndBoostsTheLeft)
{
    player.SetPan(-1.0);
    const std::vector<float> out = Apply({0.5f, 0.5f}, 2, 1.0);
    EXPECT_FLOAT_EQ(out[0], 0.5f * 1.41421356f);
    EXPECT_EQ(out[1], 0.0f);
}

TEST_F(GainPan, HardRightNearlySilencesTheLeftAndBoostsTheRight)
{
    player.SetPan(1.0);
    const std::vector<float> out = Apply({0.5f, 0.5f}, 2, 1.0);
    EXPECT_NEAR(out[0], 0.0f, 1e-16f);
    EXPECT_FLOAT_EQ(out[1], 0.5f * 1.41421356f);
}

TEST_F(GainPan, PanKeepsThePower)
{
    for (double pan = -1.0; pan <= 1.0; pan += 0.125)
    {
        player.SetPan(pan);
        const std::vector<float> out = Apply({1.0f, 1.0f}, 2, 1.0);
        EXPECT_NEAR(out[0] * out[0] + out[1] * out[1], 2.0, 1e-6) << "pan " << pan;
    }
}

TEST_F(GainPan, PanOutsideItsRangeActsAsItsLimit)
{
    player.SetPan(1.0);
    const std::vector<float> right = Apply({0.5f, 0.5f}, 2, 1.0);
    player.SetPan(-1.0);
    const std::vector<float> left = Apply({0.5f, 0.5f}, 2, 1.0);
    access.PanValue() = 3.0; // past the setter
    EXPECT_EQ(Apply({0.5f, 0.5f}, 2, 1.0), right);
    access.PanValue() = -3.0;
    EXPECT_EQ(Apply({0.5f, 0.5f}, 2, 1.0), left);
}

TEST_F(GainPan, LoudnessGainIsLimited)
{
    EXPECT_EQ(Apply({0.25f}, 1, 10.0), (std::vector<float>{1.0f}));
    EXPECT_EQ(Apply({0.25f}, 1, 4.0), (std::vector<float>{1.0f}));
    EXPECT_EQ(Apply({0.25f}, 1, -2.0), (std::vector<float>{0.0f}));
}

TEST_F(GainPan, VolumeIsTakenAsItIs)
{
    access.VolumeValue() = 8.0; // past the setter: no second clamp
    EXPECT_EQ(Apply({0.25f}, 1, 1.0), (std::vector<float>{2.0f}));
}

TEST_F(GainPan, ChannelsPastTheSecondGetTheGainWithoutPan)
{
    player.SetPan(-1.0);
    player.SetVolume(0.5);
    const std::vector<float> out = Apply({1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 6, 1.0);
    for (const size_t frame : {size_t{0}, size_t{6}})
    {
        EXPECT_FLOAT_EQ(out[frame], 0.5f * 1.41421356f);
        EXPECT_EQ(out[frame + 1], 0.0f);
        for (size_t channel = 2; channel < 6; ++channel)
            EXPECT_EQ(out[frame + channel], 0.5f);
    }
}

TEST_F(GainPan, NothingIsClipped)
{
    EXPECT_EQ(Apply({0.9f}, 1, 2.0), (std::vector<float>{1.8f}));
    EXPECT_FLOAT_EQ(Apply({0.9f, -0.9f}, 2, 2.0)[1], -1.8f);
}

TEST_F(GainPan, EmptyBlocksAreLeftAlone)
{
    player.SetVolume(0.0);
    float samples[2] = {0.5f, 0.25f};
    access.ApplyGainAndPan(samples, 0, 2, 1.0);
    access.ApplyGainAndPan(samples, -1, 2, 1.0);
    access.ApplyGainAndPan(samples, 1, 0, 1.0);
    access.ApplyGainAndPan(samples, 1, -1, 1.0);
    access.ApplyGainAndPan(nullptr, 1, 2, 1.0);
    EXPECT_EQ(samples[0], 0.5f);
    EXPECT_EQ(samples[1], 0.25f);
}

TEST_F(GainPan, WhatFollowsTheBlockIsLeftAlone)
{
    player.SetVolume(0.0);
    for (const int channels : {1, 2, 3})
    {
        std::vector<float> samples(7, 0.5f);
        access.ApplyGainAndPan(samples.data(), 2, channels, 1.0);
        const auto end = samples.begin() + 2 * channels;
        EXPECT_EQ(std::count(samples.begin(), end, 0.0f), 2 * channels);
        EXPECT_EQ(std::count(end, samples.end(), 0.5f), 7 - 2 * channels);
    }
}

TEST_F(GainPan, TheShortFormHasUnityLoudnessGain)
{
    player.SetVolume(0.7);
    player.SetPan(0.3);
    std::vector<float> samples = Ramp(100, 2);
    const std::vector<float> expected = Apply(samples, 2, 1.0);
    access.ApplyGainAndPan(samples.data(), 100, 2);
    EXPECT_EQ(samples, expected);
}

TEST_F(GainPan, NaNGoesThroughToTheSamples)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(Apply({0.5f}, 1, nan)[0]));
    access.PanValue() = nan;
    EXPECT_TRUE(std::isnan(Apply({0.5f, 0.5f}, 2, 1.0)[1]));
}

TEST_F(GainPan, BitForBitTheLaw)
{
    for (const int channels : {1, 2, 3, 6})
    {
        for (const double pan : {-1.0, -0.77, -0.1, 0.0, 0.1, 0.5, 1.0})
        {
            for (const double gain : {-1.0, 0.0, 0.33, 1.0, 3.9, 9.0})
            {
                player.SetPan(pan);
                player.SetVolume(0.83);
                const std::vector<float> samples = Ramp(64, channels);
                EXPECT_TRUE(SameBits(Apply(samples, channels, gain),
                                     Plain(samples, channels, gain, 0.83, pan)))
                    << channels << " channels, pan " << pan << ", gain " << gain;
            }
        }
    }
}
