// The two read-outs of the processed sound: spectrum samples and PCM tap.
#include "playback.h"

#include <atomic>
#include <memory>

namespace
{

using testing::ElementsAre;

class Spectrum : public Playback
{
protected:
    void Capture(const std::vector<float>& samples, int channels) const
    {
        access.CaptureSpectrumSamples(samples.data(), static_cast<int>(samples.size()) / channels,
                                      channels);
    }
};

class Tap : public Playback
{
protected:
    struct Call
    {
        std::vector<float> samples;
        int frames;
        int rate;
        int channels;
        long us;
    };

    void Record()
    {
        player.SetAudioPCMCallback(
            [this](const float* samples, int frames, int rate, int channels, long us) {
                calls.push_back(
                    {{samples, samples + frames * channels}, frames, rate, channels, us});
            });
    }

    std::vector<Call> calls; // read only while the worker sleeps or has ended
};

} // namespace

TEST_F(Spectrum, NothingPlayedGivesNoSamples)
{
    EXPECT_TRUE(player.CopySpectrumSamples().empty());
}

TEST_F(Spectrum, StereoIsMixedDown)
{
    Capture({1.0f, 0.0f, 0.5f, 0.5f, -1.0f, 1.0f}, 2);
    EXPECT_THAT(player.CopySpectrumSamples(), ElementsAre(0.5f, 0.5f, 0.0f));
}

TEST_F(Spectrum, MonoIsCopied)
{
    Capture({0.25f, -0.5f}, 1);
    EXPECT_THAT(player.CopySpectrumSamples(), ElementsAre(0.25f, -0.5f));
}

TEST_F(Spectrum, SumIsInFloatInChannelOrder)
{
    Capture({1.0f, 1e8f, -1e8f}, 3);
    EXPECT_THAT(player.CopySpectrumSamples(), ElementsAre((1.0f + 1e8f - 1e8f) / 3.0f));
}

TEST_F(Spectrum, LongBlockKeepsItsLast2048Frames)
{
    std::vector<float> samples(5000 * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i / 2);
    Capture(samples, 2);
    const std::vector<float> spectrum = player.CopySpectrumSamples();
    ASSERT_EQ(spectrum.size(), 2048u);
    EXPECT_EQ(spectrum.front(), 2952.0f);
    EXPECT_EQ(spectrum.back(), 4999.0f);
}

TEST_F(Spectrum, EveryBlockReplacesTheOneBefore)
{
    Capture(Ramp(4096, 2), 2);
    EXPECT_EQ(player.CopySpectrumSamples().size(), 2048u);
    Capture(Ramp(1024, 2), 2);
    EXPECT_EQ(player.CopySpectrumSamples().size(), 1024u);
}

TEST_F(Spectrum, EmptyBlockLeavesThePreviousSpectrum)
{
    Capture({0.5f, 0.25f}, 1);
    const float sample = 1.0f;
    access.CaptureSpectrumSamples(&sample, 0, 1);
    access.CaptureSpectrumSamples(&sample, -1, 1);
    access.CaptureSpectrumSamples(&sample, 1, 0);
    access.CaptureSpectrumSamples(nullptr, 1, 1);
    EXPECT_THAT(player.CopySpectrumSamples(), ElementsAre(0.5f, 0.25f));
}

TEST_F(Spectrum, PlaybackFillsItWithTheProcessedSound)
{
    player.SetVolume(0.5);
    PlayPcm(std::vector<float>(480, 0.5f), 48000, 1);
    EXPECT_EQ(player.CopySpectrumSamples(), std::vector<float>(480, 0.25f));
}

TEST_F(Spectrum, StaysAfterTheEnd)
{
    PlayPcm(std::vector<float>(480, 0.5f), 48000, 1);
    Stop();
    EXPECT_EQ(player.CopySpectrumSamples().size(), 480u);
}

TEST_F(Tap, NoCallbackLeavesPlaybackAlone)
{
    PlayPcm(Ramp(1000, 2), 48000, 2);
    RunToEnd();
    EXPECT_EQ(VirtualDevice::Last().pushed.size(), 2000u);
}

TEST_F(Tap, SeesEveryBlockAsItIsPushed)
{
    Record();
    player.SetVolume(0.5);
    player.SetEqualizerBandGain(5, 6.0);
    PlayPcm(Ramp(2000, 2), 48000, 2);
    RunToEnd();
    std::vector<float> tapped;
    for (const Call& call : calls)
        tapped.insert(tapped.end(), call.samples.begin(), call.samples.end());
    EXPECT_EQ(tapped, VirtualDevice::Last().pushed);
    EXPECT_EQ(tapped.size(), 4000u);
}

TEST_F(Tap, GetsFramesRateChannelsAndTheTimeOfTheFirstSample)
{
    Record();
    PlayPcm(Ramp(1000, 2), 48000, 2);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].frames, 480);
    EXPECT_EQ(calls[2].frames, 40);
    EXPECT_EQ(calls[1].rate, 48000);
    EXPECT_EQ(calls[1].channels, 2);
    EXPECT_EQ(calls[0].us, 0);
    EXPECT_EQ(calls[1].us, 10000);
    EXPECT_EQ(calls[2].us, 20000);
}

TEST_F(Tap, IsCalledBeforeTheBlockIsPushed)
{
    std::vector<size_t> pushesBefore;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        { pushesBefore.push_back(VirtualDevice::Last().pushedFrames.size()); });
    PlayPcm(Ramp(1000, 2), 48000, 2);
    EXPECT_THAT(pushesBefore, ElementsAre(0u, 1u, 2u));
}

TEST_F(Tap, SpectrumOfTheBlockIsThereWhenItIsCalled)
{
    std::vector<float> spectrum;
    std::vector<float> block;
    player.SetAudioPCMCallback(
        [&](const float* samples, int frames, int, int, long)
        {
            block.assign(samples, samples + frames);
            spectrum = player.CopySpectrumSamples();
        });
    PlayPcm(Ramp(480, 1), 48000, 1);
    EXPECT_EQ(spectrum, block);
    EXPECT_EQ(block.size(), 480u);
}

TEST_F(Tap, MayReplaceItself)
{
    std::atomic<int> first = 0;
    std::atomic<int> second = 0;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            ++first;
            player.SetAudioPCMCallback([&](const float*, int, int, int, long) { ++second; });
        });
    PlayPcm(Ramp(1440, 2), 48000, 2);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
}

TEST_F(Tap, RunningCallKeepsItsCapturesWhenReplaced)
{
    auto token = std::make_shared<int>(7);
    const std::weak_ptr<int> alive = token;
    std::atomic<bool> bAliveInside = false;
    player.SetAudioPCMCallback(
        [this, &alive, &bAliveInside, kept = std::move(token)](const float*, int, int, int, long)
        {
            player.SetAudioPCMCallback(nullptr);
            bAliveInside = !alive.expired();
        });
    PlayPcm(Ramp(1000, 2), 48000, 2);
    EXPECT_TRUE(bAliveInside);
    EXPECT_TRUE(alive.expired());
}

TEST_F(Tap, CopyIsDestroyedOnlyAfterThePush)
{
    struct PushCounter
    {
        std::vector<size_t>* counts;
        explicit PushCounter(std::vector<size_t>* out) : counts(out) {}
        PushCounter(const PushCounter&) = delete;
        PushCounter& operator=(const PushCounter&) = delete;
        ~PushCounter() { counts->push_back(VirtualDevice::Last().pushedFrames.size()); }
    };
    std::vector<size_t> pushes;
    player.SetAudioPCMCallback(
        [this, counter = std::make_shared<PushCounter>(&pushes)](const float*, int, int, int, long)
        {
            player.SetAudioPCMCallback(nullptr); // the running copy is the last owner now
        });
    PlayPcm(Ramp(480, 2), 48000, 2);
    EXPECT_THAT(pushes, ElementsAre(1u));
}

TEST_F(Tap, PreviousCallableIsDestroyedUnderTheLock)
{
    struct LockProbe
    {
        std::mutex* mutex;
        bool* bWasLocked;
        LockProbe(std::mutex* m, bool* b) : mutex(m), bWasLocked(b) {}
        LockProbe(const LockProbe&) = delete;
        LockProbe& operator=(const LockProbe&) = delete;
        ~LockProbe()
        {
            // Asked from another thread: a thread must not try a mutex that it holds.
            std::thread(
                [this]
                {
                    *bWasLocked = !mutex->try_lock();
                    if (!*bWasLocked)
                        mutex->unlock();
                })
                .join();
        }
    };
    bool bWasLocked = false;
    player.SetAudioPCMCallback(
        [probe = std::make_shared<LockProbe>(&access.AudioPCMCallbackMutex(), &bWasLocked)](
            const float*, int, int, int, long) {});
    player.SetAudioPCMCallback(nullptr);
    EXPECT_TRUE(bWasLocked);
}

TEST_F(Tap, IsNotCalledUnderItsLock)
{
    std::atomic<bool> bFree = false;
    player.SetAudioPCMCallback(
        [&](const float*, int, int, int, long)
        {
            std::thread(
                [&]
                {
                    bFree = access.AudioPCMCallbackMutex().try_lock();
                    if (bFree)
                        access.AudioPCMCallbackMutex().unlock();
                })
                .join();
        });
    PlayPcm(Ramp(480, 2), 48000, 2);
    EXPECT_TRUE(bFree);
}
