#include "text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <cwctype>

namespace
{

constexpr int kMinTitleColumns = 8;
constexpr int kMinBarColumns = 8;
constexpr size_t kStateColumns = 7; // of the longest of the words
// A conversion may end a few frames early: what has played to its end shall say so.
constexpr double kAlmostSeconds = 0.01;

struct Character
{
    size_t bytes = 1;
    int columns = 1;
    bool bPrintable = false;
};

// A name with one of these could reverse the rest of the line.
bool TurnsDirection(wchar_t c)
{
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

Character CharacterAt(const std::string& text, size_t position)
{
    wchar_t wide = 0;
    std::mbstate_t state{};
    const size_t bytes =
        std::mbrtowc(&wide, text.data() + position, text.size() - position, &state);
    if (bytes == 0 || bytes > text.size() - position) // a zero byte, no UTF-8, or cut off
        return {};
    const int columns = wcwidth(wide);
    if (columns < 0 || !std::iswprint(static_cast<wint_t>(wide)) || TurnsDirection(wide))
        return {bytes, 1, false};
    return {bytes, columns, true};
}

// The longest beginning of `text` that takes no more than `columns`.
std::string Beginning(const std::string& text, int columns)
{
    size_t end = 0;
    while (end < text.size())
    {
        const Character c = CharacterAt(text, end);
        columns -= c.columns;
        if (columns < 0)
            break;
        end += c.bytes;
    }
    return text.substr(0, end);
}

std::string Bar(const LiveState& live, int columns)
{
    const double part = live.duration > 0.0 ? live.position / live.duration : 0.0;
    const int cells = columns - 2;
    const auto full = static_cast<int>(std::lround(std::clamp(part, 0.0, 1.0) * cells));
    return "[" + std::string(static_cast<size_t>(full), '=') +
           std::string(static_cast<size_t>(cells - full), ' ') + "]";
}

std::string TimeText(const LiveState& live)
{
    if (live.bEndless)
        return ClockText(live.position);
    const bool bHours = live.duration >= 3600.0;
    return ClockText(live.position, bHours) + " / " + ClockText(live.duration, bHours);
}

std::string VolumeText(double volume)
{
    std::array<char, 32> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "vol %3ld%%", std::lround(volume * 100.0));
    return buffer.data();
}

std::string EqualizerText(const LiveState& live)
{
    if (!live.bEqualizer)
        return "eq off";
    return live.bFlat ? "" : "eq on";
}

} // namespace

int Columns(const std::string& text)
{
    int columns = 0;
    for (size_t i = 0; i < text.size();)
    {
        const Character c = CharacterAt(text, i);
        columns += c.columns;
        i += c.bytes;
    }
    return columns;
}

std::string Fitted(const std::string& text, int columns)
{
    constexpr int kEllipsis = 3;
    std::string fitted = text;
    if (Columns(text) > columns)
        fitted = columns > kEllipsis ? Beginning(text, columns - kEllipsis) + "..."
                                     : Beginning(text, columns);
    fitted.append(static_cast<size_t>(std::max(columns - Columns(fitted), 0)), ' ');
    return fitted;
}

std::string Ascii(const std::string& text)
{
    std::string ascii;
    for (size_t i = 0; i < text.size(); i += CharacterAt(text, i).bytes)
        ascii += static_cast<unsigned char>(text[i]) < 0x80 ? text[i] : '?';
    return ascii;
}

std::string PanText(double pan)
{
    const long percent = std::lround(pan * 100.0);
    if (percent == 0)
        return "";
    return (percent < 0 ? "pan L" : "pan R") + std::to_string(std::labs(percent));
}

std::string Printable(const std::string& text)
{
    std::string printable;
    for (size_t i = 0; i < text.size();)
    {
        const Character c = CharacterAt(text, i);
        printable += c.bPrintable ? text.substr(i, c.bytes) : "?";
        i += c.bytes;
    }
    return printable;
}

std::string ClockText(double seconds, bool bHours)
{
    if (seconds < 0.0)
        return "-:--";
    const auto whole = static_cast<long long>(seconds + kAlmostSeconds);
    const long long minutes = whole / 60;
    std::array<char, 64> buffer{};
    if (bHours || minutes >= 60)
        std::snprintf(buffer.data(), buffer.size(), "%lld:%02lld:%02lld", minutes / 60,
                      minutes % 60, whole % 60);
    else
        std::snprintf(buffer.data(), buffer.size(), "%lld:%02lld", minutes, whole % 60);
    return buffer.data();
}

std::string LiveLine(const LiveState& live, int columns)
{
    std::string word = live.state;
    word.resize(std::max(word.size(), kStateColumns), ' '); // so that nothing moves when it changes
    std::array<std::string, 5> parts = {TimeText(live), VolumeText(live.volume), PanText(live.pan),
                                        EqualizerText(live), word};
    bool bBar = !live.bEndless;
    const auto fixedColumns = [&]
    {
        int sum = 0;
        for (const std::string& part : parts)
            sum += part.empty() ? 0 : Columns(part) + 1;
        return sum;
    };
    const auto room = [&]
    {
        return columns - fixedColumns();
    }; // for the title and the bar

    if (room() < kMinTitleColumns + 1 + kMinBarColumns)
        bBar = false;
    for (const size_t part : {3u, 2u, 1u, 0u}) // equalizer, pan, volume, time
        if (room() < kMinTitleColumns)
            parts[part].clear();
    if (room() < 1)
        return Fitted(live.state, std::max(columns, 0));

    const int titleRoom = bBar ? std::max(room() / 2, kMinTitleColumns) : room();
    const int titleColumns = bBar ? std::min(Columns(live.title), titleRoom) : titleRoom;
    std::string line = Fitted(live.title, titleColumns);
    for (size_t part = 0; part < parts.size(); ++part)
    {
        if (!parts[part].empty())
            line += " " + parts[part];
        if (part == 0 && bBar)
            line += " " + Bar(live, room() - titleColumns - 1);
    }
    return line;
}
