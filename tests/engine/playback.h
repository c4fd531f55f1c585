// A player on the virtual device, in stepped time.
#pragma once

#include "internals.h"
#include "virtual_sink.h"
#include "virtual_time.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

class Playback : public testing::Test
{
protected:
    Playback()
    {
        VirtualDevice::Reset();
        VirtualTime::SetWorkerEnded([this] { return !access.HasThread() || player.HasFinished(); });
    }

    ~Playback() override
    {
        Stop();
        VirtualTime::SetWorkerEnded([] { return true; });
        VirtualTime::SetFreeRunning(false);
    }

    // Plays and lets the worker run up to its first sleep (or its end).
    void PlayPcm(std::vector<float> frames, int rate, int channels, double start = 0.0)
    {
        ASSERT_TRUE(player.PlayPcm(std::move(frames), rate, channels, start));
        VirtualTime::Settle();
    }

    void PlayFile(const std::string& path)
    {
        ASSERT_TRUE(player.PlayFile(path));
        VirtualTime::Settle();
    }

    // Lets the worker run as fast as it can, to its end.
    void RunToEnd()
    {
        VirtualTime::SetFreeRunning(true);
        while (!player.HasFinished())
            std::this_thread::yield();
        // The worker's last store follows. It may also lie behind already, before Play's own store
        // of true, which then stays: so not without limit.
        for (int i = 0; i < 1000 && player.IsPlaying(); ++i)
            std::this_thread::yield();
        VirtualTime::SetFreeRunning(false);
    }

    // Stop waits for a worker that may be asleep, so time must run meanwhile.
    void Stop()
    {
        VirtualTime::SetFreeRunning(true);
        player.Stop();
        VirtualTime::SetFreeRunning(false);
    }

    // Whoever sees that nothing plays any more sees that it has ended. This looks without a pause,
    // so that it falls between two stores of the worker's often enough.
    void ExpectFinishedBeforeNotPlaying()
    {
        while (!player.HasFinished())
        {
            if (player.IsPlaying())
                continue;
            EXPECT_TRUE(player.HasFinished());
            return;
        }
    }

    TovrelAudioPlayer player;
    TovrelAudioPlayerTestAccess access{player};
};

// Interleaved samples that are all different, within [-0.5, 0.5).
inline std::vector<float> Ramp(size_t frames, int channels)
{
    std::vector<float> samples(frames * static_cast<size_t>(channels));
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>((i * 7919) % 65536) / 65536.0f - 0.5f;
    return samples;
}
