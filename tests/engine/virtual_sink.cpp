// The sink's operations on a device that consumes by virtual time.
#include "virtual_sink.h"

#include "pipewire_player.h"
#include "virtual_time.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

namespace
{

struct Device
{
    std::mutex mutex;
    std::map<const PipeWirePlayer*, std::shared_ptr<VirtualSink>> live;
    std::vector<std::shared_ptr<VirtualSink>> all;
    std::vector<std::string> calls;
    bool bFailInit = false;
    double initSeconds = 0.0;
    bool bFailStreamTime = false;

    Device()
    {
        VirtualTime::SetOnAdvance([this](int64_t ns) { Consume(ns); });
    }

    void Consume(int64_t ns)
    {
        const std::lock_guard lock(mutex);
        for (const auto& sink : all)
        {
            if (!sink->bOpen || !sink->bActive)
                continue;
            const double due = sink->frameRest + static_cast<double>(ns) * sink->sampleRate / 1e9;
            const double whole = std::floor(due);
            sink->frameRest = due - whole;
            const auto samples = static_cast<size_t>(whole) * static_cast<size_t>(sink->channels);
            const size_t end = std::min(sink->nextSample + samples, sink->pushed.size());
            const auto from = sink->pushed.begin() + static_cast<ptrdiff_t>(sink->nextSample);
            sink->heard.insert(sink->heard.end(), from,
                               sink->pushed.begin() + static_cast<ptrdiff_t>(end));
            sink->nextSample = end;
        }
    }
};

Device& Shared()
{
    static Device device;
    return device;
}

double InitSeconds()
{
    const std::lock_guard lock(Shared().mutex);
    return Shared().initSeconds;
}

// The sink of this object, with the device locked.
struct Locked
{
    std::unique_lock<std::mutex> lock{Shared().mutex};
    VirtualSink& sink;

    explicit Locked(const PipeWirePlayer* player) : sink(*Shared().live.at(player)) {}
    void Log(const std::string& call) { Shared().calls.push_back(call); }
};

double Frames(size_t samples, int channels)
{
    return channels > 0 ? static_cast<double>(samples / static_cast<size_t>(channels)) : 0.0;
}

} // namespace

double VirtualSink::QueuedSeconds() const
{
    return sampleRate > 0 ? Frames(pushed.size() - nextSample, channels) / sampleRate : 0.0;
}

double VirtualSink::HeardSeconds() const
{
    return sampleRate > 0 ? Frames(heard.size(), channels) / sampleRate : 0.0;
}

namespace VirtualDevice
{

void Reset()
{
    const std::lock_guard lock(Shared().mutex);
    Shared().all.clear();
    Shared().calls.clear();
    Shared().bFailInit = false;
    Shared().initSeconds = 0.0;
    Shared().bFailStreamTime = false;
}

std::vector<std::shared_ptr<const VirtualSink>> Sinks()
{
    const std::lock_guard lock(Shared().mutex);
    return {Shared().all.begin(), Shared().all.end()};
}

VirtualSink Last()
{
    const std::lock_guard lock(Shared().mutex);
    return Shared().all.empty() ? VirtualSink{} : *Shared().all.back();
}

std::vector<std::string> Calls(const std::string& except)
{
    const std::lock_guard lock(Shared().mutex);
    std::vector<std::string> calls = Shared().calls;
    std::erase_if(calls, [&](const std::string& call)
                  { return !except.empty() && call.compare(0, except.size(), except) == 0; });
    return calls;
}

void ForgetCalls()
{
    const std::lock_guard lock(Shared().mutex);
    Shared().calls.clear();
}

void FailInit(bool bFail)
{
    const std::lock_guard lock(Shared().mutex);
    Shared().bFailInit = bFail;
}

void SlowInit(double seconds)
{
    const std::lock_guard lock(Shared().mutex);
    Shared().initSeconds = seconds;
}

void FailStreamTime(bool bFail)
{
    const std::lock_guard lock(Shared().mutex);
    Shared().bFailStreamTime = bFail;
}

} // namespace VirtualDevice

PipeWirePlayer::PipeWirePlayer()
{
    const std::lock_guard lock(Shared().mutex);
    const auto sink = std::make_shared<VirtualSink>();
    Shared().live[this] = sink;
    Shared().all.push_back(sink);
}

PipeWirePlayer::~PipeWirePlayer()
{
    Locked locked(this);
    locked.Log("delete");
    locked.sink.bOpen = false;
    locked.sink.bDeleted = true;
    Shared().live.erase(this);
}

bool PipeWirePlayer::Init(int sampleRate, int channels)
{
    if (const double seconds = InitSeconds(); seconds > 0.0)
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    Locked locked(this);
    locked.Log("Init " + std::to_string(sampleRate) + " " + std::to_string(channels));
    if (Shared().bFailInit)
        return false;
    locked.sink.sampleRate = sampleRate;
    locked.sink.channels = channels;
    locked.sink.bOpen = true;
    return true;
}

void PipeWirePlayer::Destroy()
{
    Locked locked(this);
    locked.Log("Destroy");
    locked.sink.bOpen = false;
}

void PipeWirePlayer::SetActive(bool active)
{
    Locked locked(this);
    locked.Log(active ? "SetActive 1" : "SetActive 0");
    locked.sink.bActive = active;
}

void PipeWirePlayer::Clear()
{
    Locked locked(this);
    locked.Log("Clear");
    locked.sink.nextSample = locked.sink.pushed.size();
}

void PipeWirePlayer::PushBytes(const uint8_t* data, size_t size)
{
    Locked locked(this);
    const size_t samples = size / sizeof(float);
    const size_t frames = samples / static_cast<size_t>(locked.sink.channels);
    locked.Log("Push " + std::to_string(frames));
    locked.sink.pushedFrames.push_back(frames);
    locked.sink.pushed.resize(locked.sink.pushed.size() + samples);
    std::memcpy(locked.sink.pushed.data() + locked.sink.pushed.size() - samples, data, size);
}

size_t PipeWirePlayer::QueuedBytes() const
{
    const Locked locked(this);
    return (locked.sink.pushed.size() - locked.sink.nextSample) * sizeof(float);
}

double PipeWirePlayer::QueuedSeconds() const
{
    const Locked locked(this);
    return locked.sink.QueuedSeconds();
}

bool PipeWirePlayer::GetStreamTime(double* presentedSec, double* second) const
{
    Locked locked(this);
    locked.Log("GetStreamTime");
    if (Shared().bFailStreamTime)
        return false;
    if (presentedSec)
        *presentedSec = locked.sink.HeardSeconds();
    if (second)
        *second = 0.0;
    return true;
}
