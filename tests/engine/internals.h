// The player's private members and the helpers of its source file, for the tests.
#pragma once

#include "tovrel_audio_player.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

struct TovrelAudioPlayerTestAccess
{
    TovrelAudioPlayer& player;

    static constexpr int kOutputSampleRate = TovrelAudioPlayer::kOutputSampleRate;
    static constexpr int kOutputChannels = TovrelAudioPlayer::kOutputChannels;

    bool HasOutput() const { return player.AudioOutput != nullptr; }
    bool HasThread() const { return player.DecodeThread.joinable(); }
    auto& StopRequested() const { return player.StopRequested; }
    auto& Playing() const { return player.Playing; }
    auto& Paused() const { return player.Paused; }
    auto& Finished() const { return player.Finished; }
    auto& VolumeValue() const { return player.VolumeValue; }
    auto& PanValue() const { return player.PanValue; }
    auto& DurationSec() const { return player.DurationSec; }
    auto& CurrentSec() const { return player.CurrentSec; }
    auto& PausedPresentationSec() const { return player.PausedPresentationSec; }
    auto& PlaybackClockSourceSec() const { return player.PlaybackClockSourceSec; }
    auto& PlaybackClockPresentedSec() const { return player.PlaybackClockPresentedSec; }
    auto& PlaybackClockHostMs() const { return player.PlaybackClockHostMs; }
    auto& QueuedSourceEndSec() const { return player.QueuedSourceEndSec; }
    auto& SeekRequested() const { return player.SeekRequested; }
    auto& SeekTargetSec() const { return player.SeekTargetSec; }
    auto& EqualizerEnabled() const { return player.EqualizerEnabled; }
    auto& EqualizerGainsDb() const { return player.EqualizerGainsDb; }
    auto& AudioPCMCallback() const { return player.AudioPCMCallback; }
    auto& AudioPCMCallbackMutex() const { return player.AudioPCMCallbackMutex; }
    auto& AudioOutputMutex() const { return player.AudioOutputMutex; }
    auto& ResampleBuffer() const { return player.ResampleBuffer; }

    void SetLastError(const std::string& text) const { player.SetLastError(text); }
    void ApplyEqualizer(float* samples, int frames, int channels, int rate) const
    {
        player.ApplyEqualizer(samples, frames, channels, rate);
    }
    void ApplyGainAndPan(float* samples, int frames, int channels, double gain) const
    {
        player.ApplyGainAndPan(samples, frames, channels, gain);
    }
    void ApplyGainAndPan(float* samples, int frames, int channels) const
    {
        player.ApplyGainAndPan(samples, frames, channels);
    }
    void CaptureSpectrumSamples(const float* samples, int frames, int channels) const
    {
        player.CaptureSpectrumSamples(samples, frames, channels);
    }
    bool LoadFileIntoCache(const std::string& path, TovrelAudioCachedFileInput& cache,
                           std::string* error) const
    {
        return player.LoadFileIntoCache(path, cache, error);
    }
    bool OpenDecoder(const std::string& path, TovrelAudioCachedFileInput* cache,
                     AVFormatContext** format, AVCodecContext** codec, int* streamIndex,
                     std::string* error) const
    {
        return player.OpenDecoder(path, cache, format, codec, streamIndex, error);
    }
    bool OpenStreamDecoder(const std::string& url, AVFormatContext** format, AVCodecContext** codec,
                           int* streamIndex, std::string* error) const
    {
        return player.OpenStreamDecoder(url, format, codec, streamIndex, error);
    }
    bool ConfigureResampler(AVCodecContext* codec, SwrContext** swr, int* rate, int* channels,
                            std::string* error) const
    {
        return player.ConfigureResampler(codec, swr, rate, channels, error);
    }
};

// The helpers in the unnamed namespace of the player's source, by their own names.
namespace Internals
{

std::string AvErrorText(int code);
uint64_t AudioClockMs();
int ReadCachedFilePacket(void* opaque, uint8_t* buffer, int size);
int64_t SeekCachedFile(void* opaque, int64_t offset, int whence);
std::string MetadataValue(const AVDictionary* metadata, const char* key);
std::string MetadataValueAny(const AVDictionary* metadata, std::initializer_list<const char*> keys);
bool ReadMetadataGainDb(const AVDictionary* metadata, const char* key, double& out);
bool ReadR128GainDb(const AVDictionary* metadata, const char* key, double& out);
double MetadataGainLinear(const AVFormatContext* format, int streamIndex);
int InterruptIfStopped(void* player);
void FillStreamInfo(TovrelAudioPlayer::StreamInfo& info, AVFormatContext* format,
                    AVCodecContext* codec);

// To the engine's output format.
int ConvertFrame(const AVFrame& frame, SwrContext* swr, std::vector<float>& buffer);

// The equalizer's filters, and the forms in which this machine can run stereo blocks of them.
enum class EqualizerForm
{
    kInTurn,
    kSse2,
    kAvx2
};
std::vector<EqualizerForm> EqualizerForms();

class EqualizerCascade
{
public:
    EqualizerCascade(double rate, const std::array<double, 10>& gains);
    ~EqualizerCascade();
    EqualizerCascade(const EqualizerCascade&) = delete;
    EqualizerCascade& operator=(const EqualizerCascade&) = delete;

    // What ApplyEqualizer runs, and the stereo form of one's choice.
    void Run(float* samples, int frames, int channels);
    void Run(EqualizerForm form, float* samples, int frames);

#if defined(__x86_64__)
    // Whether all that goes into a block are numbers.
    bool IsFinite(std::span<const float> samples) const;
#endif

    // The four words of a band's history.
    std::vector<double*> History(size_t band);

private:
    struct Filters;
    std::unique_ptr<Filters> m_filters;
};

} // namespace Internals
