// A playlist that grows while it is played, as live stations on segments have it.
#include "radio.h"

#include <map>

using testing::Contains;
using testing::ElementsAre;

namespace
{

constexpr size_t kSegments = 4;
constexpr double kSegmentSeconds = 3.0; // two of them are as much as FFmpeg wants to see
constexpr size_t kFirstSegments = 2;    // in the list when it is asked for first

class LivePlaylist : public Radio
{
protected:
    // Every list has one segment more than the one before, and after the last one its end, if it
    // ends. A segment is sent whole, or as these scripts say.
    void Serve(std::map<std::string, Script> scripts = {}, bool bEnds = true)
    {
        Media::MakeSeveral("-f lavfi -i sine=d=12:r=48000 -ac 2 -c:a aac -hls_time 3 "
                           "-hls_list_size 0 -f hls",
                           "live.m3u8");
        server = std::make_unique<ScriptedServer>(
            [=, lists = size_t{0}, scripts = std::move(scripts)](const std::string& request) mutable
            {
                const std::string name = NameIn(request);
                if (name == "live.m3u8")
                    return Whole(List(lists++, bEnds),
                                 {"Content-Type: application/vnd.apple.mpegurl"});
                const auto script = scripts.find(name);
                return script != scripts.end() ? script->second
                                               : Whole(Media::Read(Media::Directory() / name));
            });
    }

    // The segments that were asked for so far, in order.
    std::vector<std::string> Segments() const
    {
        std::vector<std::string> names;
        for (const std::string& request : server->Requests())
            if (const std::string name = NameIn(request); name != "live.m3u8")
                names.push_back(name);
        return names;
    }

    size_t Lists() const { return server->RequestCount() - Segments().size(); }

    void ExpectQuickStop()
    {
        const double start = RealSeconds();
        Stop();
        EXPECT_LT(RealSeconds() - start, kStopLimit);
        EXPECT_EQ(reports.Last().state, StreamState::Stopped);
    }

    double Played() const
    {
        return static_cast<double>(VirtualDevice::Last().pushed.size()) / 2 / kRate;
    }

private:
    static std::string NameIn(const std::string& request)
    {
        const size_t start = request.find('/') + 1;
        return request.substr(start, request.find(' ', start) - start);
    }

    // The duration that it tells is shorter than the truth: by it FFmpeg asks for the next list.
    static std::string List(size_t before, bool bEnds)
    {
        std::string list = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n"
                           "#EXT-X-MEDIA-SEQUENCE:0\n";
        for (size_t i = 0; i < std::min(kFirstSegments + before, kSegments); ++i)
            list += "#EXTINF:0.2,\nlive" + std::to_string(i) + ".ts\n";
        return bEnds && kFirstSegments + before > kSegments ? list + "#EXT-X-ENDLIST\n" : list;
    }
};

} // namespace

TEST_F(LivePlaylist, PlaysOnAsItGrows)
{
    Serve();
    Play(server->Url("/live.m3u8"));
    EXPECT_EQ(reports.Last().state, StreamState::Playing);
    const size_t before = Lists();
    ASSERT_TRUE(StepToRetry(1));
    EXPECT_GT(Lists(), before);
    EXPECT_THAT(Segments(), ElementsAre("live0.ts", "live1.ts", "live2.ts", "live3.ts"));
    EXPECT_NEAR(Played(), kSegments * kSegmentSeconds, 0.1);
    EXPECT_EQ(reports.Count(StreamState::Buffering), 1u);
    EXPECT_EQ(Lines().back(), "Reconnecting 1 retry 1/300: " + kEnd);
    EXPECT_EQ(player.LastError(), "");
}

TEST_F(LivePlaylist, SegmentThatStallsIsNoObstacleToAStop)
{
    Serve({{"live2.ts", {Reply("HTTP/1.0 200 OK"), Stall()}}});
    VirtualTime::SetFreeRunning(true);
    Start(server->Url("/live.m3u8"));
    ASSERT_TRUE(Eventually([&] { return Segments().size() == 3; }));
    ExpectQuickStop();
}

TEST_F(LivePlaylist, StopDoesNotWaitForTheNextList)
{
    Serve({}, false);
    VirtualTime::SetFreeRunning(true);
    Start(server->Url("/live.m3u8"));
    ASSERT_TRUE(Eventually([&] { return Lists() > kSegments; })); // no more to play
    ExpectQuickStop();
}

// FFmpeg decides whether to go on with the next one or to give up; both are survived.
TEST_F(LivePlaylist, MissingSegmentIsSurvived)
{
    Serve({{"live2.ts", NotFound()}});
    Play(server->Url("/live.m3u8"));
    ASSERT_TRUE(StepToRetry(1));
    EXPECT_THAT(Segments(), Contains("live2.ts"));
    EXPECT_GE(Played(), kFirstSegments * kSegmentSeconds - 0.1);
    EXPECT_LE(Played(), (kSegments - 1) * kSegmentSeconds + 0.1);
    EXPECT_EQ(reports.Count(StreamState::Buffering), 1u);
}
