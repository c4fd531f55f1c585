// The player with a sink that does not open: every source ends with the same error, and the next
// one plays.
#include "failing_calls.h"
#include "init_faults.h"
#include "piecewise_play.h"
#include "scripted_server.h"

#include "tovrel_audio_player.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>

namespace
{

constexpr const char* kNoOutput = "Failed to initialize PipeWire audio output.";

std::string BytesOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(PlayerWithoutSink, TellsTheErrorOfEverySourceAndPlaysTheNextOneWhole)
{
    const std::string path = RuntimePath("tone.mp3");
    RunFfmpeg({"-f", "lavfi", "-i", "sine=d=20:r=44100", path});
    const ScriptedServer server({Live(BytesOf(path)) + Script{Stall()}});
    PiecewisePlay play;
    TovrelAudioPlayer player;
    const std::map<std::string, std::function<bool()>> sources = {
        {"file",
         [&]
         {
             return player.PlayFile(path);
         }},
        {"radio",
         [&]
         {
             return player.PlayStream(server.Url());
         }},
        {"buffer",
         [&]
         {
             return player.PlayPcm(ConstantFrames(10), kSinkRate, kSinkChannels);
         }},
    };
    for (const InitFault& fault : kInitFaults)
    {
        SCOPED_TRACE(fault.name);
        for (const auto& [name, start] : sources)
        {
            SCOPED_TRACE(name);
            const FailingCalls failing(fault.function, fault.skip, fault.count);
            ASSERT_TRUE(start());
            ASSERT_TRUE(WaitForEnd(player, kOftenMs));
            EXPECT_EQ(player.LastError(), kNoOutput);
            EXPECT_GE(failing.Failed(), 1);
        }
        ASSERT_TRUE(player.PlayPcm(play.NextPiece(), kSinkRate, kSinkChannels));
        ASSERT_TRUE(WaitForEnd(player));
        EXPECT_EQ(player.LastError(), "");
    }
    EXPECT_EQ(server.RequestCount(), kInitFaults.size()); // the failure is final
    EXPECT_TRUE(play.IsWhole());
}

} // namespace
