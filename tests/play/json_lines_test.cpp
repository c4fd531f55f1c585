// Lines of JSON for what happens.
#include "json_lines.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

Status Playing(double position)
{
    Status status;
    status.name = "a.flac";
    status.plays = 1;
    status.title = "Song";
    status.artist = "Somebody";
    status.activity = Activity::Playing;
    status.live.state = "playing";
    status.live.position = position;
    status.live.duration = 61.5;
    return status;
}

} // namespace

TEST(JsonEvents, TellAFileOnceAndItsPositionOnceASecond)
{
    JsonLines lines;
    EXPECT_THAT(
        lines.Update(Playing(0.0)),
        ElementsAre(
            R"({"event":"state","state":"playing","name":"a.flac","seconds":0.0,"duration":61.5})",
            R"({"event":"title","name":"a.flac","title":"Song","artist":"Somebody","album":""})",
            R"({"event":"position","name":"a.flac","seconds":0.0,"duration":61.5})"));
    EXPECT_THAT(lines.Update(Playing(0.9)), IsEmpty());
    EXPECT_THAT(
        lines.Update(Playing(1.0404)),
        ElementsAre(R"({"event":"position","name":"a.flac","seconds":1.04,"duration":61.5})"));
    EXPECT_THAT(lines.Update(Playing(1.99)), IsEmpty());
    EXPECT_EQ(lines.Update(Playing(2.01)).size(), 1u);
}

TEST(JsonEvents, TellOfASeek)
{
    JsonLines lines;
    lines.Update(Playing(30.0));
    EXPECT_EQ(lines.Update(Playing(10.0)).size(), 1u);
}

TEST(JsonEvents, TellOfAPause)
{
    JsonLines lines;
    lines.Update(Playing(3.0));
    Status paused = Playing(3.2);
    paused.activity = Activity::Paused;
    paused.live.state = "paused";
    EXPECT_THAT(
        lines.Update(paused),
        ElementsAre(
            R"({"event":"state","state":"paused","name":"a.flac","seconds":3.2,"duration":61.5})"));
    paused.live.position = 9.0;
    EXPECT_THAT(lines.Update(paused), IsEmpty()); // no positions of what does not move
}

TEST(JsonEvents, TellAStreamsTitlesAndNoDuration)
{
    Status status = Playing(5.0);
    status.live.bEndless = true;
    status.bStream = true;
    status.live.duration = -1.0;
    status.stream.IcyName = "Station";
    status.stream.NowPlaying = "First";
    JsonLines lines;
    EXPECT_THAT(
        lines.Update(status),
        ElementsAre(
            R"({"event":"state","state":"playing","name":"a.flac","seconds":5.0,"duration":null})",
            R"({"event":"title","name":"a.flac","title":"First","station":"Station"})",
            R"({"event":"position","name":"a.flac","seconds":5.0,"duration":null})"));
    status.stream.NowPlaying = "Second";
    EXPECT_THAT(
        lines.Update(status),
        ElementsAre(R"({"event":"title","name":"a.flac","title":"Second","station":"Station"})"));
}

TEST(JsonEvents, AreOneLineOfUtf8WhateverANameHolds)
{
    const std::string line = JsonLines::Error("a\n\"\xff\x1b", "broken\r\n");
    EXPECT_EQ(line.find('\n'), line.npos);
    const auto event = nlohmann::json::parse(line);
    EXPECT_EQ(event["event"], "error");
    EXPECT_EQ(event["text"], "broken\r\n");
    EXPECT_EQ(event["name"], "a\n\"\xEF\xBF\xBD\x1b");
}

TEST(JsonEvents, TellAnEntryThatIsPlayedAgain)
{
    JsonLines lines;
    lines.Update(Playing(3.0));
    Status again = Playing(0.0);
    ++again.plays;
    EXPECT_EQ(lines.Update(again).size(), 3u); // its state, its title and its position
}
