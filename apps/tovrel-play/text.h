// Text for the terminal. All of it is UTF-8 and counted in columns.
#pragma once

#include <string>

// What may be printed of a name or tag: control characters, characters that turn the direction of
// writing and bytes that are not UTF-8 each become a question mark.
std::string Printable(const std::string& text);

// Seconds as m:ss, or as h:mm:ss with `bHours`; "-:--" where they are unknown (negative).
std::string ClockText(double seconds, bool bHours = false);

// What the live line tells.
struct LiveState
{
    std::string title;      // printable
    double position = 0.0;  // seconds; negative: unknown
    double duration = -1.0; // seconds; negative: unknown
    bool bEndless = false;  // a stream, which has no duration
    double volume = 1.0;    // linear
    double pan = 0.0;
    bool bEqualizer = true; // switched on
    bool bFlat = true;      // all gains 0 dB
    std::string state;      // one word
};

// The line in exactly `columns` columns or fewer. Where they do not suffice the least important
// parts go first.
std::string LiveLine(const LiveState& live, int columns);
