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

} // namespace Internals
