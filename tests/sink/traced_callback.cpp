// This file is compiled without sanitizers: its functions stand before theirs and are called
// before they are ready.
#include "traced_callback.h"

#include <pipewire/pipewire.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <ostream>
#include <poll.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

std::atomic<int> g_callbacks{0};
std::atomic<int> g_allocations{0};
std::atomic<int> g_releases{0};
std::atomic<int> g_ownLocks{0};
std::atomic<int> g_contendedLocks{0};
std::atomic<int> g_foreignLocks{0};
std::atomic<int> g_waits{0};
std::atomic<pthread_mutex_t*> g_mutexOfSink{nullptr};
std::atomic<void (*)(void*)> g_process{nullptr};

// The sink whose callback runs on this thread.
thread_local constinit const PipeWirePlayer* t_sink = nullptr;

void Count(std::atomic<int>& counter)
{
    if (t_sink)
        ++counter;
}

bool IsWithinSink(const volatile void* object)
{
    const auto address = reinterpret_cast<uintptr_t>(object);
    const auto sink = reinterpret_cast<uintptr_t>(t_sink);
    return t_sink && address >= sink && address < sink + sizeof *t_sink;
}

void CountLock(const volatile void* lock)
{
    Count(IsWithinSink(lock) ? g_ownLocks : g_foreignLocks);
}

// The function that this program's one stands before.
template <class Function>
Function* Next(std::atomic<Function*>& known, const char* name)
{
    Function* function = known;
    if (!function)
        known = function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    return function;
}

void OnTracedProcess(void* sink)
{
    const TracedRegion region(*static_cast<const PipeWirePlayer*>(sink));
    ++g_callbacks;
    g_process.load()(sink);
}

} // namespace

std::ostream& operator<<(std::ostream& out, const Trace& trace)
{
    return out << trace.callbacks << " callbacks: " << trace.allocations << " allocations, "
               << trace.releases << " releases, " << trace.ownLocks
               << " locks of the sink's mutex, " << trace.contendedLocks << " of them contended, "
               << trace.foreignLocks << " other locks, " << trace.waits << " waits";
}

Trace TraceUntilNow()
{
    return {g_callbacks,      g_allocations,  g_releases, g_ownLocks,
            g_contendedLocks, g_foreignLocks, g_waits};
}

pthread_mutex_t* MutexOfSink()
{
    return g_mutexOfSink;
}

TracedRegion::TracedRegion(const PipeWirePlayer& sink)
{
    t_sink = &sink;
}

TracedRegion::~TracedRegion()
{
    t_sink = nullptr;
}

#ifdef TOVREL_SANITIZED

// Of the sanitizers' run time, whose header not every compiler brings.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onAllocation)(const volatile void*,
                                                                              size_t),
                                                         void (*onRelease)(const volatile void*));

namespace
{

// The allocator is the sanitizer's, which tells what it is asked for.
[[maybe_unused]] const int kInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { Count(g_allocations); },
    [](const volatile void*) { Count(g_releases); });

} // namespace

#else

extern "C"
{

    void* __libc_malloc(size_t size);
    void* __libc_calloc(size_t count, size_t size);
    void* __libc_realloc(void* memory, size_t size);
    void* __libc_memalign(size_t alignment, size_t size);
    void __libc_free(void* memory);

    void* malloc(size_t size) noexcept
    {
        Count(g_allocations);
        return __libc_malloc(size);
    }

    void* calloc(size_t count, size_t size) noexcept
    {
        Count(g_allocations);
        return __libc_calloc(count, size);
    }

    void* realloc(void* memory, size_t size) noexcept
    {
        Count(g_allocations);
        return __libc_realloc(memory, size);
    }

    void* memalign(size_t alignment, size_t size) noexcept
    {
        Count(g_allocations);
        return __libc_memalign(alignment, size);
    }

    void* aligned_alloc(size_t alignment, size_t size) noexcept
    {
        return memalign(alignment, size);
    }

    int posix_memalign(void** memory, size_t alignment, size_t size) noexcept
    {
        void* allocated = memalign(alignment, size);
        if (!allocated)
            return ENOMEM;
        *memory = allocated;
        return 0;
    }

    void free(void* memory) noexcept
    {
        if (memory)
            Count(g_releases);
        __libc_free(memory);
    }
}

#endif

// A function that locks or waits: its type, name, parameters and arguments, and how it counts.
#define INTERPOSE(type, name, parameters, arguments, count)                                        \
    type name parameters                                                                           \
    {                                                                                              \
        static constinit std::atomic<type(*) parameters> known{nullptr};                           \
        count;                                                                                     \
        return Next(known, #name) arguments;                                                       \
    }

#define LOCK(name, type) INTERPOSE(int, name, (type * lock) noexcept, (lock), CountLock(lock))
#define TIMED_LOCK(name, type)                                                                     \
    INTERPOSE(int, name, (type * lock, const timespec* time) noexcept, (lock, time),               \
              CountLock(lock))
#define WAIT(type, name, parameters, arguments)                                                    \
    INTERPOSE(type, name, parameters, arguments, Count(g_waits))

extern "C"
{

    int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
    {
        static constinit std::atomic<int (*)(pthread_mutex_t*)> known{nullptr};
        static constinit std::atomic<int (*)(pthread_mutex_t*)> knownTry{nullptr};
        CountLock(mutex);
        if (IsWithinSink(mutex))
            g_mutexOfSink = mutex;
        if (t_sink && Next(knownTry, "pthread_mutex_trylock")(mutex) == 0)
            return 0;
        Count(g_contendedLocks);
        return Next(known, "pthread_mutex_lock")(mutex);
    }

    LOCK(pthread_mutex_trylock, pthread_mutex_t)
    TIMED_LOCK(pthread_mutex_timedlock, pthread_mutex_t)
    INTERPOSE(int, pthread_mutex_clocklock,
              (pthread_mutex_t * lock, clockid_t clock, const timespec* time) noexcept,
              (lock, clock, time), CountLock(lock))
    LOCK(pthread_rwlock_rdlock, pthread_rwlock_t)
    LOCK(pthread_rwlock_wrlock, pthread_rwlock_t)
    TIMED_LOCK(pthread_rwlock_timedrdlock, pthread_rwlock_t)
    TIMED_LOCK(pthread_rwlock_timedwrlock, pthread_rwlock_t)
    INTERPOSE(int, pthread_spin_lock, (pthread_spinlock_t * lock) noexcept, (lock), CountLock(lock))

    WAIT(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
         (condition, mutex))
    WAIT(int, pthread_cond_timedwait,
         (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* time),
         (condition, mutex, time))
    WAIT(int, pthread_cond_clockwait,
         (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock,
          const timespec* time),
         (condition, mutex, clock, time))
    WAIT(int, sem_wait, (sem_t * semaphore), (semaphore))
    WAIT(int, sem_timedwait, (sem_t * semaphore, const timespec* time), (semaphore, time))
    WAIT(int, nanosleep, (const timespec* time, timespec* left), (time, left))
    WAIT(int, clock_nanosleep, (clockid_t clock, int flags, const timespec* time, timespec* left),
         (clock, flags, time, left))
    WAIT(int, poll, (pollfd * files, nfds_t count, int milliseconds), (files, count, milliseconds))
    WAIT(ssize_t, read, (int file, void* bytes, size_t size), (file, bytes, size))
    WAIT(ssize_t, write, (int file, const void* bytes, size_t size), (file, bytes, size))

    // Whatever waits for a futex by itself.
    long syscall(long number, ...) noexcept
    {
        static constinit std::atomic<long (*)(long, ...)> known{nullptr};
        Count(g_waits);
        va_list values;
        va_start(values, number);
        long arguments[6];
        for (long& argument : arguments)
            argument = va_arg(values, long);
        va_end(values);
        return Next(known, "syscall")(number, arguments[0], arguments[1], arguments[2],
                                      arguments[3], arguments[4], arguments[5]);
    }

    // The sink's stream calls its callback through a traced region, on a copy of its events.
    void __real_pw_stream_add_listener(pw_stream* stream, spa_hook* listener,
                                       const pw_stream_events* events, void* data);
    void __wrap_pw_stream_add_listener(pw_stream* stream, spa_hook* listener,
                                       const pw_stream_events* events, void* data);
    void __wrap_pw_stream_add_listener(pw_stream* stream, spa_hook* listener,
                                       const pw_stream_events* events, void* data)
    {
        static pw_stream_events traced;
        traced = *events;
        g_process = events->process;
        traced.process = OnTracedProcess;
        __real_pw_stream_add_listener(stream, listener, &traced, data);
    }
}
