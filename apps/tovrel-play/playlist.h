// Playlists: files and addresses that name others.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

// "scheme://..."; everything else is the name of a file.
bool IsAddress(std::string_view name);

// The file that an address "file://..." or "file:///..." stands for; other names as they are.
std::string LocalName(const std::string& name);

// Whether this file or address is a playlist, by the end of its name (.m3u, .pls).
bool IsPlaylist(std::string_view name);

struct Playlist
{
    // In their order: addresses, and names of files where the playlist is one.
    std::vector<std::string> entries;
    bool bOneStream = false; // the segments of one (HLS), to be played as it is
    std::string error;       // why there are none
};

// What has no place of its own is taken to stand beside the playlist. Only what a server may send
// somebody to is taken: sound on the network, and from a file also files.
Playlist ParsePlaylist(std::string_view text, const std::string& location);

// Reads a file or from an address, for at most 15 s, and parses it. Blocks; ends early once
// `bCancel` is set, but not while it looks up the name of a host.
Playlist ReadPlaylist(const std::string& location, const std::atomic<bool>& bCancel);
