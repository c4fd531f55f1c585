#include "queue.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

void Queue::Add(Entry entry)
{
    entry.id = ++m_lastId;
    m_order.push_back(m_entries.size());
    m_entries.push_back(std::move(entry));
    if (m_bShuffle)
        Mix(m_at == kNone ? 0 : m_at + 1);
}

void Queue::Replace(size_t index, std::vector<Entry> entries)
{
    const size_t count = entries.size();
    for (Entry& entry : entries)
        entry.id = ++m_lastId;
    const auto place = m_entries.begin() + static_cast<std::ptrdiff_t>(index);
    m_entries.insert(m_entries.erase(place), std::make_move_iterator(entries.begin()),
                     std::make_move_iterator(entries.end()));

    const auto found = std::find(m_order.begin(), m_order.end(), index);
    const auto at = static_cast<size_t>(found - m_order.begin());
    for (size_t& other : m_order)
        other += other > index ? count - 1 : 0; // wraps around where there are none
    std::vector<size_t> fresh(count);
    std::iota(fresh.begin(), fresh.end(), index);
    if (m_bShuffle)
        std::shuffle(fresh.begin(), fresh.end(), m_random);
    m_order.insert(m_order.erase(found), fresh.begin(), fresh.end());
    if (m_at != kNone && (m_at > at || (m_at == at && count == 0)))
        m_at += count - 1; // of the first one kNone
}

size_t Queue::Next(bool bByItself)
{
    if (m_entries.empty())
        return kNone;
    if (bByItself && m_repeat == Repeat::One && m_at != kNone)
        return Current();
    if (m_at + 1 < m_order.size()) // kNone + 1 is 0
        ++m_at;
    else if (m_repeat != Repeat::Off)
    {
        const size_t last = Current();
        m_at = 0;
        if (m_bShuffle)
        {
            Mix(0);
            if (m_order.front() == last) // twice in a row
                std::swap(m_order.front(), m_order.back());
        }
    }
    else
        return kNone;
    return Current();
}

size_t Queue::Previous()
{
    if (!HasPrevious())
        return kNone;
    m_at = m_at > 0 ? m_at - 1 : m_order.size() - 1;
    return Current();
}

size_t Queue::Choose(size_t index)
{
    const auto found = std::find(m_order.begin(), m_order.end(), index);
    if (found == m_order.end())
        return kNone;
    const auto place = static_cast<size_t>(found - m_order.begin());
    if (!m_bShuffle || place == m_at)
        m_at = place;
    else if (const auto next = m_order.begin() + static_cast<std::ptrdiff_t>(m_at + 1);
             found >= next) // kNone + 1 is 0
    {
        std::rotate(next, found, found + 1);
        ++m_at;
    }
    else
        std::rotate(found, found + 1, next); // behind what has become the one before
    return index;
}

bool Queue::HasNext() const
{
    return !m_entries.empty() && (m_at + 1 < m_order.size() || m_repeat != Repeat::Off);
}

bool Queue::HasPrevious() const
{
    return m_at != kNone && (m_at > 0 || m_repeat != Repeat::Off);
}

void Queue::SetShuffle(bool bShuffle)
{
    if (std::exchange(m_bShuffle, bShuffle) == bShuffle)
        return;
    const size_t current = Current();
    std::sort(m_order.begin(), m_order.end());
    m_at = current; // in order each stands at its own place
    if (!bShuffle)
        return;
    // Wherever it stood, all others are still to come.
    if (current != kNone)
    {
        std::rotate(m_order.begin(), m_order.begin() + static_cast<std::ptrdiff_t>(current),
                    m_order.begin() + static_cast<std::ptrdiff_t>(current) + 1);
        m_at = 0;
    }
    Mix(current == kNone ? 0 : 1);
}

void Queue::Mix(size_t from)
{
    std::shuffle(m_order.begin() + static_cast<std::ptrdiff_t>(from), m_order.end(), m_random);
}
