// What the meters show, and when.
#include "meters.h"

#include <gtest/gtest.h>

#include <limits>

using std::chrono::milliseconds;

namespace
{

constexpr float kFloor = Ballistics::kFloorDb;

std::vector<float> Block(size_t frames, float left, float right)
{
    std::vector<float> samples;
    for (size_t i = 0; i < frames; ++i)
        samples.insert(samples.end(), {left, right});
    return samples;
}

class MetersInTime : public testing::Test
{
protected:
    MetersInTime() { meters.Update(now); }

    void Put(const std::vector<float>& samples, milliseconds later)
    {
        meters.Put(samples.data(), static_cast<int>(samples.size() / 2), 48000, 2, now + later);
    }

    Meters meters;
    const Meters::Clock::time_point now = Meters::Clock::now();
};

} // namespace

TEST_F(MetersInTime, ShowALevelWhenItIsHeard)
{
    Put(Block(480, 1.0f, -0.5f), milliseconds(300));
    meters.Update(now + milliseconds(299));
    EXPECT_EQ(meters.Left().LevelDb(), kFloor);
    meters.Update(now + milliseconds(300));
    EXPECT_FLOAT_EQ(meters.Left().LevelDb(), 0.0f);
    EXPECT_NEAR(meters.Right().LevelDb(), -6.02f, 0.01f);
}

TEST_F(MetersInTime, PartsOfALongBlockComeInTurn)
{
    std::vector<float> samples = Block(2048, 0.0f, 0.0f);
    samples[2 * 1500] = 1.0f; // in its second part
    Put(samples, milliseconds(0));
    meters.Update(now + milliseconds(20));
    EXPECT_EQ(meters.Left().LevelDb(), kFloor);
    meters.Update(now + milliseconds(22));
    EXPECT_FLOAT_EQ(meters.Left().LevelDb(), 0.0f);
}

TEST_F(MetersInTime, MonoIsOnBothSides)
{
    const std::vector<float> samples(480, 0.5f);
    meters.Put(samples.data(), 480, 48000, 1, now);
    meters.Update(now);
    EXPECT_EQ(meters.Left().LevelDb(), meters.Right().LevelDb());
    EXPECT_NEAR(meters.Left().LevelDb(), -6.02f, 0.01f);
}

TEST_F(MetersInTime, SpectrumIsTakenOncePerBlockAndShownWhenItIsHeard)
{
    EXPECT_FALSE(meters.HasNewBlock());
    Put(Block(1024, 0.5f, 0.5f), milliseconds(100));
    ASSERT_TRUE(meters.HasNewBlock());
    std::vector<float> tone(2048);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = i / 8 % 2 ? 1.0f : -1.0f;
    meters.PutSpectrum(tone, 6);
    EXPECT_FALSE(meters.HasNewBlock());
    meters.Update(now + milliseconds(99));
    ASSERT_EQ(meters.Bands().size(), 6u);
    EXPECT_EQ(meters.Bands()[4].LevelDb(), kFloor);
    meters.Update(now + milliseconds(100));
    EXPECT_GT(meters.Bands()[4].LevelDb(), -6.0f); // 3 kHz
}

TEST_F(MetersInTime, NothingNewFallsToTheFloor)
{
    Put(Block(480, 1.0f, 1.0f), milliseconds(0));
    for (int i = 0; i < 60; ++i)
        meters.Update(now + milliseconds(100 * i));
    EXPECT_EQ(meters.Left().LevelDb(), kFloor);
}

TEST_F(MetersInTime, ComeBackFromSamplesThatAreNoSound)
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    Put(Block(480, kInfinity, std::numeric_limits<float>::quiet_NaN()), milliseconds(0));
    meters.Update(now);
    EXPECT_GT(meters.Left().LevelDb(), 0.0f);
    EXPECT_EQ(meters.Right().LevelDb(), kFloor);
    for (int i = 0; i < 60; ++i)
        meters.Update(now + milliseconds(100 * i));
    EXPECT_EQ(meters.Left().LevelDb(), kFloor);
}
