#pragma once

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>
#include <unistd.h>

// Signals as something to poll. They are blocked in every thread that is started later.
class Signals
{
public:
    Signals()
    {
        sigemptyset(&m_set);
        for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGCONT})
            sigaddset(&m_set, signal);
        struct sigaction hangup;
        sigaction(SIGHUP, nullptr, &hangup);
        if (hangup.sa_handler != SIG_IGN) // as nohup leaves it
            sigaddset(&m_set, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
        m_descriptor = signalfd(-1, &m_set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~Signals() { close(m_descriptor); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int Descriptor() const { return m_descriptor; }

    // 0 when there is none.
    int Next()
    {
        signalfd_siginfo info{};
        return read(m_descriptor, &info, sizeof info) == sizeof info
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

    // Stops this process as Ctrl-Z does where nobody catches it: not at all where nobody could
    // make it go on. Returns when it goes on.
    static void StopProcess()
    {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTSTP);
        std::raise(SIGTSTP);
        pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
        pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    }

private:
    sigset_t m_set{};
    int m_descriptor = -1;
};
