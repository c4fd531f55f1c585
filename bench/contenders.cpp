#include "contenders.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int kStartPatienceMs = 10000;

constexpr const char* kTone = "0.4*sin(2*PI*1000*t)+0.1*(random(0)-0.5)";

} // namespace

ResidentMpv::ResidentMpv()
{
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        throw std::runtime_error("no socket");
    m_socket = sockets[0];
    try
    {
        m_process = std::make_unique<ChildProcess>(
            Arguments{"mpv", "--idle", "--no-config", "--no-video", "--no-terminal",
                      "--ao=pipewire",
                      "--input-ipc-client=fd://" + std::to_string(ChildProcess::kPassedFd)},
            sockets[1]);
    }
    catch (...)
    {
        close(sockets[0]);
        close(sockets[1]);
        throw;
    }
    close(sockets[1]);
    Tell(R"(["get_property", "idle-active"])");
    pollfd answer{m_socket, POLLIN, 0};
    poll(&answer, 1, kStartPatienceMs);
}

ResidentMpv::~ResidentMpv()
{
    close(m_socket); // mpv ends with its only client
}

void ResidentMpv::PlayFile(const std::string& path)
{
    Tell(R"(["loadfile", ")" + path + R"("])");
}

void ResidentMpv::Seek(double seconds)
{
    Tell(R"(["seek", )" + std::to_string(seconds) + R"(, "absolute"])");
}

void ResidentMpv::SetPaused(bool bPaused)
{
    Tell(std::string(R"(["set_property", "pause", )") + (bPaused ? "true]" : "false]"));
}

void ResidentMpv::Stop()
{
    Tell(R"(["stop"])");
}

void ResidentMpv::Tell(const std::string& command)
{
    DropAnswers();
    const std::string line = R"({"command": )" + command + "}\n";
    if (send(m_socket, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("mpv has ended");
}

// Answers and events that nobody reads would fill the socket in the end.
void ResidentMpv::DropAnswers()
{
    char answers[4096];
    while (recv(m_socket, answers, sizeof answers, MSG_DONTWAIT) > 0)
    {
    }
}

Arguments CommandOf(const std::string& program, const std::string& path)
{
    if (program == "tovrel-play")
        return {TOVREL_PLAY, path};
    if (program == "bare")
        return {TOVREL_BARE_STREAM};
    if (program == "mpv")
        return {"mpv", "--no-config", "--no-video", "--no-terminal", "--ao=pipewire", path};
    if (program == "ffplay")
        return {"ffplay", "-nodisp", "-autoexit", "-loglevel", "error", path};
    if (program == "gstreamer")
        return {"gst-launch-1.0",
                "-q",
                "filesrc",
                "location=" + path,
                "!",
                "decodebin",
                "!",
                "audioconvert",
                "!",
                "audioresample",
                "!",
                "pipewiresink"};
    return {program, "-p", path};
}

std::string Media::FilePath(const std::string& format)
{
    const std::string path = m_directory.File("tone." + format);
    if (std::filesystem::exists(path))
        return path;
    if (format == "wav")
    {
        const std::string half = std::to_string(kMediaSeconds / 2.0);
        const std::string tone(kTone);
        RunFfmpeg({"-f", "lavfi", "-i",
                   "aevalsrc='(" + tone + ")*lt(t," + half + ")|(" + tone + ")*gte(t," + half +
                       ")':s=48000:d=" + std::to_string(kMediaSeconds),
                   "-c:a", "pcm_s16le", path});
    }
    else
    {
        RunFfmpeg({"-i", FilePath("wav"), "-b:a", "192k", path});
    }
    return path;
}

const std::string& Media::Radio(const std::string& format)
{
    std::string& bytes = m_radio[format];
    if (!bytes.empty())
        return bytes;
    const std::string path = m_directory.File("radio." + format);
    Arguments arguments = {"-t",  std::to_string(kRadioSeconds), "-i", FilePath("wav"), "-b:a",
                           "128k"};
    // A radio has no head with the number of frames.
    if (format == "mp3")
        arguments.insert(arguments.end(), {"-write_xing", "0", "-id3v2_version", "0"});
    else
        arguments.insert(arguments.end(), {"-f", format == "aac" ? "adts" : "ogg"});
    arguments.push_back(path);
    RunFfmpeg(arguments);
    std::ifstream file(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    return bytes;
}
