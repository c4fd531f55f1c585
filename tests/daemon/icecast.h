// An Icecast server of a case's own, its administrator, and the sources that feed its mounts.
#pragma once

#include "harness.h"
#include "scripted_server.h"

#include <string>
#include <string_view>
#include <vector>

class IcecastServer
{
public:
    IcecastServer(); // returns when it answers
    ~IcecastServer();
    IcecastServer(const IcecastServer&) = delete;
    IcecastServer& operator=(const IcecastServer&) = delete;

    int Port() const { return m_port; }
    std::string Url(const std::string& mount) const;

    // What the administrator does. The title's bytes go out as they are.
    bool HasMount(const std::string& mount) const;
    void SetTitle(const std::string& mount, const std::string& title) const;

private:
    std::string AskAsAdministrator(const std::string& path) const;

    ChildProcess m_process;
    int m_port = 0;
};

constexpr int kToneHz = 1000;
constexpr int kToneRate = 44100;

// The tone as an input of the ffmpeg program, endless where no seconds are given.
std::vector<std::string> ToneInput(int rate, int seconds = 0);

// The ffmpeg program as the source of an endless tone, in real time. The arguments choose codec,
// container and what the station tells of itself.
class ToneSource
{
public:
    // Returns when the mount is there.
    ToneSource(const IcecastServer& server, const std::string& mount,
               const std::vector<std::string>& arguments);

    // Goes away without a word to the server, and returns when the mount is gone.
    void Drop();

private:
    const IcecastServer& m_server;
    std::string m_mount;
    ChildProcess m_process;
};

// A source that sends what the test hands it, at once. It ends with the object.
class HandSource
{
public:
    // Each header with its line's end. Returns when the server has accepted it.
    HandSource(const IcecastServer& server, const std::string& mount,
               const std::string& contentType, const std::string& headers = "");

    void Send(std::string_view bytes);

private:
    Descriptor m_socket;
};
