#include "scripted_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace
{

constexpr int kForever = -1; // of poll
constexpr size_t kMetadataUnit = 16;
constexpr int kPacesPerSecond = 50;

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int NewSocket(int flags = 0)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (fd < 0)
        throw std::runtime_error("no socket");
    return fd;
}

// Binds to a port that the system chooses, and returns it.
int Bind(int fd)
{
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("no port");
    return ntohs(address.sin_port);
}

std::string UrlOf(int port, const std::string& path)
{
    return "http://127.0.0.1:" + std::to_string(port) + path;
}

std::function<Script(const std::string&)> InTurn(std::vector<Script> scripts)
{
    return [left = std::move(scripts), next = size_t{0}](const std::string&) mutable
    {
        return left[std::min(next++, left.size() - 1)];
    };
}

} // namespace

void Descriptor::Close()
{
    if (fd >= 0)
        close(std::exchange(fd, -1));
}

bool Connection::Ready(short events, int milliseconds)
{
    std::array<pollfd, 2> polled{{{client.Number(), events, 0}, {stop, POLLIN, 0}}};
    while (!bEnded)
    {
        const int ready = poll(polled.data(), polled.size(), milliseconds);
        if (ready < 0 && errno == EINTR)
            continue;
        bEnded = ready < 0 || polled[1].revents || (polled[0].revents & ~(POLLIN | POLLOUT));
        return !bEnded && polled[0].revents;
    }
    return false;
}

bool Connection::ReadRequest()
{
    while (request.find("\r\n\r\n") == std::string::npos)
    {
        char buffer[4096];
        const ssize_t size =
            Ready(POLLIN, kForever) ? recv(client.Number(), buffer, sizeof buffer, 0) : 0;
        if (size <= 0)
            return false;
        request.append(buffer, static_cast<size_t>(size));
    }
    return true;
}

bool Connection::Send(std::string_view bytes)
{
    while (!bytes.empty())
    {
        if (!Ready(POLLOUT, kForever))
            return false;
        const ssize_t sent =
            send(client.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN)
            bEnded = true;
        if (sent > 0)
            bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return !bEnded;
}

void Connection::SendPaced(std::string_view bytes, size_t bytesPerSecond)
{
    const size_t piece = std::max<size_t>(bytesPerSecond / kPacesPerSecond, 1);
    while (!bytes.empty() && Send(bytes.substr(0, piece)))
    {
        bytes.remove_prefix(std::min(piece, bytes.size()));
        Wait(std::chrono::milliseconds(1000 / kPacesPerSecond));
    }
}

void Connection::Wait(std::chrono::milliseconds time)
{
    Ready(POLLRDHUP, static_cast<int>(time.count()));
}

void Connection::WaitUntil(const std::function<bool()>& bDone)
{
    while (!bDone() && !bEnded)
        Wait(std::chrono::milliseconds(1));
}

void Connection::WaitForHangUp()
{
    Ready(POLLRDHUP, kForever);
}

void Connection::Reset()
{
    const linger none{1, 0};
    setsockopt(client.Number(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    bEnded = true;
}

void Connection::StopListening()
{
    shutdown(listener, SHUT_RDWR);
}

Step Reply(const std::string& status, const std::vector<std::string>& headers)
{
    std::string head = status + "\r\n";
    for (const std::string& header : headers)
        head += header + "\r\n";
    return Send(head + "\r\n");
}

Step Send(const std::string& bytes)
{
    return [bytes](Connection& connection)
    {
        connection.Send(bytes);
    };
}

Step SendPaced(const std::string& bytes, size_t bytesPerSecond)
{
    return [=](Connection& connection)
    {
        connection.SendPaced(bytes, bytesPerSecond);
    };
}

Step SilenceUntil(const std::function<bool()>& bDone)
{
    return [bDone](Connection& connection)
    {
        connection.WaitUntil(bDone);
    };
}

Step Stall()
{
    return [](Connection& connection)
    {
        connection.WaitForHangUp();
    };
}

Step Reset()
{
    return [](Connection& connection)
    {
        connection.Reset();
    };
}

Step StopListening()
{
    return [](Connection& connection)
    {
        connection.StopListening();
    };
}

Script NotFound()
{
    return {Reply("HTTP/1.0 404 Not Found")};
}

Script Redirect(const std::string& url)
{
    return {Reply("HTTP/1.1 302 Found", {"Location: " + url, "Content-Length: 0"})};
}

Script Whole(const std::string& bytes, const std::vector<std::string>& headers)
{
    std::vector<std::string> all = headers;
    all.push_back("Content-Length: " + std::to_string(bytes.size()));
    return {Reply("HTTP/1.0 200 OK", all), Send(bytes)};
}

Script Live(const std::string& bytes, const std::vector<std::string>& headers)
{
    return {Reply("HTTP/1.0 200 OK", headers), Send(bytes)};
}

Script operator+(Script first, const Script& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string Chunked(const std::string& bytes, size_t chunkSize, bool bFinal)
{
    std::string chunks;
    for (size_t at = 0; at < bytes.size(); at += chunkSize)
    {
        const std::string chunk = bytes.substr(at, chunkSize);
        char size[20];
        std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        chunks += size + chunk + "\r\n";
    }
    return bFinal ? chunks + "0\r\n\r\n" : chunks;
}

std::string MetadataBlock(const std::string& text)
{
    const size_t units = (text.size() + kMetadataUnit - 1) / kMetadataUnit;
    std::string block(1, static_cast<char>(units));
    block += text;
    block.resize(1 + units * kMetadataUnit, '\0');
    return block;
}

std::string TitleBlock(const std::string& title)
{
    return MetadataBlock("StreamTitle='" + title + "';");
}

std::string Interleave(const std::string& bytes, size_t interval,
                       const std::vector<std::string>& blocks)
{
    std::string mixed;
    size_t next = 0;
    for (size_t at = 0; at < bytes.size(); at += interval)
    {
        mixed += bytes.substr(at, interval);
        if (at + interval <= bytes.size())
            mixed += next < blocks.size() ? blocks[next] : std::string(1, '\0');
        ++next;
    }
    return mixed;
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts) :
    ScriptedServer(InTurn(std::move(scripts)))
{
}

ScriptedServer::ScriptedServer(std::function<Script(const std::string&)> chosen) :
    stop(eventfd(0, EFD_CLOEXEC)), listener(NewSocket()), choose(std::move(chosen))
{
    port = Bind(listener.Number());
    if (listen(listener.Number(), SOMAXCONN) != 0)
        throw std::runtime_error("cannot listen");
    acceptor = std::thread(&ScriptedServer::Accept, this);
}

ScriptedServer::~ScriptedServer()
{
    eventfd_write(stop.Number(), 1);
    acceptor.join();
    for (std::thread& thread : threads)
        thread.join();
}

std::string ScriptedServer::Url(const std::string& path) const
{
    return UrlOf(port, path);
}

std::vector<std::string> ScriptedServer::Requests() const
{
    const std::lock_guard lock(mutex);
    return requests;
}

void ScriptedServer::Accept()
{
    std::array<pollfd, 2> polled{{{listener.Number(), POLLIN, 0}, {stop.Number(), POLLIN, 0}}};
    for (;;)
    {
        if (poll(polled.data(), polled.size(), kForever) < 0 && errno != EINTR)
            return;
        if (polled[1].revents)
            return;
        const int client = accept4(listener.Number(), nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
        {
            if (errno == EINVAL)
                polled[0].fd = -1; // shut down: all that can come now is the end
            continue;
        }
        Connection& connection = connections.emplace_back(client, listener.Number(), stop.Number());
        threads.emplace_back([this, &connection] { Serve(connection); });
    }
}

void ScriptedServer::Serve(Connection& connection)
{
    if (connection.ReadRequest())
    {
        Script script;
        {
            const std::lock_guard lock(mutex);
            requests.push_back(connection.Request());
            script = choose(connection.Request());
        }
        for (const Step& step : script)
            step(connection);
    }
    connection.client.Close();
}

std::string RefusingUrl()
{
    const Descriptor closed(NewSocket());
    return UrlOf(Bind(closed.Number()), "/stream");
}

DeafServer::DeafServer() : listener(NewSocket()), port(Bind(listener.Number()))
{
    if (listen(listener.Number(), 0) != 0)
        throw std::runtime_error("cannot listen");
    const sockaddr_in address = Loopback(port);
    // A queue of length 0 holds one connection; a second one makes sure of it.
    for (int i = 0; i < 2; ++i)
    {
        const Descriptor& client = queued.emplace_back(NewSocket(SOCK_NONBLOCK));
        (void)connect(client.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
}

std::string DeafServer::Url() const
{
    return UrlOf(port, "/stream");
}
