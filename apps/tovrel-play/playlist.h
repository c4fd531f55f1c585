// What names others to play: playlists, as files and at addresses, and folders.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

// "scheme://..."; everything else is the name of a file.
bool IsAddress(std::string_view name);

// The file that an address "file://..." or "file:///..." stands for; other names as they are.
std::string LocalName(const std::string& name);

// A name of a file that is taken for nothing else: for no address, nor for standard input ("-").
std::string FileName(const std::string& file);

// Whether this file or address is a playlist, by the end of its name (.m3u, .m3u8, .pls, .xspf).
bool IsPlaylist(std::string_view name);

// The files that a pattern of the shell's stands for, in their order; the name itself where it is
// no pattern, where a file has it, or where there are none.
std::vector<std::string> MatchingFiles(const std::string& name);

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

// The files in a folder and in those below it whose names end as those of sound do, in the order of
// their names. Playlists are left out: they would name the same files again. Blocks; ends early
// once `bCancel` is set.
Playlist ReadFolder(const std::string& folder, const std::atomic<bool>& bCancel);

// Reads a file or from an address, for at most 15 s, and parses it. Blocks; ends early once
// `bCancel` is set, but not while it looks up the name of a host.
Playlist ReadPlaylist(const std::string& location, const std::atomic<bool>& bCancel);
