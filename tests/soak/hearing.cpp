#include "hearing.h"

#include "machine.h"
#include "report.h"

#include <algorithm>
#include <sstream>

namespace
{

// The shortest silence in altered sound that is no zero crossing.
constexpr size_t kShortestGap = 32;

bool MayBeHeardAt(const Play& play, size_t at)
{
    return at >= play.startAt && at < play.endAt + kTail;
}

bool BelongsTo(const Play& play, size_t at, size_t index)
{
    return !play.bAltered && MayBeHeardAt(play, at) && index >= play.stretch.first &&
           index < play.stretch.first + play.stretch.count;
}

// Whether the playback was to be silent at some time of [from, to).
bool HasReason(const Play& play, size_t from, size_t to)
{
    const bool bPaused = std::any_of(play.pauses.begin(), play.pauses.end(),
                                     [&](const Play::Pause& pause)
                                     { return from < pause.to + kTail && to >= pause.from; });
    return bPaused || std::any_of(play.seeks.begin(), play.seeks.end(),
                                  [&](const Play::Seek& seek)
                                  { return from < seek.askedAt + kTail && to >= seek.askedAt; });
}

bool IsLandingOfSeek(const Play& play, size_t at, size_t index)
{
    return std::any_of(play.seeks.begin(), play.seeks.end(),
                       [&](const Play::Seek& seek) {
                           return at >= seek.askedAt && index <= seek.target &&
                                  index + play.seekReach >= seek.target;
                       });
}

} // namespace

Hearing::Hearing(const std::vector<float>& samples,
                 const std::vector<MonitorRecording::Cycle>& cycles, const Machine& machine,
                 Findings& findings, Report& report) :
    m_samples(samples),
    m_cycles(cycles), m_machine(machine), m_findings(findings), m_report(report)
{
}

void Hearing::Judge(Lane lane, const std::vector<Play>& plays)
{
    Decode(lane, plays);
    ClaimRuns(plays);
    for (size_t i = 0; i < plays.size(); ++i)
    {
        if (plays[i].bAltered)
            FindGaps(lane, plays[i]);
        else
            Compare(plays[i], m_claimed[i]);
    }
}

void Hearing::Decode(Lane lane, const std::vector<Play>& plays)
{
    m_runs.clear();
    auto play = plays.begin(); // the first one that may still be heard
    size_t unknown = 0;
    size_t firstUnknown = 0;
    for (size_t at = 0; at < m_samples.size() / kSinkChannels; ++at)
    {
        const float sample = m_samples[at * kSinkChannels + static_cast<size_t>(lane)];
        if (sample == 0.0f)
            continue;
        while (play != plays.end() && at >= play->endAt + kTail)
            ++play;
        if (play != plays.end() && play->bAltered && at >= play->startAt)
            continue;
        const size_t index = IndexOf(sample);
        if (index == kNoIndex)
        {
            firstUnknown = unknown++ == 0 ? at : firstUnknown;
            continue;
        }
        if (!m_runs.empty() && m_runs.back().End() == at && m_runs.back().EndIndex() == index)
            ++m_runs.back().length;
        else
            m_runs.push_back({at, index, 1});
    }
    m_findings.foreign += unknown;
    if (unknown > 0)
        m_report.Fail(std::to_string(unknown) + " frames that are none of the signal, from " +
                      std::to_string(firstUnknown) + " on");
}

void Hearing::ClaimRuns(const std::vector<Play>& plays)
{
    m_claimed.assign(plays.size(), {});
    for (const Run& run : m_runs)
    {
        const auto owner =
            std::find_if(plays.begin(), plays.end(),
                         [&](const Play& play) { return BelongsTo(play, run.at, run.index); });
        if (owner != plays.end())
        {
            m_claimed[static_cast<size_t>(owner - plays.begin())].push_back(run);
            continue;
        }
        m_findings.foreign += run.length;
        m_report.Fail(std::to_string(run.length) + " frames at " + std::to_string(run.at) +
                      ", from index " + std::to_string(run.index) + ", that nobody plays then");
    }
}

void Hearing::Compare(const Play& play, const std::vector<Run>& runs)
{
    Faults faults;
    size_t next = play.first;
    size_t silentFrom = 0;
    for (const Run& run : runs)
    {
        const std::string where = "index " + std::to_string(next);
        const bool bLanding = IsLandingOfSeek(play, run.at, run.index);
        if (run.index > next && !bLanding)
        {
            faults.lost += run.index - next;
            Note(faults, run.at, std::to_string(run.index - next) + " frames lost at " + where);
        }
        else if (run.index < next && !bLanding)
        {
            faults.doubled += next - run.index;
            Note(faults, run.at, std::to_string(next - run.index) + " frames doubled at " + where);
        }
        if (silentFrom > 0 && run.at > silentFrom && !HasReason(play, silentFrom, run.at))
        {
            ++faults.underruns;
            Note(faults, run.at,
                 std::to_string(run.at - silentFrom) + " frames of silence at " + where);
        }
        m_findings.frames += run.length;
        next = run.EndIndex();
        silentFrom = run.End();
    }
    const size_t end = play.stretch.first + play.stretch.count;
    if (!play.bStopped && next < end)
    {
        faults.lost += end - next;
        Note(faults, play.endAt, std::to_string(end - next) + " frames lost at its end");
    }
    ++m_findings.plays;
    Conclude(play, faults);
}

void Hearing::FindGaps(Lane lane, const Play& play)
{
    Faults faults;
    size_t silentFrom = 0;
    const size_t end = std::min(play.endAt + kTail, m_samples.size() / kSinkChannels);
    for (size_t at = play.startAt; at < end; ++at)
    {
        if (m_samples[at * kSinkChannels + static_cast<size_t>(lane)] == 0.0f)
            continue;
        if (silentFrom > 0 && at - silentFrom >= kShortestGap && !HasReason(play, silentFrom, at))
        {
            ++faults.underruns;
            Note(faults, at, std::to_string(at - silentFrom) + " frames of silence");
        }
        silentFrom = at + 1;
    }
    ++m_findings.altered;
    Conclude(play, faults);
}

void Hearing::Note(Faults& faults, size_t at, const std::string& what) const
{
    const int64_t away = m_machine.NsToTrouble(TimeOf(at));
    faults.bMachine = faults.bMachine && away <= kTroubledNs;
    faults.text += (faults.text.empty() ? "" : ", ") + what + " (frame " + std::to_string(at) +
                   ", " + std::to_string(away / 1'000'000) + " ms from the machine's trouble)";
}

void Hearing::Conclude(const Play& play, const Faults& faults)
{
    if (faults.text.empty())
        return;
    if (faults.bMachine)
    {
        ++m_findings.excused;
        return;
    }
    m_findings.lost += faults.lost;
    m_findings.doubled += faults.doubled;
    m_findings.underruns += faults.underruns;
    std::ostringstream text;
    text << play.kind << " of " << play.stretch.count << " frames from " << play.stretch.first
         << (play.bStopped ? ", stopped" : ", played out") << ", from " << play.startAt << " to "
         << play.endAt << " of the recording";
    for (const Play::Seek& seek : play.seeks)
        text << ", sought at " << seek.askedAt << " to " << seek.target;
    for (const Play::Pause& pause : play.pauses)
        text << ", paused from " << pause.from << " to " << pause.to;
    text << ": " << faults.text;
    m_report.Fail(text.str());
}

int64_t Hearing::TimeOf(size_t at) const
{
    const auto cycle =
        std::find_if(m_cycles.begin(), m_cycles.end(),
                     [&](const MonitorRecording::Cycle& c) { return c.endFrame > at; });
    return cycle == m_cycles.end() ? m_cycles.back().graphNs : cycle->graphNs;
}
