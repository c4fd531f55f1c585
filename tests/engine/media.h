// Audio files made by the ffmpeg program or written here, and ffmpeg's own conversion of them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Media
{

// A directory of this process's own, removed at its end.
const std::filesystem::path& Directory();

// Runs ffmpeg with these arguments, which end in the file's name within Directory(), and returns
// its path. Throws where ffmpeg fails.
std::string Make(const std::string& arguments, const std::string& name);

// The same where ffmpeg makes more files beside that one.
void MakeSeveral(const std::string& arguments, const std::string& name);

// A file of exactly these bytes.
std::string Write(const std::string& name, const std::string& bytes);

// The bytes of a file.
std::string Read(const std::string& path);

// A file of this length that holds `start` and then zeros which take no room on the disk.
std::string WriteSparse(const std::string& name, const std::string& start, uint64_t size);

// A named pipe.
std::string MakePipe(const std::string& name);

// The bytes of a WAV file of interleaved samples. Format 3 is 32-bit float; any other is a lie
// about the same bytes.
std::string Wav(const std::vector<float>& samples, int rate, int channels, uint16_t format = 3);

// The same as a file.
std::string WriteWav(const std::string& name, const std::vector<float>& samples, int rate = 48000,
                     int channels = 2);

// The first audio stream as 48000 Hz stereo float, as ffmpeg converts it.
std::vector<float> Convert(const std::string& path);

// What the player makes of stereo samples at this gain with a centred pan, to the last bit: the
// centre's factor is not quite 1 in every rounding.
std::vector<float> Played(std::vector<float> samples, double gain = 1.0);

// Where the recordings of sound-theme-freedesktop are; tests skip where the package is missing.
std::filesystem::path Recordings();

// One of them.
std::string Recording(const std::string& name);

} // namespace Media
