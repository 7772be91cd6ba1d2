#include "activity_index.h"

#include "track_aggregate.h"

namespace kest::analytics::db {

using sql::DBResult;

namespace {

std::int64_t msOf(std::int64_t us)
{
    return us / 1000 - (us % 1000 < 0 ? 1 : 0);
}

}  // namespace

ActivityIndex::Entry ActivityIndex::entryOf(std::int64_t device, std::int64_t type,
                                            std::int64_t firstUs, std::int64_t spanUs,
                                            std::int64_t best)
{
    Entry entry;
    // The span is modular, as the writer keeps it: tracks near the ends of time stay defined.
    const auto lastUs = static_cast<std::int64_t>(static_cast<std::uint64_t>(firstUs) +
                                                  static_cast<std::uint64_t>(spanUs));
    entry.firstMs = msOf(firstUs);
    entry.lastMs = msOf(lastUs);
    entry.device = static_cast<std::uint32_t>(device);
    entry.type = static_cast<std::uint16_t>(type);
    entry.bestShot = best != 0;
    entry.present = true;
    return entry;
}

DBResult ActivityIndex::load(sql::Database& db)
{
    clear();
    // One read transaction, so that the rows are of the version read first.
    if (auto r = db.exec("BEGIN"); r != DBResult::ok)
        return r;
    struct End
    {
        sql::Database& db;
        ~End() { db.exec("COMMIT"); }
    } end{db};
    Version version{0, 0};
    {
        auto meta = db.prepare("SELECT key, value FROM meta WHERE key IN ('seq', ?)");
        if (!meta)
            return db.lastResult();
        meta->bindText(1, kRetentionsKey);
        while (meta->step()) {
            if (meta->text(0) == "seq")
                version.seq = meta->int64(1);
            else
                version.retentions = meta->int64(1);
        }
        if (meta->result() != DBResult::ok)
            return meta->result();
    }
    auto rows =
        db.prepare("SELECT id, device, type, first_us, span_us, best FROM track ORDER BY id");
    if (!rows)
        return db.lastResult();
    while (rows->step()) {
        const std::int64_t device = rows->int64(1);
        const std::int64_t type = rows->int64(2);
        if (device < 0 || device > 0xFFFFFFFF || type < 0 || type > kMaxTypeKey) {
            disable();
            continue;
        }
        stage(rows->int64(0),
              entryOf(device, type, rows->int64(3), rows->int64(4), rows->int64(5)));
        // Staged changes of a large store are applied as they come rather than held twice.
        if (m_staged.size() >= 65536) {
            std::unique_lock lock(m_mutex);
            for (const Change& change : m_staged)
                apply(change);
            m_staged.clear();
        }
    }
    if (rows->result() != DBResult::ok)
        return rows->result();
    rows.reset();
    publish(version);
    return DBResult::ok;
}

void ActivityIndex::clear()
{
    std::unique_lock lock(m_mutex);
    m_entries.clear();
    m_base = 0;
    m_size = 0;
    m_version = Version();
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

void ActivityIndex::publish(Version version)
{
    std::lock_guard gate(m_gate);
    std::unique_lock lock(m_mutex);
    for (const Change& change : m_staged)
        apply(change);
    m_staged.clear();
    m_version = version;
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
