#include "report.h"

#include <algorithm>
#include <iomanip>
#include <iostream>

namespace
{

// What is printed of a run in which everything fails.
constexpr size_t kMostPrinted = 100;

double Milliseconds(std::chrono::microseconds time)
{
    return static_cast<double>(time.count()) / 1000.0;
}

} // namespace

void Report::AddPlay(const std::string& kind)
{
    const std::lock_guard lock(m_mutex);
    ++m_kinds[kind].plays;
}

void Report::AddStop(const std::string& kind, std::chrono::microseconds taken)
{
    const std::lock_guard lock(m_mutex);
    Kind& entry = m_kinds[kind];
    ++entry.stops;
    entry.worstStop = std::max(entry.worstStop, taken);
}

void Report::AddText(const std::string& text)
{
    const std::lock_guard lock(m_mutex);
    ++m_texts[text];
}

void Report::Fail(const std::string& what)
{
    const std::lock_guard lock(m_mutex);
    if (m_failures++ < kMostPrinted)
        std::cout << "FAILED: " << what << std::endl;
}

size_t Report::Plays() const
{
    const std::lock_guard lock(m_mutex);
    size_t plays = 0;
    for (const auto& [name, kind] : m_kinds)
        plays += kind.plays;
    return plays;
}

size_t Report::Failures() const
{
    const std::lock_guard lock(m_mutex);
    return m_failures;
}

std::chrono::microseconds Report::WorstStop() const
{
    const std::lock_guard lock(m_mutex);
    std::chrono::microseconds worst{0};
    for (const auto& [name, kind] : m_kinds)
        worst = std::max(worst, kind.worstStop);
    return worst;
}

std::ostream& operator<<(std::ostream& out, const Report& report)
{
    const std::lock_guard lock(report.m_mutex);
    out << "Plays, and the longest Stop of each kind:\n" << std::fixed << std::setprecision(1);
    for (const auto& [name, kind] : report.m_kinds)
        out << std::setw(8) << kind.plays << "  " << std::left << std::setw(24) << name
            << std::right << std::setw(8) << Milliseconds(kind.worstStop) << " ms\n";
    out << "Texts:\n";
    for (const auto& [text, count] : report.m_texts)
        out << std::setw(8) << count << "  " << (text.empty() ? "(none)" : text) << '\n';
    return out;
}
