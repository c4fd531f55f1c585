// Plays a station for a while, and tells what happens and what is on.
#include "tovrel_audio_player.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    if (argc != 3)
        return std::puts("usage: play_radio URL SECONDS"), 2;
    static constexpr const char* kStates[] = {"idle",         "connecting", "buffering", "playing",
                                              "reconnecting", "error",      "stopped"};
    TovrelAudioPlayer player;
    std::string error;
    // Called on the player's worker: it may print, but must not take long.
    const auto tell = [last = std::string()](TovrelAudioPlayer::StreamState state,
                                             const TovrelAudioPlayer::StreamInfo& info,
                                             const std::string& text) mutable
    {
        std::string line = kStates[static_cast<int>(state)];
        for (const std::string& part : {info.IcyName, info.Codec, info.NowPlaying, text})
            line += part.empty() ? "" : ", " + part;
        if (line != last) // the state is told again every second
            std::puts(line.c_str());
        last = line;
    };
    if (!player.PlayStream(argv[1], tell, &error))
        return std::puts(error.c_str()), 1;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[2]));
    while (!player.HasFinished() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    player.Stop(); // from here on nothing is told
    return player.LastError().empty() ? 0 : 1;
}
