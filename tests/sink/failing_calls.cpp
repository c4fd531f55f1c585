#include "failing_calls.h"

#include "pipewire_player.h"

#include <pipewire/pipewire.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <pthread.h>

namespace
{

// Allocations are counted before any constructor of this file could run, and on real-time threads:
// no more than atomics, whose first values are constants.
struct Call
{
    const char* name;
    std::atomic<int> calls{0};
    std::atomic<int> seen{0}; // since some of them fail
    std::atomic<int> skip{0};
    std::atomic<int> every{1};
    std::atomic<int> left{0}; // to fail
    std::atomic<int> failed{0};
};

constinit Call g_calls[] = {
    {kAllocation},
    {kStreamError},
    {kZeroRate},
    {"dlopen"},
    {"pthread_mutexattr_init"},
    {"pthread_mutexattr_setprotocol"},
    {"pthread_mutex_init"},
    {"pw_context_connect"},
    {"pw_context_new"},
    {"pw_loop_add_timer"},
    {"pw_loop_invoke"},
    {"pw_properties_new"},
    {"pw_properties_setf"},
    {"pw_stream_connect"},
    {"pw_stream_dequeue_buffer"},
    {"pw_stream_flush"},
    {"pw_stream_get_time_n"},
    {"pw_stream_new"},
    {"pw_stream_set_active"},
    {"pw_thread_loop_get_time"},
    {"pw_thread_loop_new"},
    {"pw_thread_loop_start"},
    {"pw_thread_loop_timed_wait_full"},
};

std::atomic<const char*> g_version{nullptr};
std::atomic<pw_stream*> g_stream{nullptr}; // the sink's latest
std::atomic<int> g_silentBuffers{0};
std::atomic<bool> g_bSound{false};
thread_local bool t_bAllocatesForSink = false;

Call& Find(const char* name)
{
    Call* found = std::find_if(std::begin(g_calls), std::end(g_calls),
                               [&](const Call& call) { return std::strcmp(call.name, name) == 0; });
    if (found == std::end(g_calls))
        std::abort();
    return *found;
}

// Whether this call of the function is one that fails.
bool Fails(const char* name)
{
    Call& call = Find(name);
    ++call.calls;
    if (call.left == 0)
        return false;
    const int behind = call.seen++ - call.skip;
    if (behind < 0 || behind % call.every != 0)
        return false;
    --call.left;
    ++call.failed;
    return true;
}

// Tests record with streams of their own, on which nothing fails.
bool IsOfSink(pw_stream* stream)
{
    return std::strcmp(pw_stream_get_name(stream), "Tovrel playback") == 0;
}

bool IsSilent(const pw_buffer& buffer)
{
    const spa_data& data = buffer.buffer->datas[0];
    const auto* bytes = static_cast<const uint8_t*>(data.data);
    return std::all_of(bytes, bytes + data.chunk->size, [](uint8_t byte) { return byte == 0; });
}

class AllocatingForSink
{
public:
    AllocatingForSink() { t_bAllocatesForSink = true; }
    ~AllocatingForSink() { t_bAllocatesForSink = false; }
    AllocatingForSink(const AllocatingForSink&) = delete;
    AllocatingForSink& operator=(const AllocatingForSink&) = delete;
};

} // namespace

FailingCalls::FailingCalls(const char* function, int skip, int count, int every) :
    m_function(function)
{
    Call& call = Find(function);
    call.seen = 0;
    call.skip = skip;
    call.every = every;
    call.failed = 0;
    call.left = count;
}

FailingCalls::~FailingCalls()
{
    Find(m_function).left = 0;
}

int FailingCalls::Failed() const
{
    return Find(m_function).failed;
}

int CallCount(const char* function)
{
    return Find(function).calls;
}

OtherLibraryVersion::OtherLibraryVersion(const char* version)
{
    g_version = version;
}

OtherLibraryVersion::~OtherLibraryVersion()
{
    g_version = nullptr;
}

int SilentBuffersBeforeSound()
{
    return g_silentBuffers;
}

// A function that fails with `failure`: its type, name, failure, parameters and arguments.
#define WRAP(type, name, failure, parameters, arguments)                                           \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters;                                                                 \
    type __wrap_##name parameters                                                                  \
    {                                                                                              \
        return Fails(#name) ? failure : __real_##name arguments;                                   \
    }

// The same of a call on the data thread, which fails for the sink's stream only.
#define WRAP_STREAM(type, name, failure, parameters, arguments)                                    \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters;                                                                 \
    type __wrap_##name parameters                                                                  \
    {                                                                                              \
        return IsOfSink(stream) && Fails(#name) ? failure : __real_##name arguments;               \
    }

extern "C"
{

    WRAP(void*, dlopen, nullptr, (const char* file, int mode), (file, mode))
    WRAP(int, pthread_mutexattr_init, ENOMEM, (pthread_mutexattr_t * attributes), (attributes))
    WRAP(int, pthread_mutexattr_setprotocol, ENOTSUP,
         (pthread_mutexattr_t * attributes, int protocol), (attributes, protocol))
    WRAP(int, pthread_mutex_init, EAGAIN,
         (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes))

    WRAP(pw_thread_loop*, pw_thread_loop_new, nullptr, (const char* name, const spa_dict* options),
         (name, options))
    WRAP(int, pw_thread_loop_start, -EAGAIN, (pw_thread_loop * loop), (loop))
    WRAP(int, pw_thread_loop_get_time, -EINVAL,
         (pw_thread_loop * loop, timespec* time, int64_t timeout), (loop, time, timeout))
    WRAP(pw_core*, pw_context_connect, nullptr,
         (pw_context * context, pw_properties* properties, size_t userDataSize),
         (context, properties, userDataSize))
    WRAP(int, pw_stream_connect, -EIO,
         (pw_stream * stream, pw_direction direction, uint32_t target, pw_stream_flags flags,
          const spa_pod** params, uint32_t count),
         (stream, direction, target, flags, params, count))
    WRAP(int, pw_stream_set_active, -EIO, (pw_stream * stream, bool bActive), (stream, bActive))
    WRAP(int, pw_stream_flush, -EIO, (pw_stream * stream, bool bDrain), (stream, bDrain))
    WRAP_STREAM(pw_buffer*, pw_stream_dequeue_buffer, nullptr, (pw_stream * stream), (stream))

    // Both let go of the properties when they fail.
    pw_context* __real_pw_context_new(pw_loop* loop, pw_properties* properties, size_t size);
    pw_context* __wrap_pw_context_new(pw_loop* loop, pw_properties* properties, size_t size);
    pw_context* __wrap_pw_context_new(pw_loop* loop, pw_properties* properties, size_t size)
    {
        if (!Fails("pw_context_new"))
            return __real_pw_context_new(loop, properties, size);
        pw_properties_free(properties);
        return nullptr;
    }

    pw_stream* __real_pw_stream_new(pw_core* core, const char* name, pw_properties* properties);
    pw_stream* __wrap_pw_stream_new(pw_core* core, const char* name, pw_properties* properties);
    pw_stream* __wrap_pw_stream_new(pw_core* core, const char* name, pw_properties* properties)
    {
        if (Fails("pw_stream_new"))
        {
            pw_properties_free(properties);
            return nullptr;
        }
        pw_stream* stream = __real_pw_stream_new(core, name, properties);
        if (!IsOfSink(stream))
            return stream;
        g_stream = stream;
        g_silentBuffers = 0;
        g_bSound = false;
        return stream;
    }

    pw_properties* __real_pw_properties_new(const char* key, ...);
    pw_properties* __wrap_pw_properties_new(const char* key, ...);
    pw_properties* __wrap_pw_properties_new(const char* key, ...)
    {
        if (Fails("pw_properties_new"))
            return nullptr;
        pw_properties* properties = __real_pw_properties_new(nullptr, nullptr);
        va_list pairs;
        va_start(pairs, key);
        for (const char* next = key; next; next = va_arg(pairs, const char*))
            pw_properties_set(properties, next, va_arg(pairs, const char*));
        va_end(pairs);
        return properties;
    }

    int __wrap_pw_properties_setf(pw_properties* properties, const char* key, const char* format,
                                  ...);
    int __wrap_pw_properties_setf(pw_properties* properties, const char* key, const char* format,
                                  ...)
    {
        if (Fails("pw_properties_setf"))
            return -ENOMEM;
        va_list values;
        va_start(values, format);
        const int changed = pw_properties_setva(properties, key, format, values);
        va_end(values);
        return changed;
    }

    // The operations of a loop are called through its tables: a failing one is not in them.
    pw_loop* __real_pw_thread_loop_get_loop(pw_thread_loop* loop);
    pw_loop* __wrap_pw_thread_loop_get_loop(pw_thread_loop* loop);
    pw_loop* __wrap_pw_thread_loop_get_loop(pw_thread_loop* loop)
    {
        pw_loop* real = __real_pw_thread_loop_get_loop(loop);
        if (!Fails("pw_loop_add_timer"))
            return real;
        static constexpr spa_loop_utils_methods kNone{};
        static spa_loop_utils utils{};
        static pw_loop lame;
        utils.iface.cb.funcs = &kNone;
        lame = *real;
        lame.utils = &utils;
        return &lame;
    }

    namespace
    {
    pw_loop* WithoutInvoke(const pw_loop* real)
    {
        static constexpr spa_loop_methods kNone{};
        static spa_loop loop{};
        static pw_loop lame;
        loop.iface.cb.funcs = &kNone;
        lame = *real;
        lame.loop = &loop;
        return &lame;
    }
    } // namespace

#if PW_CHECK_VERSION(1, 1, 0)
    pw_loop* __real_pw_stream_get_data_loop(pw_stream* stream);
    pw_loop* __wrap_pw_stream_get_data_loop(pw_stream* stream);
    pw_loop* __wrap_pw_stream_get_data_loop(pw_stream* stream)
    {
        pw_loop* real = __real_pw_stream_get_data_loop(stream);
        return Fails("pw_loop_invoke") ? WithoutInvoke(real) : real;
    }
#else
    pw_loop* __real_pw_data_loop_get_loop(pw_data_loop* loop);
    pw_loop* __wrap_pw_data_loop_get_loop(pw_data_loop* loop);
    pw_loop* __wrap_pw_data_loop_get_loop(pw_data_loop* loop)
    {
        pw_loop* real = __real_pw_data_loop_get_loop(loop);
        return Fails("pw_loop_invoke") ? WithoutInvoke(real) : real;
    }
#endif

    int __real_pw_thread_loop_timed_wait_full(pw_thread_loop* loop, const timespec* deadline);
    int __wrap_pw_thread_loop_timed_wait_full(pw_thread_loop* loop, const timespec* deadline);
    int __wrap_pw_thread_loop_timed_wait_full(pw_thread_loop* loop, const timespec* deadline)
    {
        if (Fails("pw_thread_loop_timed_wait_full"))
            return -ETIMEDOUT;
        if (!Fails(kStreamError))
            return __real_pw_thread_loop_timed_wait_full(loop, deadline);
        pw_stream_set_error(g_stream, -EPERM, "refused by a test");
        return 0;
    }

    int __real_pw_stream_get_time_n(pw_stream* stream, pw_time* time, size_t size);
    int __wrap_pw_stream_get_time_n(pw_stream* stream, pw_time* time, size_t size);
    int __wrap_pw_stream_get_time_n(pw_stream* stream, pw_time* time, size_t size)
    {
        if (IsOfSink(stream) && Fails("pw_stream_get_time_n"))
            return -EIO;
        const int rc = __real_pw_stream_get_time_n(stream, time, size);
        if (IsOfSink(stream) && Fails(kZeroRate))
            time->rate = {0, 0};
        return rc;
    }

    int __real_pw_stream_queue_buffer(pw_stream* stream, pw_buffer* buffer);
    int __wrap_pw_stream_queue_buffer(pw_stream* stream, pw_buffer* buffer);
    int __wrap_pw_stream_queue_buffer(pw_stream* stream, pw_buffer* buffer)
    {
        if (IsOfSink(stream) && !g_bSound)
        {
            g_bSound = !IsSilent(*buffer);
            g_silentBuffers += g_bSound ? 0 : 1;
        }
        return __real_pw_stream_queue_buffer(stream, buffer);
    }

    const char* __real_pw_get_library_version();
    const char* __wrap_pw_get_library_version();
    const char* __wrap_pw_get_library_version()
    {
        const char* version = g_version;
        return version ? version : __real_pw_get_library_version();
    }

    // operator new, PipeWirePlayer::Init and PipeWirePlayer::PushBytes, as the linker knows them.
    void* __real__Znwm(size_t size);
    void* __wrap__Znwm(size_t size);
    void* __wrap__Znwm(size_t size)
    {
        if (t_bAllocatesForSink && Fails(kAllocation))
            throw std::bad_alloc();
        return __real__Znwm(size);
    }

    bool __real__ZN14PipeWirePlayer4InitEii(PipeWirePlayer* sink, int sampleRate, int channels);
    bool __wrap__ZN14PipeWirePlayer4InitEii(PipeWirePlayer* sink, int sampleRate, int channels);
    bool __wrap__ZN14PipeWirePlayer4InitEii(PipeWirePlayer* sink, int sampleRate, int channels)
    {
        const AllocatingForSink allocating;
        return __real__ZN14PipeWirePlayer4InitEii(sink, sampleRate, channels);
    }

    void __real__ZN14PipeWirePlayer9PushBytesEPKhm(PipeWirePlayer* sink, const uint8_t* data,
                                                   size_t size);
    void __wrap__ZN14PipeWirePlayer9PushBytesEPKhm(PipeWirePlayer* sink, const uint8_t* data,
                                                   size_t size);
    void __wrap__ZN14PipeWirePlayer9PushBytesEPKhm(PipeWirePlayer* sink, const uint8_t* data,
                                                   size_t size)
    {
        const AllocatingForSink allocating;
        __real__ZN14PipeWirePlayer9PushBytesEPKhm(sink, data, size);
    }
}
