// A player on the virtual device that plays from a scripted server, and what it reports.
#pragma once

#include "media.h"
#include "playback.h"
#include "scripted_server.h"
#include "wrapped_calls.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using StreamState = TovrelAudioPlayer::StreamState;
using StreamInfo = TovrelAudioPlayer::StreamInfo;

inline const std::string kEnd = "End of file"; // of a body whose length was told
inline const std::string kNotFound = "Failed to open radio stream: Server returned 404 Not Found";

constexpr size_t kBlock = 512; // frames of a packet of a 48000 Hz stereo float WAV stream
constexpr size_t kBlockBytes = kBlock * 2 * sizeof(float);
constexpr double kRate = 48000.0;
constexpr double kBlockSeconds = kBlock / kRate;

// How many blocks it takes until something is heard: 0.7 s of sound.
constexpr size_t kStartBlocks = 66;

struct Report
{
    StreamState state = StreamState::Idle;
    StreamInfo info;
    std::string text;
    double at = 0.0; // virtual seconds
};

inline const char* NameOf(StreamState state)
{
    static constexpr const char* kNames[] = {"Idle",         "Connecting", "Buffering", "Playing",
                                             "Reconnecting", "Error",      "Stopped"};
    return kNames[static_cast<int>(state)];
}

// What the status callback was told, in order.
class Reports
{
public:
    TovrelAudioPlayer::StreamStatusCallback Callback()
    {
        return [this](StreamState state, const StreamInfo& info, const std::string& text)
        {
            const std::lock_guard lock(mutex);
            all.push_back({state, info, text, VirtualTime::Now()});
        };
    }

    std::vector<Report> All() const
    {
        const std::lock_guard lock(mutex);
        return all;
    }

    // Each as its state, its attempt count and its text: "Reconnecting 1 retry 1/300: End of file".
    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        for (const Report& report : All())
            lines.push_back(std::string(NameOf(report.state)) + " " +
                            std::to_string(report.info.ReconnectAttempt) +
                            (report.text.empty() ? "" : " " + report.text));
        return lines;
    }

    // Every title, once for each time that it came up; without the empty one before the first.
    std::vector<std::string> Titles() const
    {
        std::vector<std::string> titles;
        for (const Report& report : All())
            if (const std::string& title = report.info.NowPlaying;
                !title.empty() && (titles.empty() || titles.back() != title))
                titles.push_back(title);
        return titles;
    }

    StreamInfo LastInfo() const { return Last().info; }
    Report Last() const
    {
        const std::vector<Report> reports = All();
        return reports.empty() ? Report{} : reports.back();
    }

    size_t Count(StreamState state) const
    {
        const std::vector<Report> reports = All();
        return static_cast<size_t>(std::count_if(
            reports.begin(), reports.end(), [=](const Report& r) { return r.state == state; }));
    }

private:
    mutable std::mutex mutex; // guards all
    std::vector<Report> all;
};

// Waits, in real time, for what another thread is about to bring about.
template <class Predicate>
bool Eventually(Predicate bDone)
{
    for (int ms = 0; ms < 30000; ++ms)
    {
        if (bDone())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // real on the test's thread
    }
    return false;
}

inline double RealSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// How long a host may have to wait for a stop, in seconds; the sanitizers make everything slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kStopLimit = 1.0;
#else
constexpr double kStopLimit = 0.25;
#endif

// What this process holds of what a playback could leave behind.
struct Holdings
{
    size_t descriptors = EntriesOf("/proc/self/fd");
    size_t threads = EntriesOf("/proc/self/task");

    bool operator==(const Holdings&) const = default;

private:
    static size_t EntriesOf(const char* directory)
    {
        const std::filesystem::directory_iterator entries(directory);
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }
};

inline void PrintTo(const Holdings& holdings, std::ostream* out)
{
    *out << holdings.descriptors << " descriptors and " << holdings.threads << " threads";
}

// Threads that were joined are listed a moment longer, so this may take its time.
inline void ExpectHoldings(const Holdings& expected)
{
    Eventually([&] { return Holdings() == expected; });
    EXPECT_EQ(Holdings(), expected);
}

inline size_t Seconds(double seconds)
{
    return static_cast<size_t>(seconds * kRate);
}

// A WAV stream of this many frames at the output's own rate: every packet is one push, bit for bit.
inline std::string WavBytes(size_t frames)
{
    return Media::Wav(Ramp(frames, 2), 48000, 2);
}

// The start of a longer one, this many packets of it: a live stream that has more to come.
inline std::string WavPackets(size_t packets)
{
    constexpr size_t kHeader = 44;
    return WavBytes(Seconds(20.0)).substr(0, kHeader + packets * kBlockBytes);
}

// What the device is to be given of it.
inline std::vector<float> WavSound(size_t frames)
{
    return Media::Played(Ramp(frames, 2));
}

class Radio : public Playback
{
protected:
    Radio() { av_log_set_level(AV_LOG_QUIET); }

    // A sanitizer keeps a thread of its own from the first one on, which is not to be counted.
    static void SetUpTestSuite()
    {
        std::thread([] {}).join();
    }

    // Whatever a test plays, nothing of it stays.
    void TearDown() override
    {
        Stop();
        server.reset();
        ExpectHoldings(atStart);
    }

    // Starts, and lets the worker run up to its first sleep: with up to 2 s of sound that is the
    // wait before its first retry, with more of it the wait for the queue.
    void Play(const std::string& url)
    {
        Start(url);
        VirtualTime::Settle();
    }

    void Start(const std::string& url) { ASSERT_TRUE(player.PlayStream(url, reports.Callback())); }

    void PlayScripts(std::vector<Script> scripts)
    {
        server = std::make_unique<ScriptedServer>(std::move(scripts));
        Play(server->Url());
    }

    // A stream of this length, and nothing but failures after it.
    void PlayWav(double seconds) { PlayScripts({Whole(WavBytes(Seconds(seconds))), NotFound()}); }

    // Calls this from the tap in one block, counted from 1.
    void InBlock(size_t block, std::function<void()> act)
    {
        player.SetAudioPCMCallback(
            [left = std::make_shared<size_t>(block), act = std::move(act)](const float*, int, int,
                                                                           int, long)
            {
                if (--*left == 0)
                    act();
            });
    }

    void PauseInBlock(size_t block)
    {
        InBlock(block, [this] { PauseFromTap(player); });
    }

    // The first block may come before the Play that brings it has returned.
    static void PauseFromTap(TovrelAudioPlayer& playing)
    {
        while (!playing.IsPlaying())
            std::this_thread::yield();
        playing.SetPaused(true);
    }

    // Lets time pass until the condition holds.
    template <class Predicate>
    bool StepUntil(Predicate bDone, double seconds = 30.0)
    {
        const double limit = VirtualTime::Now() + seconds;
        while (!bDone() && VirtualTime::Now() < limit)
            VirtualTime::Step(0.1);
        return bDone();
    }

    bool StepToRetry(int attempt)
    {
        return StepUntil([&] { return reports.LastInfo().ReconnectAttempt == attempt; });
    }

    std::vector<std::string> Lines() const { return reports.Lines(); }
    size_t Pushes() const { return VirtualDevice::Sinks().back()->pushedFrames.size(); }

    Reports reports;
    std::unique_ptr<ScriptedServer> server;

private:
    const Holdings atStart;
};

// How many whole periods a stereo sine has, whatever small noise stands around it.
inline size_t Periods(const std::vector<float>& samples)
{
    constexpr float kClear = 0.03f; // the ffmpeg program's sine has a peak of 0.125
    size_t periods = 0;
    bool bLow = false;
    for (size_t i = 0; i < samples.size(); i += 2)
    {
        periods += bLow && samples[i] > kClear;
        bLow = samples[i] < -kClear || (bLow && samples[i] <= kClear);
    }
    return periods;
}

// The bytes of a sine that the ffmpeg program encodes with these arguments.
inline std::string Encoded(const std::string& arguments, const std::string& name,
                           double seconds = 1.5)
{
    return Media::Read(Media::Make(
        "-f lavfi -i sine=d=" + std::to_string(seconds) + ":r=48000 -ac 2 " + arguments, name));
}

inline std::string Mp3Bytes(double seconds = 1.5)
{
    return Encoded("-c:a libmp3lame -b:a 128k -write_xing 0 -id3v2_version 0", "sine.mp3", seconds);
}
