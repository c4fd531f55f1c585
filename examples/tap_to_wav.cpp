// Plays a file and writes what is played, with the equalizer's bass and the volume in it, as a WAV
// file of 32-bit floats.
#include "tovrel_audio_player.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

void WriteWav(const char* path, const std::vector<float>& samples, uint32_t rateHz)
{
    std::ofstream file(path, std::ios::binary);
    const auto bytes = static_cast<uint32_t>(samples.size() * sizeof(float));
    const auto put = [&file](uint32_t value, int size)
    {
        file.write(reinterpret_cast<const char*>(&value), size); // little endian, as the machine
    };
    file << "RIFF", put(36 + bytes, 4), file << "WAVEfmt ", put(16, 4);
    put(3, 2), put(2, 2), put(rateHz, 4), put(rateHz * 8, 4), put(8, 2), put(32, 2);
    file << "data", put(bytes, 4);
    file.write(reinterpret_cast<const char*>(samples.data()), bytes);
}

int main(int argc, char** argv)
{
    if (argc != 3)
        return std::puts("usage: tap_to_wav FILE OUT.wav"), 2;
    std::vector<float> played; // the worker's, until it has ended
    TovrelAudioPlayer player;
    player.SetEqualizerBands(true, {6.0, 6.0, 4.0, 2.0});
    player.SetVolume(0.5);
    player.SetAudioPCMCallback(
        [&](const float* samples, int frames, int /*rate*/, int channels, long /*microseconds*/)
        { played.insert(played.end(), samples, samples + frames * channels); });
    player.PlayFile(argv[1]);
    while (!player.HasFinished())
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    player.Stop();
    WriteWav(argv[2], played, 48000); // files are played at this rate, in stereo
    std::puts(player.LastError().c_str());
    return player.LastError().empty() ? 0 : 1;
}
