#include "wrapped_calls.h"

#include <map>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

namespace
{

std::mutex g_mutex;
std::string g_failing;
int g_code = 0;
int g_skip = 0;
bool g_bHappened = false;
std::optional<std::pair<int64_t, int64_t>> g_frameTimes;
std::map<std::string, int> g_counts;
std::vector<std::string> g_releases;

// Whether this call of the function is the one that fails.
bool Fails(const char* function)
{
    const std::lock_guard lock(g_mutex);
    ++g_counts[function];
    if (g_failing != function || g_bHappened || g_skip-- > 0)
        return false;
    g_bHappened = true;
    return true;
}

void NoteRelease(const char* function)
{
    const std::lock_guard lock(g_mutex);
    g_releases.emplace_back(function);
}

} // namespace

FailingCall::FailingCall(const char* function, int code, int skip)
{
    const std::lock_guard lock(g_mutex);
    g_failing = function;
    g_code = code;
    g_skip = skip;
    g_bHappened = false;
}

FailingCall::~FailingCall()
{
    const std::lock_guard lock(g_mutex);
    g_failing.clear();
}

bool FailingCall::Happened() const
{
    const std::lock_guard lock(g_mutex);
    return g_bHappened;
}

ChangedFrameTimes::ChangedFrameTimes(int64_t bestEffort, int64_t pts)
{
    const std::lock_guard lock(g_mutex);
    g_frameTimes = {bestEffort, pts};
}

ChangedFrameTimes::~ChangedFrameTimes()
{
    const std::lock_guard lock(g_mutex);
    g_frameTimes.reset();
}

std::vector<std::string> Releases()
{
    const std::lock_guard lock(g_mutex);
    return g_releases;
}

void ForgetReleases()
{
    const std::lock_guard lock(g_mutex);
    g_releases.clear();
}

int CallCount(const std::string& function)
{
    const std::lock_guard lock(g_mutex);
    return g_counts[function];
}

// A function that fails with `failure`: its type, name, failure, parameters and arguments.
#define WRAP(type, name, failure, parameters, arguments)                                           \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters;                                                                 \
    type __wrap_##name parameters                                                                  \
    {                                                                                              \
        return Fails(#name) ? failure : __real_##name arguments;                                   \
    }

// A function that releases what its argument points to.
#define WRAP_RELEASE(name, type)                                                                   \
    void __real_##name(type** object);                                                             \
    void __wrap_##name(type** object);                                                             \
    void __wrap_##name(type** object)                                                              \
    {                                                                                              \
        if (*object)                                                                               \
            NoteRelease(#name);                                                                    \
        __real_##name(object);                                                                     \
    }

extern "C"
{

    WRAP(void*, av_malloc, nullptr, (size_t size), (size))
    WRAP(AVIOContext*, avio_alloc_context, nullptr,
         (unsigned char* buffer, int size, int bWrite, void* opaque,
          int (*read)(void*, uint8_t*, int), int (*write)(void*, uint8_t*, int),
          int64_t (*seek)(void*, int64_t, int)),
         (buffer, size, bWrite, opaque, read, write, seek))
    WRAP(AVFormatContext*, avformat_alloc_context, nullptr, (), ())
    WRAP(int, avformat_find_stream_info, g_code, (AVFormatContext * format, AVDictionary** options),
         (format, options))
    WRAP(const AVCodec*, avcodec_find_decoder, nullptr, (AVCodecID id), (id))
    WRAP(AVCodecContext*, avcodec_alloc_context3, nullptr, (const AVCodec* codec), (codec))
    WRAP(int, avcodec_parameters_to_context, g_code,
         (AVCodecContext * codec, const AVCodecParameters* parameters), (codec, parameters))
    WRAP(int, avcodec_open2, g_code,
         (AVCodecContext * context, const AVCodec* codec, AVDictionary** options),
         (context, codec, options))
    WRAP(int, swr_alloc_set_opts2, g_code,
         (SwrContext * *swr, const AVChannelLayout* outLayout, AVSampleFormat outFormat,
          int outRate, const AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate,
          int logOffset, void* log),
         (swr, outLayout, outFormat, outRate, inLayout, inFormat, inRate, logOffset, log))
    WRAP(int, swr_init, g_code, (SwrContext * swr), (swr))
    WRAP(AVFrame*, av_frame_alloc, nullptr, (), ())
    WRAP(AVPacket*, av_packet_alloc, nullptr, (), ())
    WRAP(int, av_read_frame, g_code, (AVFormatContext * format, AVPacket* packet), (format, packet))
    WRAP(int, avcodec_send_packet, g_code, (AVCodecContext * codec, const AVPacket* packet),
         (codec, packet))
    WRAP(int, av_seek_frame, g_code,
         (AVFormatContext * format, int stream, int64_t timestamp, int flags),
         (format, stream, timestamp, flags))

    WRAP_RELEASE(av_packet_free, AVPacket)
    WRAP_RELEASE(av_frame_free, AVFrame)
    WRAP_RELEASE(swr_free, SwrContext)
    WRAP_RELEASE(avcodec_free_context, AVCodecContext)
    WRAP_RELEASE(avformat_close_input, AVFormatContext)

    int __real_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame);
    int __wrap_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame);
    int __wrap_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame)
    {
        if (Fails("avcodec_receive_frame"))
            return g_code;
        const int rc = __real_avcodec_receive_frame(codec, frame);
        const std::lock_guard lock(g_mutex);
        if (rc == 0 && g_frameTimes)
            std::tie(frame->best_effort_timestamp, frame->pts) = *g_frameTimes;
        return rc;
    }

    // Its failure frees the context, as the real one does.
    int __real_avformat_open_input(AVFormatContext** format, const char* url,
                                   const AVInputFormat* input, AVDictionary** options);
    int __wrap_avformat_open_input(AVFormatContext** format, const char* url,
                                   const AVInputFormat* input, AVDictionary** options);
    int __wrap_avformat_open_input(AVFormatContext** format, const char* url,
                                   const AVInputFormat* input, AVDictionary** options)
    {
        if (!Fails("avformat_open_input"))
            return __real_avformat_open_input(format, url, input, options);
        avformat_free_context(*format);
        *format = nullptr;
        return g_code;
    }
}
