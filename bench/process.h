// The programs that the benchmarks run, and where they keep what they make.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

using Arguments = std::vector<std::string>;

bool IsInstalled(const std::string& program);

class NotInstalled : public std::runtime_error
{
public:
    explicit NotInstalled(const std::string& program) :
        std::runtime_error(program + " is not installed")
    {
    }
};

// A program without input, whose output nobody sees. Ends with the object.
class ChildProcess
{
public:
    // Starts a program from the search path; `passedFd`, where given, is the number `kPassedFd`
    // there.
    explicit ChildProcess(const Arguments& arguments, int passedFd = -1);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    static constexpr int kPassedFd = 3;

    pid_t Id() const { return m_pid; }
    bool HasEnded();
    void End(int signal);

    // The processor time that it has taken so far, in seconds, with that of threads that have
    // ended.
    double CpuSeconds() const;

    // Whether it has ended as programs do that have done what they should. `usage`, where given,
    // is what it took.
    bool Wait(rusage* usage = nullptr);

private:
    pid_t m_pid = -1;
};

// Makes a file, the last of the arguments, with the ffmpeg program.
void RunFfmpeg(Arguments arguments);

// Goes with all that is in it.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string File(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};
