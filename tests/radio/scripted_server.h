// An HTTP server on the loopback interface that does to its clients what the test's script says.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// A descriptor that closes itself.
class Descriptor
{
public:
    explicit Descriptor(int number = -1) : fd(number) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const { return fd; }
    void Close();

private:
    int fd;
};

// One connection on its own thread, from its complete request on. Every wait ends when the client
// hangs up or the server is destroyed; after that sending does nothing.
class Connection
{
public:
    Connection(int clientSocket, int listeningSocket, int stopEvent) :
        client(clientSocket), listener(listeningSocket), stop(stopEvent)
    {
    }

    // Up to its empty line; false where the client went away before.
    bool ReadRequest();
    const std::string& Request() const { return request; }

    bool Send(std::string_view bytes);
    void SendPaced(std::string_view bytes, size_t bytesPerSecond);
    void Wait(std::chrono::milliseconds time);
    void WaitUntil(const std::function<bool()>& bDone);
    void WaitForHangUp();
    void Reset();         // breaks off, where the end of a script closes in good order
    void StopListening(); // the server refuses every connection from now on

private:
    friend class ScriptedServer;

    // Whether the socket is ready for this before the time is over and before anything ends.
    bool Ready(short events, int milliseconds);

    Descriptor client;
    int listener;
    int stop;
    bool bEnded = false;
    std::string request;
};

using Step = std::function<void(Connection&)>;
using Script = std::vector<Step>;

// The steps of a script.
Step Reply(const std::string& status, const std::vector<std::string>& headers = {});
Step Send(const std::string& bytes);
Step SendPaced(const std::string& bytes, size_t bytesPerSecond);
Step SilenceUntil(const std::function<bool()>& bDone);
Step Stall();
Step Reset();
Step StopListening();

// Whole scripts.
Script NotFound();
Script Redirect(const std::string& url);
// A body of a length that is told, so that its end is one; a live stream, whose end is a breakdown.
Script Whole(const std::string& bytes, const std::vector<std::string>& headers = {});
Script Live(const std::string& bytes, const std::vector<std::string>& headers = {});
Script operator+(Script first, const Script& second);

// The body in chunks of this size, with or without the empty one that ends it.
std::string Chunked(const std::string& bytes, size_t chunkSize, bool bFinal);

// A block of in-band metadata: a length byte in units of 16 bytes and padded text.
std::string MetadataBlock(const std::string& text);
std::string TitleBlock(const std::string& title);

// The bytes with one of these blocks after every `interval` bytes, and empty ones when they are
// used up.
std::string Interleave(const std::string& bytes, size_t interval,
                       const std::vector<std::string>& blocks);

class ScriptedServer
{
public:
    // Every connection follows the next script, those after the last one the last one.
    explicit ScriptedServer(std::vector<Script> scripts);

    // Every connection follows the script that is chosen by its request.
    explicit ScriptedServer(std::function<Script(const std::string&)> chosen);

    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::string Url(const std::string& path = "/stream") const;

    // The complete requests so far.
    std::vector<std::string> Requests() const;
    size_t RequestCount() const { return Requests().size(); }

private:
    void Accept();
    void Serve(Connection& connection);

    Descriptor stop;
    Descriptor listener;
    int port = 0;
    std::function<Script(const std::string&)> choose;
    mutable std::mutex mutex; // guards requests and what choose holds
    std::vector<std::string> requests;
    std::list<Connection> connections; // these two are the acceptor's own
    std::vector<std::thread> threads;
    std::thread acceptor;
};

// A port on which nobody listens.
std::string RefusingUrl();

// A port on which connecting neither succeeds nor fails: its queue of connections is full.
class DeafServer
{
public:
    DeafServer();
    std::string Url() const;

private:
    Descriptor listener;
    std::list<Descriptor> queued;
    int port = 0;
};
