// Text for the terminal. All of it is UTF-8 and counted in columns.
#pragma once

#include <string>

// What may be printed of a name or tag: control characters, characters that turn the direction of
// writing and bytes that are not UTF-8 each become a question mark.
std::string Printable(const std::string& text);

// Seconds as m:ss, or as h:mm:ss with `bHours`; "-:--" where they are unknown (negative).
std::string ClockText(double seconds, bool bHours = false);

// Columns that a terminal needs for it.
int Columns(const std::string& text);

// Exactly `columns` columns, cut with an ellipsis or filled with spaces.
std::string Fitted(const std::string& text, int columns);

// What an ASCII terminal can show of it: every other character is a question mark.
std::string Ascii(const std::string& text);

// "pan L20"; empty in the middle.
std::string PanText(double pan);

// What the live line tells.
struct LiveState
{
    std::string title;      // printable
    double position = 0.0;  // seconds; negative: unknown
    double duration = -1.0; // seconds; negative: unknown
    bool bEndless = false;  // a stream, or what is still being read: there is no duration
    double volume = 1.0;    // linear
    double pan = 0.0;
    bool bEqualizer = true; // switched on
    bool bFlat = true;      // all gains 0 dB
    std::string state;      // one word
};

// The line in exactly `columns` columns or fewer. Where they do not suffice the least important
// parts go first.
std::string LiveLine(const LiveState& live, int columns);
