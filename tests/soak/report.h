// What the listeners met, of all rounds together; it does not grow with them.
#pragma once

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>

class Report
{
public:
    void AddPlay(const std::string& kind);
    void AddStop(const std::string& kind, std::chrono::microseconds taken);

    // A text that the player told, on its own or as a stream's report.
    void AddText(const std::string& text);

    // Something that must not be. It is printed at once.
    void Fail(const std::string& what);

    size_t Plays() const;
    size_t Failures() const;
    std::chrono::microseconds WorstStop() const;

    // Plays, stops and texts, a line each.
    friend std::ostream& operator<<(std::ostream& out, const Report& report);

private:
    struct Kind
    {
        size_t plays = 0;
        size_t stops = 0;
        std::chrono::microseconds worstStop{0};
    };

    mutable std::mutex m_mutex; // guards the three below
    std::map<std::string, Kind> m_kinds;
    std::map<std::string, size_t> m_texts;
    size_t m_failures = 0;
};
