// Compares what a recording holds with what was played: every frame, once, in its order.
#pragma once

#include "library.h"

#include "harness.h"

#include <cstddef>
#include <string>
#include <vector>

class Machine;
class Report;

// What a listener did, in frames of the recording where it tells a time.
struct Play
{
    struct Seek
    {
        size_t askedAt = 0;
        size_t target = 0; // an index
    };
    struct Pause
    {
        size_t from = 0;
        size_t to = 0;
    };

    std::string kind;
    Stretch stretch;       // what it may sound like
    size_t first = 0;      // the index that is due first
    bool bAltered = false; // by volume, pan or equalizer: its frames are not to be told apart
    bool bStopped = false; // so that its end need not be heard
    size_t seekReach = 0;  // how far before its target a seek may land, in frames
    size_t startAt = 0;    // nothing of it is heard before
    size_t endAt = 0;      // nor long after
    std::vector<Seek> seeks;
    std::vector<Pause> pauses;
};

// What is still heard after a stop, and how long it takes until a pause or its end is heard: the
// cycles that the graph, the monitor and the recording have in hand, some more on a busy machine.
constexpr size_t kTail = 8 * kQuantum;

// Of all rounds together.
struct Findings
{
    size_t plays = 0;     // that were compared frame by frame
    size_t altered = 0;   // that were searched for gaps only
    size_t frames = 0;    // heard of the former
    size_t lost = 0;      // frames
    size_t doubled = 0;   // frames
    size_t foreign = 0;   // frames that nobody has played, or not at that time
    size_t underruns = 0; // silences within a play for which there is no reason
    size_t excused = 0;   // plays with any of these, or a slow Stop, while the machine was late:
                          // they do not count
};

// Tells of one lane of a recording what is wrong with it.
class Hearing
{
public:
    Hearing(const std::vector<float>& samples, const std::vector<MonitorRecording::Cycle>& cycles,
            const Machine& machine, Findings& findings, Report& report);

    void Judge(Lane lane, const std::vector<Play>& plays);

private:
    // Frames that follow each other by their indices, without a break.
    struct Run
    {
        size_t at = 0; // in the recording
        size_t index = 0;
        size_t length = 0;

        size_t End() const { return at + length; }
        size_t EndIndex() const { return index + length; }
    };

    struct Faults
    {
        size_t lost = 0;
        size_t doubled = 0;
        size_t underruns = 0;
        std::string text;
        bool bMachine = true; // all of them at times at which the machine was late
    };

    void Decode(Lane lane, const std::vector<Play>& plays);
    void ClaimRuns(const std::vector<Play>& plays);
    void Compare(const Play& play, const std::vector<Run>& runs);
    void FindGaps(Lane lane, const Play& play);
    void Note(Faults& faults, size_t at, const std::string& what) const;
    void Conclude(const Play& play, const Faults& faults);
    int64_t TimeOf(size_t at) const;

    const std::vector<float>& m_samples;
    const std::vector<MonitorRecording::Cycle>& m_cycles;
    const Machine& m_machine;
    Findings& m_findings;
    Report& m_report;
    std::vector<Run> m_runs;
    std::vector<std::vector<Run>> m_claimed; // by play
};
