#include "stations.h"

#include "harness.h"
#include "scripted_server.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <iterator>
#include <utility>
#include <vector>

namespace
{

using Scripts = std::vector<Script>;

constexpr size_t kMetadataInterval = 16000;
const std::string kMetadataHeader = "icy-metaint: " + std::to_string(kMetadataInterval);

constexpr std::array kRadioTexts = {
    "",
    "Radio stream open cancelled.",
    "No audio stream found in radio source.",
    "Failed to open radio stream: Connection refused",
    "Failed to open radio stream: End of file",
    "Failed to open radio stream: Input/output error",
    "Failed to open radio stream: Invalid data found when processing input",
    "Failed to open radio stream: Server returned 404 Not Found",
    "Failed to read radio stream info: Immediate exit requested", // by a stop
    "Radio decode failed: Invalid data found when processing input",
    "End of file",
    "Input/output error",
};

// Silence in real time until somebody hangs up.
Step SendSilence()
{
    static constexpr int kPaceMs = 20;
    constexpr size_t kBytesPerMs = kSinkRate * kSinkChannels * sizeof(float) / 1000;
    return [](Connection& connection)
    {
        const std::string piece(kBytesPerMs * kPaceMs, '\0');
        while (connection.Send(piece))
            connection.Wait(std::chrono::milliseconds(kPaceMs));
    };
}

std::string WithTitles(const std::string& bytes)
{
    std::vector<std::string> blocks;
    for (size_t at = 0; at < bytes.size(); at += kMetadataInterval)
        blocks.push_back(at / kMetadataInterval % 4 == 0
                             ? TitleBlock("Title " + std::to_string(at / kMetadataInterval))
                             : std::string(1, '\0'));
    return Interleave(bytes, kMetadataInterval, blocks);
}

struct Habit
{
    const char* name;
    Scripts (*scripts)(const std::string& bytes, Random& random);
};

std::string Torn(const std::string& bytes, Random& random)
{
    return bytes.substr(0, random.Between(1, bytes.size() - 1));
}

Script Ok(const std::vector<Step>& steps)
{
    return Script{Reply("HTTP/1.0 200 OK", {"Content-Type: audio/mpeg"})} + steps;
}

constexpr Habit kHabits[] = {
    {"sends and goes on",
     [](const std::string& bytes, Random&)
     {
         return Scripts{Ok({SendPaced(bytes + bytes, bytes.size())})};
     }},
    {"changes titles",
     [](const std::string& bytes, Random&)
     {
         return Scripts{Live(WithTitles(bytes), {kMetadataHeader}) + Script{Stall()}};
     }},
    {"is not there",
     [](const std::string&, Random&)
     {
         return Scripts{NotFound()};
     }},
    {"breaks off in a frame",
     [](const std::string& bytes, Random& random)
     {
         return Scripts{Ok({Send(Torn(bytes, random))})};
     }},
    {"breaks off and is not there",
     [](const std::string& bytes, Random& random)
     {
         return Scripts{Live(Torn(bytes, random)), NotFound()};
     }},
    {"resets the connection",
     [](const std::string& bytes, Random& random)
     {
         return Scripts{Ok({Send(Torn(bytes, random)), Reset()}), Script{Reset()}};
     }},
    {"says nothing",
     [](const std::string&, Random&)
     {
         return Scripts{Script{Stall()}};
     }},
    {"stalls",
     [](const std::string& bytes, Random& random)
     {
         return Scripts{Ok({Send(Torn(bytes, random)), Stall()})};
     }},
    {"drips",
     [](const std::string& bytes, Random& random)
     {
         return Scripts{Ok({SendPaced(bytes, random.Between(500, 8000))})};
     }},
    {"sends a web page",
     [](const std::string&, Random&)
     {
         return Scripts{Whole("<html>No radio here.</html>", {"Content-Type: audio/mpeg"})};
     }},
    {"sends nothing",
     [](const std::string&, Random&)
     {
         return Scripts{Whole("")};
     }},
    {"redirects without end",
     [](const std::string&, Random&)
     {
         return Scripts{Redirect("/stream")};
     }},
    {"speaks no HTTP",
     [](const std::string& bytes, Random&)
     {
         return Scripts{Script{Send(bytes)}};
     }},
    {"sends torn chunks",
     [](const std::string& bytes, Random& random)
     {
         const std::string chunks = Chunked(bytes, random.Between(1, 5000), random.OneIn(2));
         return Scripts{Script{Reply("HTTP/1.1 200 OK", {"Transfer-Encoding: chunked"}),
                               Send(Torn(chunks, random))},
                        NotFound()};
     }},
    {"changes what it sends",
     [](const std::string& bytes, Random& random)
     {
         const std::string noise = std::string(random.Between(1, 5000), 'a');
         return Scripts{Ok({Send(Torn(bytes, random) + noise + bytes)})};
     }},
};

} // namespace

Station::Station() = default;
Station::~Station() = default;
Station::Station(Station&&) noexcept = default;

Station RandomStation(const Library& library, Random& random)
{
    Station station;
    const size_t habit = random.Below(std::size(kHabits) + 2);
    if (habit == std::size(kHabits))
    {
        station.kind = "radio that refuses";
        station.url = RefusingUrl();
        return station;
    }
    if (habit > std::size(kHabits))
    {
        station.kind = "radio that does not hear";
        station.deaf = std::make_unique<DeafServer>();
        station.url = station.deaf->Url();
        return station;
    }
    auto stream = library.streams.begin();
    std::advance(stream, random.Below(library.streams.size()));
    station.kind = std::string("radio that ") + kHabits[habit].name;
    station.server =
        std::make_unique<ScriptedServer>(kHabits[habit].scripts(stream->second, random));
    station.url = station.server->Url();
    return station;
}

Station FaultlessStation(const std::string& wavBytes, bool bTitles)
{
    Script script = bTitles ? Live(WithTitles(wavBytes), {kMetadataHeader}) + Script{Stall()}
                            : Live(wavBytes) + Script{SendSilence()};
    Station station;
    station.kind = "radio";
    station.server = std::make_unique<ScriptedServer>(Scripts{std::move(script)});
    station.url = station.server->Url();
    return station;
}

bool IsKnownRadioText(const std::string& text)
{
    return std::find(kRadioTexts.begin(), kRadioTexts.end(), text) != kRadioTexts.end();
}
