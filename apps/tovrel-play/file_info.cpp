#include "file_info.h"

#include <filesystem>
#include <memory>

extern "C"
{
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
}

namespace
{

struct CloseFormat
{
    void operator()(AVFormatContext* format) const { avformat_close_input(&format); }
};
using Format = std::unique_ptr<AVFormatContext, CloseFormat>;

Format OpenFormat(const std::string& path)
{
    AVDictionary* options = nullptr;
    // A playlist must not reach out to the network for the sake of a title.
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* format = nullptr;
    // With the protocol spelled out a colon in a name is just a colon.
    avformat_open_input(&format, ("file:" + path).c_str(), nullptr, &options);
    av_dict_free(&options);
    return Format(format);
}

std::string Tag(const AVDictionary* metadata, const char* key)
{
    const AVDictionaryEntry* entry = av_dict_get(metadata, key, nullptr, 0);
    return entry ? entry->value : "";
}

} // namespace

void SilenceDecoderLog()
{
    av_log_set_level(AV_LOG_QUIET);
}

FileInfo ReadFileInfo(const std::string& path)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return {};
    const Format format = OpenFormat(path);
    if (!format)
        return {};
    FileInfo info;
    const auto take = [&info](const AVDictionary* metadata)
    {
        info.title = Tag(metadata, "title");
        info.artist = Tag(metadata, "artist");
        info.album = Tag(metadata, "album");
    };
    take(format->metadata);
    // Matroska states only the length of the whole, which may be that of the pictures.
    info.bStatesLength = format->nb_streams == 1 && format->duration != AV_NOPTS_VALUE;
    for (unsigned i = 0; i < format->nb_streams; ++i)
    {
        const AVStream* stream = format->streams[i];
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
            continue;
        info.bStatesLength = info.bStatesLength || stream->duration != AV_NOPTS_VALUE;
        if (info.title.empty()) // Ogg keeps them with the stream
            take(stream->metadata);
    }
    return info;
}

std::string TitleLine(const FileInfo& info)
{
    const bool bBoth = !info.title.empty() && !info.artist.empty();
    return bBoth ? info.artist + " - " + info.title : info.title;
}
