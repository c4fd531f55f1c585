// What a file says of itself, beside its sound.
#pragma once

#include <string>

// FFmpeg would print its complaints into the middle of the live line. What matters of them is in
// the player's error text.
void SilenceDecoderLog();

struct FileInfo
{
    std::string title;
    std::string artist;
    std::string album;
    bool bStatesLength = false; // the length is written in the file, not guessed from its size
};

// "Artist - Title", "Title", or empty.
std::string TitleLine(const FileInfo& info);

// Blocks for a few milliseconds while it reads the file's header. Empty for whatever is not a
// regular file (a pipe can be read only once) or cannot be read.
FileInfo ReadFileInfo(const std::string& path);
