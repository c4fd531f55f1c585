// The engine's player, compiled here so that the helpers of its source can be reached.
#include "tovrel_audio_player.cpp"

#include "internals.h"

namespace Internals
{

std::string AvErrorText(int code)
{
    return ::AvErrorText(code);
}

uint64_t AudioClockMs()
{
    return ::AudioClockMs();
}

int ReadCachedFilePacket(void* opaque, uint8_t* buffer, int size)
{
    return ::ReadCachedFilePacket(opaque, buffer, size);
}

int64_t SeekCachedFile(void* opaque, int64_t offset, int whence)
{
    return ::SeekCachedFile(opaque, offset, whence);
}

std::string MetadataValue(const AVDictionary* metadata, const char* key)
{
    return ::MetadataValue(metadata, key);
}

std::string MetadataValueAny(const AVDictionary* metadata, std::initializer_list<const char*> keys)
{
    return ::MetadataValueAny(metadata, keys);
}

bool ReadMetadataGainDb(const AVDictionary* metadata, const char* key, double& out)
{
    return ::ReadMetadataGainDb(metadata, key, out);
}

bool ReadR128GainDb(const AVDictionary* metadata, const char* key, double& out)
{
    return ::ReadR128GainDb(metadata, key, out);
}

double MetadataGainLinear(const AVFormatContext* format, int streamIndex)
{
    return ::MetadataGainLinear(format, streamIndex);
}

int InterruptIfStopped(void* player)
{
    return ::InterruptIfStopped(player);
}

void FillStreamInfo(TovrelAudioPlayer::StreamInfo& info, AVFormatContext* format,
                    AVCodecContext* codec)
{
    ::FillStreamInfo(info, format, codec);
}

int ConvertFrame(const AVFrame& frame, SwrContext* swr, std::vector<float>& buffer)
{
    return ::ConvertFrame(frame, swr, TovrelAudioPlayerTestAccess::kOutputSampleRate,
                          TovrelAudioPlayerTestAccess::kOutputChannels, buffer);
}

std::vector<EqualizerForm> EqualizerForms()
{
    std::vector<EqualizerForm> forms{EqualizerForm::kInTurn};
#if defined(__x86_64__)
    forms.push_back(EqualizerForm::kSse2);
    if (__builtin_cpu_supports("avx2"))
        forms.push_back(EqualizerForm::kAvx2);
#endif
    return forms;
}

struct EqualizerCascade::Filters
{
    PeakingCascade cascade;
};

EqualizerCascade::EqualizerCascade(double rate, const std::array<double, 10>& gains) :
    m_filters(std::make_unique<Filters>())
{
    for (size_t band = 0; band < gains.size(); ++band)
        m_filters->cascade[band].Configure(rate, kEqualizerFrequenciesHz[band], gains[band]);
}

EqualizerCascade::~EqualizerCascade() = default;

void EqualizerCascade::Run(EqualizerForm form, float* samples, int frames)
{
#if defined(__x86_64__)
    if (form != EqualizerForm::kInTurn)
        return RunSideBySide(m_filters->cascade, samples, frames,
                             form == EqualizerForm::kAvx2 ? RunStepsAvx2 : RunStepsSse2);
#endif
    RunInTurn(m_filters->cascade, samples, frames, kEqualizerChannels);
}

void EqualizerCascade::Run(float* samples, int frames, int channels)
{
    RunCascade(m_filters->cascade, samples, frames, channels);
}

#if defined(__x86_64__)
bool EqualizerCascade::IsFinite(std::span<const float> samples) const
{
    return ::IsFinite(m_filters->cascade, samples.data(), samples.size());
}
#endif

std::vector<double*> EqualizerCascade::History(size_t band)
{
    PeakingBiquad& filter = m_filters->cascade[band];
    return {&filter.Z1[0], &filter.Z1[1], &filter.Z2[0], &filter.Z2[1]};
}

} // namespace Internals
