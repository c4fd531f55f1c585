#include "process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace
{

constexpr int kEndPatienceMs = 1000;

} // namespace

bool IsInstalled(const std::string& program)
{
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');)
    {
        if (access((directory + '/' + program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

ChildProcess::ChildProcess(const Arguments& arguments, int passedFd)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    if (passedFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, passedFd, kPassedFd);
    const int rc = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc == ENOENT)
        throw NotInstalled(arguments[0]);
    if (rc != 0)
        throw std::runtime_error("cannot start " + arguments[0]);
}

ChildProcess::~ChildProcess()
{
    if (HasEnded())
        return;
    kill(m_pid, SIGTERM);
    for (int waitedMs = 0; waitedMs < kEndPatienceMs && !HasEnded(); ++waitedMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!HasEnded())
        End(SIGKILL);
}

bool ChildProcess::HasEnded()
{
    if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == m_pid)
        m_pid = -1;
    return m_pid < 0;
}

void ChildProcess::End(int signal)
{
    if (m_pid > 0)
        kill(m_pid, signal);
    Wait();
}

double ChildProcess::CpuSeconds() const
{
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(m_pid, &clock) != 0 || clock_gettime(clock, &time) != 0)
        return 0.0;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

bool ChildProcess::Wait(rusage* usage)
{
    int status = -1;
    const bool bEnded = m_pid > 0 && wait4(m_pid, &status, 0, usage) == m_pid;
    m_pid = -1;
    return bEnded && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void RunFfmpeg(Arguments arguments)
{
    arguments.insert(arguments.begin(), {"ffmpeg", "-nostdin", "-y"});
    if (!ChildProcess(arguments).Wait())
        throw std::runtime_error("ffmpeg cannot make " + arguments.back());
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string path = std::filesystem::temp_directory_path() / "tovrel-bench.XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("no temporary directory");
    m_path = path;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}
