// Any text as a playlist: what comes of it can be played, and leads nobody where it must not.
#include "playlist.h"

#include "check.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <strings.h>

namespace
{

constexpr size_t kEntryLimit = 10000;

constexpr const char* kPlaces[] = {
    "list.m3u",
    "list.xspf",
    "/music/list.pls",
    "../list.M3U",
    "http://radio.example",
    "http://radio.example/listen.pls?id=1#top",
    "https://radio.example:8000/a/b/list.m3u",
};

bool IsOnTheNetwork(const std::string& name)
{
    static constexpr const char* kStarts[] = {"http://", "https://", "rtmp://",
                                              "rtsp://", "mms://",   "mmsh://"};
    return std::any_of(std::begin(kStarts), std::end(kStarts),
                       [&](std::string_view start)
                       { return strncasecmp(name.c_str(), start.data(), start.size()) == 0; });
}

void CheckEntry(const std::string& entry, bool bRemote)
{
    Check(!entry.empty(), "an entry is a name");
    Check(entry.find_first_of("\r\n") == entry.npos || !IsAddress(entry), "an address is one line");
    Check(IsOnTheNetwork(entry) || !IsAddress(entry), "an address is one of the network's");
    Check(IsOnTheNetwork(entry) || !bRemote, "nobody on the network names files");
}

// What a text from the network does not spell out, "//host/..." at least, is on the same server.
void CheckServer(const std::string& entry, const std::string& text, const std::string& place)
{
    const size_t host = place.find("//");
    const std::string server = place.substr(0, place.find_first_of("/?#", host + 2)) + "/";
    const bool bNamed =
        text.find(entry) != text.npos ||
        (entry.compare(0, host, place, 0, host) == 0 && text.find(entry.substr(host)) != text.npos);
    Check(bNamed || entry.substr(0, server.size()) == server, "what has no server is on this one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string place = input.PickValueInArray(kPlaces);
    const std::string text = input.ConsumeRemainingBytesAsString();
    const Playlist playlist = ParsePlaylist(text, place);
    Check(playlist.entries.size() <= kEntryLimit, "the number of entries");
    Check(playlist.entries.empty() || playlist.error.empty(), "an error is why there are none");
    Check(playlist.entries.empty() || !playlist.bOneStream, "one stream has no entries");
    const bool bXml = text.find('<') != text.npos; // perhaps: then nothing stands as it is meant
    for (const std::string& entry : playlist.entries)
    {
        CheckEntry(entry, IsAddress(place));
        if (IsAddress(place) && !bXml)
            CheckServer(entry, text, place);
    }

    const std::string local = LocalName(text);
    Check(!IsAddress(local) || local == text, "a local name is no address");
    (void)IsPlaylist(text);
    return 0;
}
