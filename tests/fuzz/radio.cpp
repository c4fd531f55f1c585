// Any bytes as what a station's server sends, connection after connection.
#include "check.h"
#include "quick_playback.h"

#include <algorithm>

namespace
{

using StreamState = TovrelAudioPlayer::StreamState;
using StreamInfo = TovrelAudioPlayer::StreamInfo;

const std::string kRetry = "retry ";
constexpr double kQueueLimit = 2.0; // seconds of a stream that may be queued when a block comes
constexpr std::string_view kNextAnswer = "\x1e\x1e\x1e\x1e"; // what ends one and begins another

std::optional<std::string> TakeAnswer(std::string& answers)
{
    if (answers.empty())
        return {};
    const size_t end = answers.find(kNextAnswer);
    std::string answer = answers.substr(0, end);
    answers.erase(0, end == answers.npos ? end : end + kNextAnswer.size());
    return answer;
}

bool MayFollow(StreamState before, StreamState now)
{
    switch (now)
    {
    case StreamState::Idle:
        return false;
    case StreamState::Connecting:
        return before == StreamState::Idle;
    case StreamState::Buffering:
        return before == StreamState::Connecting || before == StreamState::Reconnecting ||
               before == StreamState::Buffering;
    case StreamState::Playing:
        return before == StreamState::Buffering || before == StreamState::Playing;
    case StreamState::Reconnecting:
        return before != StreamState::Idle;
    case StreamState::Error:
    case StreamState::Stopped:
        return before != StreamState::Idle;
    }
    return false;
}

bool IsDescribed(const StreamInfo& info)
{
    return !info.Codec.empty() && !info.Format.empty() && info.SampleRate > 0 && info.Channels > 0;
}

// The reports so far, and what must hold of the next one.
class Reports
{
public:
    void Add(StreamState state, const StreamInfo& info, const std::string& text)
    {
        const bool bSound = state == StreamState::Buffering || state == StreamState::Playing;
        const bool bReason = state == StreamState::Reconnecting || state == StreamState::Error;
        Check(last != StreamState::Stopped && last != StreamState::Error,
              "the last report is last");
        Check(MayFollow(last, state), "the order of the reports");
        Check(text.empty() == !bReason, "a reason stands where there is one");
        Check(!bSound || IsDescribed(info), "what can be heard is described");
        Check(info.MaxReconnectAttempts == 300 && info.ReconnectAttempt >= attempts &&
                  info.ReconnectAttempt <= attempts + 1,
              "the attempts are counted");
        Check(text.substr(0, kRetry.size()) != kRetry ||
                  text.find(kRetry + std::to_string(info.ReconnectAttempt) + "/300: ") == 0,
              "a retry tells its number");
        Check(title.empty() || !info.NowPlaying.empty(), "a title stays until the next");
        Check(info.LastMetadataTime.size() == (info.NowPlaying.empty() ? 0 : 8),
              "a title has its time");
        last = state;
        attempts = info.ReconnectAttempt;
        title = info.NowPlaying;
        NoteOutcome(text);
        NoteOutcome(info.Codec + "/" + info.Format);
        NoteOutcome(std::to_string(static_cast<int>(state)) + (title.empty() ? "" : "titled"));
    }

    bool HaveEnded() const { return last == StreamState::Error || last == StreamState::Stopped; }

private:
    StreamState last = StreamState::Idle;
    int attempts = 0;
    std::string title;
};

bool IsKnown(std::string_view text)
{
    return IsOneOf(text, {
                             "",
                             "Radio stream open cancelled.",
                             "Failed to open radio stream: ",
                             "Failed to read radio stream info: ",
                             "No audio stream found in radio source.",
                             "No decoder available for this radio stream.",
                             "Failed to configure radio decoder: ",
                             "Failed to open radio decoder: ",
                             "Failed to allocate audio resampler.",
                             "Failed to initialize audio resampler: ",
                             "Radio decode failed: ",
                         });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Reports reports;
    std::string answers;
    TovrelAudioPlayer* player = nullptr;
    QuickPlayback playback(input, kQueueLimit,
                           [&]
                           {
                               auto answer = TakeAnswer(answers);
                               if (!answer)
                                   player->RequestStop();
                               return answer;
                           });
    player = &playback.player;
    answers = input.ConsumeRemainingBytesAsString();
    Check(player->PlayStream("http://localhost/stream",
                             [&](StreamState state, const StreamInfo& info, const std::string& text)
                             { reports.Add(state, info, text); }),
          "a stream is always taken on");
    playback.RunToEnd();
    Check(reports.HaveEnded(), "a playback's end is reported");
    Check(player->DurationSeconds() == 0.0, "a stream has no duration");
    Check(IsKnown(player->LastError()), player->LastError().c_str());
    return 0;
}
