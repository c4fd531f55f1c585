// Plays a file, and tells where it is.
#include "tovrel_audio_player.h"

#include <chrono>
#include <cstdio>
#include <thread>

int main(int argc, char** argv)
{
    if (argc != 2)
        return std::puts("usage: play_file FILE"), 2;
    TovrelAudioPlayer player;
    player.PlayFile(argv[1]);
    while (!player.HasFinished())
    {
        std::printf("\r%.1f of %.1f s ", player.CurrentSeconds(), player.DurationSeconds());
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::puts(player.LastError().c_str());
    return player.LastError().empty() ? 0 : 1;
}
