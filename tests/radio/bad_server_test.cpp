// What servers do to their listeners: the exact reports, and no sound that is not the stream's.
#include "radio.h"

#include <algorithm>
#include <atomic>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

const std::string kBroken = "Input/output error";
const std::string kInvalid =
    "Failed to open radio stream: Invalid data found when processing input";

constexpr size_t kPackets = 94; // a second of sound, and whole, so that nothing is left half read

class BadServer : public Radio
{
protected:
    void ExpectOneFailure(const std::string& text)
    {
        EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Reconnecting 1 retry 1/300: " + text));
        EXPECT_EQ(player.LastError(), text);
    }

    // That a stream broke off is told by the reports alone.
    void ExpectPlayedThenFailed(const std::string& text)
    {
        EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                         "Reconnecting 1 retry 1/300: " + text));
        EXPECT_EQ(player.LastError(), "");
    }
    void ExpectSound(double seconds)
    {
        EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(Seconds(seconds)));
    }

    void ExpectPackets() { EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(kPackets * kBlock)); }
};

} // namespace

// --- No stream

TEST_F(BadServer, RefusesConnections)
{
    Play(RefusingUrl());
    ExpectOneFailure("Failed to open radio stream: Connection refused");
}

TEST_F(BadServer, AnswersWithAnError)
{
    PlayScripts({{Reply("HTTP/1.0 404 Not Found")},
                 {Reply("HTTP/1.0 403 Forbidden")},
                 {Reply("HTTP/1.1 500 Internal Server Error")},
                 {Reply("HTTP/1.0 401 Unauthorized")},
                 {Reply("HTTP/1.0 400 Bad Request")},
                 {Reply("HTTP/1.0 410 Gone")}});
    const std::string open = "Failed to open radio stream: Server returned ";
    const std::string errors[] = {
        open + "404 Not Found",          open + "403 Forbidden (access denied)",
        open + "5XX Server Error reply", open + "401 Unauthorized (authorization failed)",
        open + "400 Bad Request",        open + "4XX Client Error, but not one of 40{0,1,3,4}"};
    int attempt = 0;
    for (const std::string& error : errors)
    {
        const std::string n = std::to_string(++attempt);
        EXPECT_EQ(Lines().back(), "Reconnecting " + n + " retry " + n + "/300: " + error);
        EXPECT_EQ(player.LastError(), error);
        VirtualTime::Step(2.0);
    }
}

TEST_F(BadServer, SendsGarbage)
{
    std::string garbage(100000, '\0');
    uint32_t state = 1;
    for (char& byte : garbage)
        byte = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
    PlayScripts({Whole(garbage), NotFound()});
    ExpectOneFailure(kInvalid);
    EXPECT_THAT(VirtualDevice::Sinks(), IsEmpty());
}

TEST_F(BadServer, SendsAPageInsteadOfAStream)
{
    PlayScripts(
        {Whole("<!DOCTYPE html><html><body>Gone.</body></html>", {"Content-Type: text/html"}),
         NotFound()});
    ExpectOneFailure(kInvalid);
}

TEST_F(BadServer, SendsNothing)
{
    PlayScripts({Whole(""), NotFound()});
    ExpectOneFailure(kInvalid);
}

TEST_F(BadServer, SendsOnlyVideo)
{
    const std::string video = Media::Read(Media::Make(
        "-f lavfi -i testsrc=d=0.2:s=64x64:r=25 -c:v mpeg2video -f mpegts", "video.ts"));
    PlayScripts({Whole(video), NotFound()});
    ExpectOneFailure("No audio stream found in radio source.");
}

TEST_F(BadServer, RedirectsInALoop)
{
    server =
        std::make_unique<ScriptedServer>([](const std::string&) { return Redirect("/stream"); });
    Play(server->Url());
    ExpectOneFailure("Failed to open radio stream: " + kBroken);
    EXPECT_LT(server->RequestCount(), 100u);
}

// --- A stream in unusual clothes

TEST_F(BadServer, RedirectsThroughAChain)
{
    PlayScripts({Redirect("/a"), Redirect("/b"), Redirect("/c"), Whole(WavBytes(Seconds(1.0))),
                 NotFound()});
    ExpectPlayedThenFailed(kEnd);
    EXPECT_THAT(server->Requests().at(3), StartsWith("GET /c "));
    EXPECT_NE(server->Requests()[3].find("User-Agent: Tovrel/1.0\r\n"), std::string::npos);
}

TEST_F(BadServer, SendsAnIcyStatusLine)
{
    const std::string body = Interleave(WavBytes(Seconds(1.0)), 8192, {TitleBlock("A")});
    PlayScripts({{Reply("ICY 200 OK", {"icy-name:Old Station", "icy-metaint:8192",
                                       "Content-Length: " + std::to_string(body.size())}),
                  Send(body)},
                 NotFound()});
    ExpectPlayedThenFailed(kEnd);
    EXPECT_EQ(reports.LastInfo().IcyName, "Old Station");
    EXPECT_EQ(reports.LastInfo().NowPlaying, "A");
    ExpectSound(1.0);
}

TEST_F(BadServer, SendsChunks)
{
    const std::string chunks = Chunked(WavBytes(Seconds(1.0)), 1000, true);
    PlayScripts(
        {{Reply("HTTP/1.1 200 OK", {"Transfer-Encoding: chunked"}), Send(chunks)}, NotFound()});
    ExpectPlayedThenFailed(kEnd);
    ExpectSound(1.0);
}

TEST_F(BadServer, BurstsThenPaces)
{
    const std::string wav = WavBytes(Seconds(1.0));
    PlayScripts({{Reply("HTTP/1.0 200 OK", {"Content-Length: " + std::to_string(wav.size())}),
                  Send(wav.substr(0, 200000)), SendPaced(wav.substr(200000), 800000)},
                 NotFound()});
    ExpectPlayedThenFailed(kEnd);
    ExpectSound(1.0);
}

// The server lets four times as much time pass as it sends sound, once the player has all so far.
TEST_F(BadServer, TricklesBelowRealTime)
{
    constexpr size_t kBurst = 75; // packets at once, then one at a time
    constexpr size_t kAll = 125;
    const std::string wav = WavBytes(kAll * kBlock);
    const size_t head = wav.size() - kAll * kBlockBytes;
    std::atomic<int> underruns = 0;
    const Step trickle = [&](Connection& connection)
    {
        for (size_t packet = kBurst; packet < kAll; ++packet)
        {
            const double sent = static_cast<double>(packet) * kBlockSeconds;
            connection.WaitUntil([&] { return access.QueuedSourceEndSec() > sent - 1e-6; });
            std::this_thread::sleep_for(std::chrono::duration<double>(4 * kBlockSeconds));
            underruns += VirtualDevice::Last().QueuedSeconds() == 0.0;
            connection.Send(std::string_view(wav).substr(head + packet * kBlockBytes, kBlockBytes));
        }
    };
    ScriptedServer radio(
        {{Reply("HTTP/1.0 200 OK", {"Content-Length: " + std::to_string(wav.size())}),
          Send(wav.substr(0, head + kBurst * kBlockBytes)), trickle},
         {Stall()}});
    VirtualTime::SetFreeRunning(true);
    Start(radio.Url());
    ASSERT_TRUE(Eventually([&] { return reports.LastInfo().ReconnectAttempt == 1; }));
    Stop();
    EXPECT_GT(underruns, 20);
    EXPECT_EQ(VirtualDevice::Last().pushed, WavSound(kAll * kBlock));
    const std::vector<Report> all = reports.All();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                               [](const Report& a, const Report& b)
                               { return a.state < b.state; })); // Playing is not left again
    EXPECT_THAT(VirtualDevice::Calls(), ElementsAre("Init 48000 2", "SetActive 0", "SetActive 1",
                                                    "SetActive 0", "Clear", "Destroy", "delete"));
}

// --- Broken off. FFmpeg tries for some seconds of its own before the break is seen.

TEST_F(BadServer, DropsTheStream)
{
    PlayScripts({Live(WavPackets(kPackets)), NotFound()});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

TEST_F(BadServer, ResetsTheConnection)
{
    const Step leaveTimeToRead = [](Connection& connection)
    {
        connection.Wait(std::chrono::milliseconds(300));
    };
    PlayScripts({Live(WavPackets(kPackets)) + Script{leaveTimeToRead, Reset()}, NotFound()});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

TEST_F(BadServer, DropsInsideAMetadataBlock)
{
    const std::string mp3 = Mp3Bytes(1.0);
    const std::string start = Interleave(mp3.substr(0, 14000), 2000, {TitleBlock("A")});
    const std::string cut = TitleBlock("Never complete").substr(0, 9);
    PlayScripts({Live(start.substr(0, start.size() - 1) + cut, {"icy-metaint: 2000"}), NotFound()});
    ExpectPlayedThenFailed(kBroken);
    EXPECT_THAT(reports.Titles(), ElementsAre("A"));
    EXPECT_NEAR(static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate, 0.85, 0.05);
}

TEST_F(BadServer, DropsAndIsBackAtOnce)
{
    // A live stream goes on where it is, so the second connection brings more of the same.
    PlayScripts({Live(Mp3Bytes(1.0)), Whole(Mp3Bytes(0.8)), NotFound()});
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_NEAR(static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate, 1.8, 0.1);
}

TEST_F(BadServer, EndsItsChunksWithoutTheLastOne)
{
    const std::string chunks = Chunked(WavPackets(kPackets), 1000, false);
    PlayScripts(
        {{Reply("HTTP/1.1 200 OK", {"Transfer-Encoding: chunked"}), Send(chunks)}, NotFound()});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

TEST_F(BadServer, BreaksOffBeforeItsLength)
{
    PlayScripts(
        {{Reply("HTTP/1.0 200 OK", {"Content-Length: 10000000"}), Send(WavPackets(kPackets))},
         NotFound()});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

TEST_F(BadServer, StopsListening)
{
    PlayScripts({Live(WavPackets(kPackets)) + Script{StopListening()}});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

// --- Silence. Each of FFmpeg's own attempts, and each look at the old connection between them,
// waits for 3 s.

TEST_F(BadServer, StallsInMidStream)
{
    PlayScripts({Live(WavPackets(kPackets)) + Script{Stall()}, NotFound()});
    ExpectPlayedThenFailed(kBroken);
    ExpectPackets();
}

TEST_F(BadServer, AnswersHeadersThenStalls)
{
    PlayScripts({{Reply("HTTP/1.0 200 OK", {"Content-Type: audio/mpeg"}), Stall()}, NotFound()});
    ExpectOneFailure("Failed to open radio stream: " + kBroken);
}

TEST_F(BadServer, NeverAnswers)
{
    PlayScripts({{Stall()}, NotFound()});
    ExpectOneFailure(kNotFound); // of the attempt that FFmpeg makes on its own
}

// --- Metadata that lie

namespace
{

class BadMetadata : public BadServer
{
protected:
    // A stream of MP3 with this block near its end: MP3 finds its frames again wherever it is.
    void PlayWith(const std::string& block)
    {
        std::vector<std::string> blocks(kBadBlock + 1, std::string(1, '\0'));
        blocks[kBadBlock] = block;
        PlayScripts(
            {Whole(Interleave(Mp3Bytes(1.9), 2000, blocks), {"icy-metaint: 2000"}), NotFound()});
    }
    static constexpr size_t kBadBlock = 11; // after 24000 bytes, which are 1.5 s
    double Played() const
    {
        return static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate;
    }
};

} // namespace

// The length byte promises more than there is: as much of the sound is taken for metadata, and
// from there on every block falls out of step.
TEST_F(BadMetadata, TooLongALengthCostsSoundOnly)
{
    PlayWith('\x20' + TitleBlock("A").substr(1));
    EXPECT_THAT(Lines(), ElementsAre("Connecting 0", "Buffering 0", "Playing 0", "Playing 0",
                                     "Playing 0", "Reconnecting 1 retry 1/300: " + kEnd));
    EXPECT_THAT(reports.Titles(), ElementsAre("A"));
    EXPECT_GT(Played(), 1.45);
}

TEST_F(BadMetadata, TooShortALengthCostsSoundOnly)
{
    PlayWith('\x01' + TitleBlock("A rather long title, longer than its length").substr(1));
    ExpectPlayedThenFailed(kEnd);
    EXPECT_GT(Played(), 1.45);
}

TEST_F(BadMetadata, LongestLengthWithNoTextCostsSoundOnly)
{
    PlayWith("\xff");
    ExpectPlayedThenFailed(kEnd);
    EXPECT_GT(Played(), 1.45);
}

TEST_F(BadMetadata, BlockCutOffByTheEndIsNoTitle)
{
    const std::string mp3 = Mp3Bytes(1.5);
    PlayScripts({Whole(mp3 + TitleBlock("Cut off").substr(0, 12),
                       {"icy-metaint: " + std::to_string(mp3.size())}),
                 NotFound()});
    EXPECT_THAT(reports.Titles(), IsEmpty());
    EXPECT_NEAR(Played(), 1.5, 0.1);
}

namespace
{

class BadInterval : public BadMetadata, public testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_P(BadInterval, MeansNoMetadata)
{
    PlayScripts({Whole(Mp3Bytes(1.5), {std::string("icy-metaint: ") + GetParam()}), NotFound()});
    ExpectPlayedThenFailed(kEnd);
    EXPECT_THAT(reports.Titles(), IsEmpty());
    EXPECT_NEAR(Played(), 1.5, 0.05);
}

INSTANTIATE_TEST_SUITE_P(Values, BadInterval,
                         testing::Values("0", "-1", "99999999999999999999", "nonsense", ""));

// Every other byte, and what follows it, is taken for metadata.
TEST_F(BadMetadata, SmallestIntervalLeavesNoStream)
{
    PlayScripts({Whole(Mp3Bytes(1.5), {"icy-metaint: 1"}), NotFound()});
    ExpectOneFailure(kInvalid);
}
