// What stations do to their listeners.
#pragma once

#include "listener.h"

#include <memory>
#include <string>

class DeafServer;
class ScriptedServer;

struct Station
{
    Station();
    ~Station();
    Station(Station&&) noexcept;

    std::string kind;
    std::string url;
    std::unique_ptr<ScriptedServer> server; // null where nobody listens
    std::unique_ptr<DeafServer> deaf;
};

Station RandomStation(const Library& library, Random& random);

// One that sends these bytes at once, with changing titles or without, and is silent after.
Station FaultlessStation(const std::string& wavBytes, bool bTitles);

// Whether a radio playback may tell this, in its reports or as its last error.
bool IsKnownRadioText(const std::string& text);
