// What happens, as lines of JSON for other programs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "status.h"

// {"event":"state","state":"playing","name":"a.flac",...}: on every change.
// {"event":"title",...}: for each entry, and each title of a stream.
// {"event":"position","seconds":12.0,...}: once a second while it plays.
// {"event":"error","name":"a.flac","text":"..."}.
class JsonLines
{
public:
    // The lines, without their ends, that tell what has changed since the last call.
    std::vector<std::string> Update(const Status& status);

    static std::string Error(const std::string& name, const std::string& text);

private:
    uint64_t m_plays = 0;
    std::string m_state;
    std::string m_title;
    double m_position = -1.0; // the last one told
};
