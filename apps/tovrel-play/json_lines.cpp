#include "json_lines.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace
{

using nlohmann::ordered_json;

constexpr double kPositionStep = 1.0; // seconds

std::string Text(const ordered_json& event)
{
    // A name may hold bytes that are no UTF-8.
    return event.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// Seconds to the millisecond; null where they are unknown (negative).
ordered_json Seconds(double seconds)
{
    return seconds < 0.0 ? ordered_json() : ordered_json(std::round(seconds * 1000.0) / 1000.0);
}

} // namespace

std::vector<std::string> JsonLines::Update(const Status& status)
{
    std::vector<std::string> lines;
    const LiveState& live = status.live;
    const bool bNew = status.plays != m_plays;
    if (bNew || live.state != m_state)
        lines.push_back(Text({{"event", "state"},
                              {"state", live.state},
                              {"name", status.name},
                              {"seconds", Seconds(live.position)},
                              {"duration", Seconds(live.bEndless ? -1.0 : live.duration)}}));
    const bool bStream = status.bStream;
    const std::string title = bStream ? status.stream.NowPlaying : status.title;
    if ((bNew || title != m_title) && !title.empty())
    {
        ordered_json event = {{"event", "title"}, {"name", status.name}, {"title", title}};
        if (bStream)
            event["station"] = status.stream.IcyName;
        else
        {
            event["artist"] = status.artist;
            event["album"] = status.album;
        }
        lines.push_back(Text(event));
    }
    if (bNew)
        m_position = -kPositionStep;
    if (status.activity == Activity::Playing &&
        std::abs(live.position - m_position) >= kPositionStep)
    {
        m_position = std::floor(live.position / kPositionStep) * kPositionStep;
        lines.push_back(Text({{"event", "position"},
                              {"name", status.name},
                              {"seconds", Seconds(live.position)},
                              {"duration", Seconds(live.bEndless ? -1.0 : live.duration)}}));
    }
    m_plays = status.plays;
    m_state = live.state;
    m_title = title;
    return lines;
}

std::string JsonLines::Error(const std::string& name, const std::string& text)
{
    return Text({{"event", "error"}, {"name", name}, {"text", text}});
}
