// The player against what its documentation promises, in random sequences of everything that a host
// may do, in stepped time.
#include "joining.h"
#include "modelled_player.h"
#include "property.h"
#include "virtual_time.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <string>
#include <thread>

extern "C"
{
#include <libavutil/log.h>
}

namespace
{

// How many sequences there are: as many as pass in some seconds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr const char* kSequences = "max_success=200";
#else
constexpr const char* kSequences = "max_success=2000";
#endif

class Model : public testing::Test
{
protected:
    Model() { av_log_set_level(AV_LOG_QUIET); }

    Sources sources;
};

// A second thread of the host's that does, all the time, what any thread may do.
class OtherThread
{
public:
    OtherThread(TovrelAudioPlayer& player, Taps& taps, Sources& sources) :
        m_player(player), m_taps(taps)
    {
        for (int i = 0; i < Sources::kCount; ++i)
        {
            m_longest = std::max(m_longest, sources.At(i).duration + sources.At(i).durationSlack);
            m_texts.push_back(sources.At(i).error);
        }
        // What a stop cuts short says so.
        m_texts.insert(m_texts.end(),
                       {"Radio stream open cancelled.",
                        "Failed to open radio stream: Immediate exit requested",
                        "Failed to read radio stream info: Immediate exit requested"});
        m_thread = std::thread([this] { Run(); });
    }

    // Returns the first thing that it did not like, if there is any.
    std::string Finish()
    {
        m_bEnd = true;
        m_thread.join();
        return m_complaint;
    }

private:
    void Run()
    {
        for (int i = 0; !m_bEnd; ++i)
        {
            Change(i);
            Look();
            std::this_thread::yield();
        }
    }

    // Each of these now and then; a stop rarely, or nothing would ever play.
    void Change(int i)
    {
        constexpr int kRarely = 512;
        const double dB = i % 37 - 18;
        switch (i % 8)
        {
        case 0:
            return m_player.SetEqualizerBandGain(static_cast<size_t>(i / 8 % 11), dB);
        case 1:
            return m_player.SetEqualizerEnabled(i / 8 % 3 != 0);
        case 2:
            return m_player.SetEqualizerBands(i / 8 % 3 != 0, {dB, 0.0, -dB});
        case 3:
            return m_player.SetAudioPCMCallback(m_taps.Make());
        case 4:
            return m_player.SetAudioPCMCallback(nullptr);
        case 5:
            return m_player.SetAudioPCMCallback(m_taps.MakeOneThatReplacesItself(m_player));
        default:
            return i % kRarely == kRarely - 1 ? m_player.RequestStop() : void();
        }
    }

    void Look()
    {
        const double position = m_player.CurrentSeconds();
        Expect(position >= 0.0 && position <= m_longest,
               "the position reads " + std::to_string(position));
        const double duration = m_player.DurationSeconds();
        Expect(duration >= 0.0 && duration <= m_longest,
               "the duration is " + std::to_string(duration));
        const std::string error = m_player.LastError();
        Expect(std::find(m_texts.begin(), m_texts.end(), error) != m_texts.end(), error);
        Expect(m_player.CopySpectrumSamples().size() <= 2048, "the spectrum has too many samples");
        const double volume = m_player.Volume();
        Expect(std::isnan(volume) || (volume >= 0.0 && volume <= 1.5),
               "the volume is " + std::to_string(volume));
        const double pan = m_player.Pan();
        Expect(std::isnan(pan) || std::fabs(pan) <= 1.0, "the pan is " + std::to_string(pan));
        m_seen = m_seen + m_player.IsPlaying() + m_player.IsPaused() + m_player.HasFinished() +
                 m_player.IsStopRequestedForInterrupt();
    }

    void Expect(bool bTrue, const std::string& complaint)
    {
        if (!bTrue && m_complaint.empty())
            m_complaint = complaint;
    }

    TovrelAudioPlayer& m_player;
    Taps& m_taps;
    double m_longest = 60.0; // of a stream, what its connection has decoded
    std::vector<std::string> m_texts;
    std::string m_complaint;
    volatile int m_seen = 0; // or nobody would read the flags
    std::atomic<bool> m_bEnd{false};
    std::thread m_thread;
};

} // namespace

TEST_F(Model, PlayerKeepsItsPromisesInEverySequence)
{
    ExpectProperty(kSequences,
                   [this]
                   {
                       const Operations operations = *RandomOperations(Sources::kCount);
                       ModelledPlayer player(sources);
                       for (const Operation& operation : operations)
                           player.Do(operation);
                       player.PlayOut();
                   });
}

TEST_F(Model, OperationsOfOtherThreadsNeverDisturbThePlayer)
{
    ExpectProperty(kSequences,
                   [this]
                   {
                       const Operations operations = *RandomOperations(Sources::kCount);
                       VirtualDevice::Reset();
                       Taps taps;
                       Reports reports;
                       TovrelAudioPlayer player;
                       Joining::SetWorkerEnded(
                           [&] {
                               return !TovrelAudioPlayerTestAccess{player}.HasThread() ||
                                      player.HasFinished();
                           });
                       const Host host{sources, player, taps, reports};
                       OtherThread other(player, taps, sources);
                       for (const Operation& operation : operations)
                       {
                           if (operation.kind == Operation::Kind::Wait)
                               VirtualTime::Step(operation.number);
                           host.Do(operation);
                       }
                       player.Stop();
                       const std::string complaint = other.Finish();
                       Joining::NoWorker();
                       sources.EndServer();
                       RC_ASSERT(complaint == "");
                       RC_ASSERT(!player.IsPlaying() && !player.IsPaused());
                       for (const auto& sink : VirtualDevice::Sinks())
                           RC_ASSERT(sink->bDeleted && !sink->bOpen);
                       taps.TakeCalls();
                       VirtualTime::Step(1.0);
                       RC_ASSERT(taps.TakeCalls().empty());
                   });
}
