// Radio beyond plain HTTP: segments in a playlist, and encrypted connections.
#include "radio.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

extern char** environ;

using testing::ElementsAre;
using testing::StartsWith;

namespace
{

class Protocols : public Radio
{
};

// The openssl program as a server that sends the files of the test's directory as they are, on a
// port that the system chooses.
class TlsServer
{
public:
    TlsServer()
    {
        const std::string directory = Media::Directory();
        const std::string command =
            "cd '" + directory + "' && openssl req -x509 -newkey rsa:2048 -nodes -days 2 " +
            "-subj /CN=localhost -keyout key.pem -out cert.pem >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0)
            return;
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
        const char* arguments[] = {"openssl", "s_server", "-HTTP", "-accept", "127.0.0.1:0",
                                   "-cert",   "cert.pem", "-key",  "key.pem", nullptr};
        if (posix_spawnp(&process, "openssl", &actions, nullptr, const_cast<char**>(arguments),
                         environ) != 0)
            process = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        ReadPort(ends[0]);
        close(ends[0]);
    }
    ~TlsServer()
    {
        if (process <= 0)
            return;
        kill(process, SIGTERM);
        waitpid(process, nullptr, 0);
    }
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    bool IsUp() const { return !port.empty(); }
    std::string Url(const std::string& name) const
    {
        return "https://127.0.0.1:" + port + "/" + name;
    }

private:
    // Out of "ACCEPT 127.0.0.1:12345".
    void ReadPort(int from)
    {
        std::string said;
        pollfd polled{from, POLLIN, 0};
        char byte = 0;
        while (poll(&polled, 1, 5000) > 0 && read(from, &byte, 1) == 1)
        {
            said += byte;
            const size_t accept = said.find("ACCEPT ");
            if (byte == '\n' && accept != std::string::npos)
            {
                const size_t colon = said.rfind(':');
                port = said.substr(colon + 1, said.size() - colon - 2);
                return;
            }
        }
    }

    pid_t process = -1;
    std::string port;
};

bool HasOpenssl()
{
    return std::system("openssl version >/dev/null 2>&1") == 0;
}

} // namespace

TEST_F(Protocols, HlsPlaylistPlays)
{
    Media::MakeSeveral(
        "-f lavfi -i sine=d=1.8:r=48000 -ac 2 -c:a aac -hls_time 0.5 -hls_list_size 0 -f hls",
        "radio.m3u8");
    ScriptedServer radio(
        [](const std::string& request)
        {
            const size_t start = request.find('/') + 1;
            const std::string name = request.substr(start, request.find(' ', start) - start);
            if (!std::filesystem::exists(Media::Directory() / name))
                return NotFound();
            const bool bPlaylist = name.find(".m3u8") != std::string::npos;
            return Whole(Media::Read(Media::Directory() / name),
                         {bPlaylist ? "Content-Type: application/vnd.apple.mpegurl"
                                    : "Content-Type: video/mp2t"});
        });
    Play(radio.Url("/radio.m3u8"));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_EQ(reports.LastInfo().Codec, "aac");
    EXPECT_NEAR(static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate, 1.8, 0.1);
}

TEST_F(Protocols, HttpsPlaysWithASelfSignedCertificate)
{
    if (!HasOpenssl())
        GTEST_SKIP() << "the openssl program is not installed";
    const std::string wav = WavBytes(Seconds(1.0));
    Media::Write("stream", "HTTP/1.0 200 OK\r\nContent-Type: audio/x-wav\r\nicy-name: Secret\r\n"
                           "Content-Length: " +
                               std::to_string(wav.size()) + "\r\n\r\n" + wav);
    const TlsServer radio;
    ASSERT_TRUE(radio.IsUp());
    Play(radio.Url("stream"));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_EQ(reports.LastInfo().IcyName, "Secret");
    EXPECT_EQ(reports.LastInfo().ContentType, "audio/x-wav");
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(1.0)));
}

TEST_F(Protocols, LocalFileIsAStreamLikeAnyOther)
{
    Play(Media::Write("local.wav", WavBytes(Seconds(1.0))));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_EQ(reports.LastInfo().ContentType, "");
}
