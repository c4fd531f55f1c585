// Any bytes as a local file, played from its opening to its end.
#include "check.h"
#include "quick_playback.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace
{

constexpr double kQueueLimit = 0.5; // seconds of a file that may be queued when a block comes

// A name's end takes part in guessing what a file is: some formats cannot be told otherwise.
constexpr const char* kNames[] = {"a",     "a.mp3", "a.flac", "a.wav", "a.ogg", "a.opus", "a.m4a",
                                  "a.aac", "a.wma", "a.aiff", "a.ac3", "a.ape", "a.au",   "a.mka",
                                  "a.wv",  "a.caf", "a.mp2",  "a.gsm", "a.tta", "a.dsf"};

// Of this process alone, in a place that scripts/fuzz clears.
const std::filesystem::path& Directory()
{
    static const std::filesystem::path directory = []
    {
        auto path = std::filesystem::temp_directory_path() / std::to_string(getpid());
        std::filesystem::create_directory(path);
        return path;
    }();
    return directory;
}

bool IsKnown(std::string_view text)
{
    return IsOneOf(text, {
                             "",
                             "Audio file is empty.",
                             "Failed to open audio file: ",
                             "Failed to read audio stream info: ",
                             "No audio stream found.",
                             "No decoder available for this audio stream.",
                             "Failed to configure audio decoder: ",
                             "Failed to open audio decoder: ",
                             "Failed to allocate audio resampler.",
                             "Failed to initialize audio resampler: ",
                             "Audio decode failed: ",
                             "Audio seek failed.",
                         });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string path = Directory() / input.PickValueInArray(kNames);
    QuickPlayback playback(input, kQueueLimit, [] { return std::nullopt; });
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    std::ofstream(path, std::ios::binary) << bytes;
    Check(playback.player.PlayFile(path), "a file is always taken on");
    playback.RunToEnd();
    const std::string error = playback.player.LastError();
    Check(IsKnown(error), error.c_str());
    NoteOutcome(error);
    std::filesystem::remove(path);
    return 0;
}
