// What is to be played, in which order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

struct Entry
{
    std::string name;       // of a file, an address, a folder or a playlist
    int depth = 0;          // how many playlists it came through
    std::string label = {}; // what is shown, printable
    bool bFailed = false;
    uint64_t id = 0; // given by the queue, and never to another one
};

enum class Repeat
{
    Off,
    All,
    One,
};

// The list as it is shown, and the way through it. Indices are of the list. One thread.
class Queue
{
public:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    // At the end of both.
    void Add(Entry entry);

    // These stand for the entry at `index` from now on, also where there are none; the current one
    // is the first of them then, or what came before it.
    void Replace(size_t index, std::vector<Entry> entries);

    const std::vector<Entry>& Entries() const { return m_entries; }
    Entry& At(size_t index) { return m_entries[index]; }
    size_t Current() const { return m_at == kNone ? kNone : m_order[m_at]; }

    // The one to play after the current one; kNone at the end. `bByItself`: that has ended, and
    // Repeat::One plays it again. The current one stays where there is none.
    size_t Next(bool bByItself);
    size_t Previous();

    // This one is played now. In a mixed order those between it and the current one still come.
    size_t Choose(size_t index);
    bool HasNext() const;
    bool HasPrevious() const;

    // Mixes all but the current one and puts them behind it, or puts all of them back in order.
    void SetShuffle(bool bShuffle);
    bool IsShuffled() const { return m_bShuffle; }

    void SetRepeat(Repeat repeat) { m_repeat = repeat; }
    Repeat Repeats() const { return m_repeat; }

private:
    void Mix(size_t from);

    std::vector<Entry> m_entries;
    std::vector<size_t> m_order; // indices of m_entries
    size_t m_at = kNone;         // of m_order
    uint64_t m_lastId = 0;
    bool m_bShuffle = false;
    Repeat m_repeat = Repeat::Off;
    std::minstd_rand m_random{std::random_device()()};
};
