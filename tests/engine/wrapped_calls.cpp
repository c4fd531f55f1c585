#include "wrapped_calls.h"

#include <locale.h>
#include <sys/mman.h>

#include <atomic>
#include <mutex>
#include <new>
#include <optional>
#include <tuple>
#include <utility>

extern "C"
{
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace
{

// One call of a function, counted from the moment at which somebody began to wait for it.
struct Occurrence
{
    std::string function;
    int skip = 0;
    bool bCame = false;

    bool Comes(const char* called)
    {
        if (function != called || bCame || skip-- > 0)
            return false;
        bCame = true;
        return true;
    }
};

using Counts = std::map<std::string, int, std::less<>>; // looked up without a new string

std::mutex g_mutex;
std::map<const FailingCall*, std::pair<Occurrence, int>> g_failing; // with its code
std::map<const DuringCall*, std::pair<Occurrence, std::function<void()>>> g_during;
std::optional<std::pair<int64_t, int64_t>> g_frameTimes;
Counts g_counts;
Counts g_created;
std::vector<std::string> g_releases;
bool g_bRecording = false;
std::vector<std::string> g_recorded;

Occurrence g_shortage;
size_t g_shortageBytes = 0;
std::atomic<size_t> g_refusedBytes{0}; // memory of this size or more is refused; 0 where none is
std::atomic<bool> g_bRefused{false};

constexpr std::pair<const char*, const char*> kCreators[] = {
    {"avio_alloc_context", "avio_context_free"},
    {"avformat_open_input", "avformat_close_input"},
    {"avcodec_alloc_context3", "avcodec_free_context"},
    {"swr_alloc_set_opts2", "swr_free"},
    {"av_frame_alloc", "av_frame_free"},
    {"av_packet_alloc", "av_packet_free"},
};

int& CountOf(Counts& counts, const char* function)
{
    const auto found = counts.find(function);
    return found != counts.end() ? found->second : counts[function];
}

// What is to be done during this call, without the lock: it may call anything. Under g_mutex.
std::vector<std::function<void()>> ActsDuring(const char* function)
{
    std::vector<std::function<void()>> acts;
    for (auto& [owner, during] : g_during)
        if (during.first.Comes(function))
            acts.push_back(during.second);
    return acts;
}

// The code with which this call of the function fails, if it is one that does.
std::optional<int> Failure(const char* function)
{
    std::vector<std::function<void()>> acts;
    std::optional<int> code;
    {
        const std::lock_guard lock(g_mutex);
        g_refusedBytes = g_shortage.Comes(function) ? g_shortageBytes : 0;
        ++CountOf(g_counts, function);
        if (g_bRecording)
            g_recorded.emplace_back(function);
        acts = ActsDuring(function);
        for (auto& [owner, failing] : g_failing)
            if (failing.first.Comes(function))
                code = failing.second;
    }
    for (const auto& act : acts)
        act();
    return code;
}

template <class T>
T NoteCreation(const char* function, T result)
{
    const bool bSuccess = [&]
    {
        if constexpr (std::is_pointer_v<T>)
            return result != nullptr;
        else
            return result >= 0;
    }();
    const std::lock_guard lock(g_mutex);
    CountOf(g_created, function) += bSuccess;
    return result;
}

void NoteRelease(const char* function)
{
    std::vector<std::function<void()>> acts;
    {
        const std::lock_guard lock(g_mutex);
        ++CountOf(g_counts, function);
        g_releases.emplace_back(function);
        acts = ActsDuring(function);
    }
    for (const auto& act : acts)
        act();
}

} // namespace

FailingCall::FailingCall(const char* function, int code, int skip)
{
    const std::lock_guard lock(g_mutex);
    g_failing[this] = {{function, skip}, code};
}

FailingCall::~FailingCall()
{
    const std::lock_guard lock(g_mutex);
    g_failing.erase(this);
}

bool FailingCall::Happened() const
{
    const std::lock_guard lock(g_mutex);
    return g_failing.at(this).first.bCame;
}

DuringCall::DuringCall(const char* function, int skip, std::function<void()> act)
{
    const std::lock_guard lock(g_mutex);
    g_during[this] = {{function, skip}, std::move(act)};
}

DuringCall::~DuringCall()
{
    const std::lock_guard lock(g_mutex);
    g_during.erase(this);
}

ShortMemory::ShortMemory(const char* function, int skip, size_t bytes)
{
    const std::lock_guard lock(g_mutex);
    g_bRefused = false;
    g_shortageBytes = bytes;
    g_shortage = {function ? function : "", skip};
    g_refusedBytes = function ? 0 : bytes;
}

ShortMemory::~ShortMemory()
{
    const std::lock_guard lock(g_mutex);
    g_shortage = {};
    g_refusedBytes = 0;
}

bool ShortMemory::Happened() const
{
    return g_bRefused;
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

RecordedCalls::RecordedCalls()
{
    const std::lock_guard lock(g_mutex);
    g_recorded.clear();
    g_bRecording = true;
}

RecordedCalls::~RecordedCalls()
{
    const std::lock_guard lock(g_mutex);
    g_bRecording = false;
}

std::vector<std::string> RecordedCalls::All() const
{
    const std::lock_guard lock(g_mutex);
    return g_recorded;
}

void NoteCall(const std::string& what)
{
    const std::lock_guard lock(g_mutex);
    if (g_bRecording)
        g_recorded.push_back(what);
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
    return CountOf(g_counts, function.c_str());
}

std::map<std::string, int> Unreleased()
{
    const std::lock_guard lock(g_mutex);
    std::map<std::string, int> unreleased;
    for (const auto& [creator, releaser] : kCreators)
        unreleased[creator] = CountOf(g_created, creator) - CountOf(g_counts, releaser);
    return unreleased;
}

bool FailsHere(const char* function)
{
    return Failure(function).has_value();
}

// A function that fails with `failure`, in which `code` is the code of the failing call: its type,
// name, failure, parameters and arguments.
#define WRAP(type, name, failure, parameters, arguments)                                           \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters;                                                                 \
    type __wrap_##name parameters                                                                  \
    {                                                                                              \
        if (const std::optional<int> code = Failure(#name))                                        \
            return failure;                                                                        \
        return NoteCreation(#name, __real_##name arguments);                                       \
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
    WRAP(int, madvise, -1, (void* memory, size_t size, int advice), (memory, size, advice))
    WRAP(AVIOContext*, avio_alloc_context, nullptr,
         (unsigned char* buffer, int size, int bWrite, void* opaque,
          int (*read)(void*, uint8_t*, int), int (*write)(void*, uint8_t*, int),
          int64_t (*seek)(void*, int64_t, int)),
         (buffer, size, bWrite, opaque, read, write, seek))
    WRAP(AVFormatContext*, avformat_alloc_context, nullptr, (), ())
    WRAP(int, avformat_find_stream_info, *code, (AVFormatContext * format, AVDictionary** options),
         (format, options))
    WRAP(int, av_find_best_stream, *code,
         (AVFormatContext * format, AVMediaType type, int wanted, int related,
          const AVCodec** decoder, int flags),
         (format, type, wanted, related, decoder, flags))
    WRAP(const AVCodec*, avcodec_find_decoder, nullptr, (AVCodecID id), (id))
    WRAP(AVCodecContext*, avcodec_alloc_context3, nullptr, (const AVCodec* codec), (codec))
    WRAP(int, avcodec_parameters_to_context, *code,
         (AVCodecContext * codec, const AVCodecParameters* parameters), (codec, parameters))
    WRAP(int, avcodec_open2, *code,
         (AVCodecContext * context, const AVCodec* codec, AVDictionary** options),
         (context, codec, options))
    WRAP(int, swr_alloc_set_opts2, *code,
         (SwrContext * *swr, const AVChannelLayout* outLayout, AVSampleFormat outFormat,
          int outRate, const AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate,
          int logOffset, void* log),
         (swr, outLayout, outFormat, outRate, inLayout, inFormat, inRate, logOffset, log))
    WRAP(int, swr_init, *code, (SwrContext * swr), (swr))
    WRAP(int, swr_convert, *code,
         (SwrContext * swr, uint8_t** out, int outFrames, const uint8_t** in, int inFrames),
         (swr, out, outFrames, in, inFrames))
    WRAP(AVFrame*, av_frame_alloc, nullptr, (), ())
    WRAP(AVPacket*, av_packet_alloc, nullptr, (), ())
    WRAP(int, av_read_frame, *code, (AVFormatContext * format, AVPacket* packet), (format, packet))
    WRAP(int, avcodec_send_packet, *code, (AVCodecContext * codec, const AVPacket* packet),
         (codec, packet))
    WRAP(int, av_seek_frame, *code,
         (AVFormatContext * format, int stream, int64_t timestamp, int flags),
         (format, stream, timestamp, flags))
    WRAP(int, av_opt_get, *code, (void* object, const char* name, int flags, uint8_t** value),
         (object, name, flags, value))
    WRAP(locale_t, newlocale, nullptr, (int mask, const char* name, locale_t base),
         (mask, name, base))

    WRAP_RELEASE(av_packet_free, AVPacket)
    WRAP_RELEASE(av_frame_free, AVFrame)
    WRAP_RELEASE(swr_free, SwrContext)
    WRAP_RELEASE(avcodec_free_context, AVCodecContext)
    WRAP_RELEASE(avformat_close_input, AVFormatContext)

    int __real_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame);
    int __wrap_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame);
    int __wrap_avcodec_receive_frame(AVCodecContext* codec, AVFrame* frame)
    {
        if (const std::optional<int> code = Failure("avcodec_receive_frame"))
            return *code;
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
        const std::optional<int> code = Failure("avformat_open_input");
        if (!code)
            return NoteCreation("avformat_open_input",
                                __real_avformat_open_input(format, url, input, options));
        avformat_free_context(*format);
        *format = nullptr;
        return *code;
    }

    // Its failure leaves what the real one leaves where there is no memory for a copy of the
    // channels: a layout that promises channels and has none.
    int __real_av_channel_layout_copy(AVChannelLayout* to, const AVChannelLayout* from);
    int __wrap_av_channel_layout_copy(AVChannelLayout* to, const AVChannelLayout* from);
    int __wrap_av_channel_layout_copy(AVChannelLayout* to, const AVChannelLayout* from)
    {
        const std::optional<int> code = Failure("av_channel_layout_copy");
        if (!code)
            return __real_av_channel_layout_copy(to, from);
        av_channel_layout_uninit(to);
        *to = *from;
        to->order = AV_CHANNEL_ORDER_CUSTOM;
        to->u.map = nullptr;
        return *code;
    }

    // Not among the releases: it comes after a playback's end, when its worker ends.
    void __real_avio_context_free(AVIOContext** context);
    void __wrap_avio_context_free(AVIOContext** context);
    void __wrap_avio_context_free(AVIOContext** context)
    {
        {
            const std::lock_guard lock(g_mutex);
            ++CountOf(g_counts, "avio_context_free");
        }
        __real_avio_context_free(context);
    }

    // operator new(size_t)
    void* __real__Znwm(size_t size);
    void* __wrap__Znwm(size_t size);
    void* __wrap__Znwm(size_t size)
    {
        const size_t refused = g_refusedBytes;
        if (refused == 0 || size < refused)
            return __real__Znwm(size);
        g_refusedBytes = 0;
        g_bRefused = true;
        throw std::bad_alloc();
    }
}
