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

// What stands in a playlist, in its order: addresses, and names of files where the playlist is one.
// What has no place of its own is taken to stand beside the playlist. The segments of one stream
// (HLS) are no titles of their own: the answer is the playlist itself then, to be played as it is.
std::vector<std::string> ParsePlaylist(std::string_view text, const std::string& playlist);

// Reads a file or from an address, for at most 15 s, and parses it; `error` tells why the answer is
// empty. Blocks; ends early once `bCancel` is set, but not while it looks up the name of a host.
std::vector<std::string> ReadPlaylist(const std::string& playlist, const std::atomic<bool>& bCancel,
                                      std::string& error);
