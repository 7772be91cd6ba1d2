#include "activity_index.h"

namespace kest::analytics::db {

void ActivityIndex::clear()
{
    std::unique_lock lock(m_mutex);
    m_entries.clear();
    m_base = 0;
    m_size = 0;
    m_seq = -1;
    m_usable = false;
    m_disabled = false;
    m_staged.clear();
}

void ActivityIndex::stage(std::int64_t rowId, const Entry& entry)
{
    Change change{rowId, entry};
    change.entry.present = true;
    m_staged.push_back(change);
}

void ActivityIndex::stageRemoval(std::int64_t rowId)
{
    m_staged.push_back({rowId, Entry()});
}

void ActivityIndex::publish(std::int64_t seq)
{
    std::unique_lock lock(m_mutex);
    for (const Change& change : m_staged)
        apply(change);
    m_staged.clear();
    m_seq = seq;
    m_usable = !m_disabled;
}

void ActivityIndex::discardStaged()
{
    m_staged.clear();
}

void ActivityIndex::disable()
{
    std::unique_lock lock(m_mutex);
    m_disabled = true;
    m_usable = false;
}

const ActivityIndex::Entry* ActivityIndex::find(std::int64_t rowId) const
{
    if (rowId < m_base || rowId - m_base >= static_cast<std::int64_t>(m_entries.size()))
        return nullptr;
    const Entry& entry = m_entries[static_cast<std::size_t>(rowId - m_base)];
    return entry.present ? &entry : nullptr;
}

void ActivityIndex::apply(const Change& change)
{
    if (!change.entry.present) {
        if (change.rowId < m_base ||
            change.rowId - m_base >= static_cast<std::int64_t>(m_entries.size())) {
            return;
        }
        Entry& entry = m_entries[static_cast<std::size_t>(change.rowId - m_base)];
        if (entry.present) {
            entry.present = false;
            --m_size;
        }
        // Retention removes the oldest rows: the array starts at the oldest one left.
        while (!m_entries.empty() && !m_entries.front().present) {
            m_entries.pop_front();
            ++m_base;
        }
        while (!m_entries.empty() && !m_entries.back().present)
            m_entries.pop_back();
        if (m_entries.empty())
            m_base = 0;
        return;
    }
    if (m_entries.empty())
        m_base = change.rowId;
    for (; change.rowId < m_base; --m_base)
        m_entries.push_front(Entry());
    const auto index = static_cast<std::size_t>(change.rowId - m_base);
    if (index >= m_entries.size())
        m_entries.resize(index + 1);
    Entry& entry = m_entries[index];
    if (!entry.present)
        ++m_size;
    entry = change.entry;
}

}  // namespace kest::analytics::db
