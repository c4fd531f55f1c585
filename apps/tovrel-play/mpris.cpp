#include "mpris.h"

#include "playlist.h"
#include "text.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using Metadata = std::map<std::string, sdbus::Variant>;

constexpr const char* kName = "org.mpris.MediaPlayer2.tovrel_play";
constexpr const char* kPath = "/org/mpris/MediaPlayer2";
constexpr const char* kRoot = "org.mpris.MediaPlayer2";
constexpr const char* kPlayer = "org.mpris.MediaPlayer2.Player";
constexpr const char* kNoTrack = "/org/mpris/MediaPlayer2/TrackList/NoTrack";
constexpr double kJumpSeconds = 0.3; // beside where it should be: somebody has sought

int64_t Microseconds(double seconds)
{
    return std::llround(seconds * 1e6);
}

const char* StatusText(const Status& status)
{
    return status.activity == Activity::Stopped ? "Stopped" : status.bPaused ? "Paused" : "Playing";
}

const char* LoopText(Repeat repeat)
{
    return repeat == Repeat::Off ? "None" : repeat == Repeat::One ? "Track" : "Playlist";
}

// The address of a file, with what an address cannot hold escaped. The bus takes UTF-8 alone.
std::string Address(const std::string& name)
{
    if (IsAddress(name))
        return Printable(name);
    std::error_code error;
    std::string address = "file://";
    for (const char c : std::filesystem::absolute(name, error).string())
    {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || std::string_view("/-._~").find(c) != std::string_view::npos)
        {
            address += c;
            continue;
        }
        constexpr char kDigits[] = "0123456789ABCDEF";
        address += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return address;
}

// What the bus hears of, in one place, so that a change can be told.
struct Told
{
    std::string playback;
    std::string loop;
    bool bShuffle = false;
    double volume = 0.0;
    bool bNext = false;
    bool bPrevious = false;
    bool bSeek = false;
    std::string track; // all that the metadata depend on
};

} // namespace

struct Mpris::Bus
{
    Control& control;
    const Status& status;
    const Queue& queue;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IObject> object;
    Told told;
    double position = 0.0; // at `positionAt`
    Clock::time_point positionAt;

    Bus(Control& asked, const Status& shown, const Queue& played) :
        control(asked), status(shown), queue(played),
        connection(sdbus::createSessionBusConnection())
    {
        try
        {
            connection->requestName(kName);
        }
        catch (const sdbus::Error&) // another player has it
        {
            connection->requestName(std::string(kName) + ".instance" + std::to_string(getpid()));
        }
        object = sdbus::createObject(*connection, kPath);
        RegisterRoot();
        RegisterMethods();
        RegisterProperties();
        object->finishRegistration();
        told = Now();
    }

    template <class Value>
    void Constant(const char* interface, const char* name, Value value)
    {
        object->registerProperty(name).onInterface(interface).withGetter([value] { return value; });
    }

    void RegisterRoot()
    {
        object->registerMethod("Raise").onInterface(kRoot).implementedAs([] {});
        object->registerMethod("Quit").onInterface(kRoot).implementedAs([this] { control.Quit(); });
        Constant(kRoot, "CanQuit", true);
        Constant(kRoot, "CanRaise", false);
        Constant(kRoot, "HasTrackList", false);
        Constant(kRoot, "Identity", std::string("Tovrel"));
        Constant(kRoot, "SupportedUriSchemes", std::vector<std::string>{"file", "http", "https"});
        Constant(kRoot, "SupportedMimeTypes",
                 std::vector<std::string>{"audio/aac", "audio/flac", "audio/mp4", "audio/mpeg",
                                          "audio/ogg", "audio/opus", "audio/wav", "audio/webm",
                                          "audio/x-mpegurl", "audio/x-scpls",
                                          "application/xspf+xml"});
    }

    void Method(const char* name, void (Control::*operation)())
    {
        object->registerMethod(name).onInterface(kPlayer).implementedAs(
            [this, operation] { (control.*operation)(); });
    }

    void RegisterMethods()
    {
        Method("Next", &Control::Next);
        Method("Previous", &Control::Previous);
        Method("Play", &Control::Play);
        Method("PlayPause", &Control::TogglePause);
        Method("Stop", &Control::Halt);
        object->registerMethod("Pause").onInterface(kPlayer).implementedAs(
            [this] { control.Pause(true); });
        object->registerMethod("Seek").onInterface(kPlayer).implementedAs(
            [this](const int64_t& offset)
            {
                // Beyond the end is the next one.
                const double target = status.live.position + static_cast<double>(offset) / 1e6;
                if (CanSeek() && target > status.live.duration)
                    control.Next();
                else
                    control.SeekTo(target);
            });
        object->registerMethod("SetPosition")
            .onInterface(kPlayer)
            .implementedAs(
                [this](const sdbus::ObjectPath& track, const int64_t& target)
                {
                    const double seconds = static_cast<double>(target) / 1e6;
                    // Too late for this track: not at all.
                    if (track == Track() && seconds >= 0.0 && seconds <= status.live.duration)
                        control.SeekTo(seconds);
                });
        object->registerMethod("OpenUri").onInterface(kPlayer).implementedAs(
            [this](const std::string& address) { control.Open(address); });
        object->registerSignal("Seeked").onInterface(kPlayer).withParameters<int64_t>();
    }

    void RegisterProperties()
    {
        object->registerProperty("Rate")
            .onInterface(kPlayer)
            .withGetter([] { return 1.0; })
            .withSetter(
                [this](const double& rate)
                {
                    if (rate == 0.0)
                        control.Pause(true);
                });
        Constant(kPlayer, "MinimumRate", 1.0);
        Constant(kPlayer, "MaximumRate", 1.0);
        Constant(kPlayer, "CanPlay", true);
        Constant(kPlayer, "CanPause", true);
        Constant(kPlayer, "CanControl", true);
        const auto property = [this](const char* name, auto getter)
        {
            object->registerProperty(name).onInterface(kPlayer).withGetter(getter);
        };
        property("PlaybackStatus", [this] { return Now().playback; });
        property("CanGoNext", [this] { return Now().bNext; });
        property("CanGoPrevious", [this] { return Now().bPrevious; });
        property("CanSeek", [this] { return Now().bSeek; });
        property("Metadata", [this] { return TrackMetadata(); });
        object->registerProperty("Position")
            .onInterface(kPlayer)
            .withGetter([this] { return Microseconds(std::max(status.live.position, 0.0)); })
            .withUpdateBehavior(sdbus::Flags::EMITS_NO_SIGNAL);
        object->registerProperty("Volume")
            .onInterface(kPlayer)
            .withGetter([this] { return Now().volume; })
            .withSetter([this](const double& volume) { control.SetVolume(volume); });
        object->registerProperty("Shuffle")
            .onInterface(kPlayer)
            .withGetter([this] { return Now().bShuffle; })
            .withSetter([this](const bool& bShuffle) { control.SetShuffle(bShuffle); });
        object->registerProperty("LoopStatus")
            .onInterface(kPlayer)
            .withGetter([this] { return Now().loop; })
            .withSetter(
                [this](const std::string& loop)
                {
                    for (const Repeat repeat : {Repeat::Off, Repeat::All, Repeat::One})
                        if (loop == LoopText(repeat))
                            control.SetRepeat(repeat);
                });
    }

    bool CanSeek() const { return !status.live.bEndless && status.live.duration > 0.0; }

    sdbus::ObjectPath Track() const
    {
        const bool bNone = status.name.empty() || queue.Current() == Queue::kNone;
        return bNone ? kNoTrack
                     : "/tovrel/track/" + std::to_string(queue.Entries()[queue.Current()].id);
    }

    std::string StreamTitle() const
    {
        const auto& stream = status.stream;
        return Printable(stream.NowPlaying.empty() ? stream.IcyName : stream.NowPlaying);
    }

    Metadata TrackMetadata() const
    {
        Metadata metadata;
        metadata["mpris:trackid"] = Track();
        if (status.name.empty())
            return metadata;
        if (status.name != "-") // standard input has no address
            metadata["xesam:url"] = Address(status.name);
        if (CanSeek())
            metadata["mpris:length"] = Microseconds(status.live.duration);
        const std::string title = status.bStream ? StreamTitle() : status.title;
        metadata["xesam:title"] = title.empty() ? status.live.title : title;
        if (!status.artist.empty())
            metadata["xesam:artist"] = std::vector<std::string>{status.artist};
        if (!status.album.empty())
            metadata["xesam:album"] = status.album;
        return metadata;
    }

    Told Now() const
    {
        return {StatusText(status),
                LoopText(queue.Repeats()),
                queue.IsShuffled(),
                status.live.volume,
                queue.HasNext(),
                queue.HasPrevious() || CanSeek(),
                CanSeek(),
                Track() + '\n' + status.name + '\n' + status.title + '\n' + StreamTitle() + '\n' +
                    std::to_string(status.live.duration)};
    }
};

std::unique_ptr<Mpris> Mpris::Connect(Control& control, const Status& status, const Queue& queue)
{
    try
    {
        return std::unique_ptr<Mpris>(new Mpris(std::make_unique<Bus>(control, status, queue)));
    }
    catch (const sdbus::Error&)
    {
        return nullptr;
    }
}

Mpris::Mpris(std::unique_ptr<Bus> bus) : m_bus(std::move(bus))
{
}

Mpris::~Mpris() = default;

int Mpris::Descriptor() const
{
    return m_bus->connection->getEventLoopPollData().fd;
}

bool Mpris::Process()
try
{
    while (m_bus->connection->processPendingRequest())
    {
    }
    return true;
}
catch (const sdbus::Error&)
{
    return false;
}

void Mpris::Update()
try
{
    Bus& bus = *m_bus;
    const Told now = bus.Now();
    const Told last = bus.told;
    std::vector<std::string> changed;
    const auto note = [&](const char* name, bool bChanged)
    {
        if (bChanged)
            changed.emplace_back(name);
    };
    note("PlaybackStatus", now.playback != last.playback);
    note("LoopStatus", now.loop != last.loop);
    note("Shuffle", now.bShuffle != last.bShuffle);
    note("Volume", now.volume != last.volume);
    note("CanGoNext", now.bNext != last.bNext);
    note("CanGoPrevious", now.bPrevious != last.bPrevious);
    note("CanSeek", now.bSeek != last.bSeek);
    note("Metadata", now.track != last.track);
    if (!changed.empty())
        bus.object->emitPropertiesChangedSignal(kPlayer, changed);
    bus.told = now;

    const auto at = Clock::now();
    const double passed = bus.status.activity == Activity::Playing
                              ? std::chrono::duration<double>(at - bus.positionAt).count()
                              : 0.0;
    const double position = std::max(bus.status.live.position, 0.0);
    if (now.track == last.track && std::abs(position - bus.position - passed) > kJumpSeconds)
        bus.object->emitSignal("Seeked").onInterface(kPlayer).withArguments(Microseconds(position));
    bus.position = position;
    bus.positionAt = at;
}
catch (const sdbus::Error&)
{
    // Most likely the bus is gone, and Process tells. Otherwise it is tried again.
}
