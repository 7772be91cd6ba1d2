#include "open_tracks_snapshots.h"

namespace kest::analytics::db {

void OpenTracksSnapshots::publish(std::shared_ptr<const OpenTracks> tracks)
{
    std::shared_ptr<const OpenTracks> dropped;  //< Released outside the lock.
    std::lock_guard lock(m_mutex);
    m_bySeq[tracks->seq] = std::move(tracks);
    if (m_bySeq.size() > kKept) {
        dropped = std::move(m_bySeq.begin()->second);
        m_bySeq.erase(m_bySeq.begin());
    }
}

void OpenTracksSnapshots::withdraw(std::int64_t seq)
{
    std::shared_ptr<const OpenTracks> dropped;
    std::lock_guard lock(m_mutex);
    if (auto it = m_bySeq.find(seq); it != m_bySeq.end()) {
        dropped = std::move(it->second);
        m_bySeq.erase(it);
    }
}

std::shared_ptr<const OpenTracks> OpenTracksSnapshots::get(std::int64_t seq) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_bySeq.find(seq);
    return it == m_bySeq.end() ? nullptr : it->second;
}

}  // namespace kest::analytics::db
