#include "open_tracks_snapshots.h"

#include <iterator>

namespace kest::analytics::db {

void OpenTracksSnapshots::publish(std::shared_ptr<const OpenTracks> tracks, Clock::time_point now)
{
    std::vector<std::shared_ptr<const OpenTracks>> dropped;  //< Released outside the lock.
    std::lock_guard lock(m_mutex);
    const std::int64_t seq = tracks->seq;
    m_bySeq[seq] = {std::move(tracks), std::nullopt};
    for (auto it = m_bySeq.find(seq); it != m_bySeq.begin();) {
        --it;
        if (it->second.supersededAt)
            break;
        it->second.supersededAt = now;
    }
    while (m_bySeq.size() > kKept) {
        dropped.push_back(std::move(m_bySeq.begin()->second.tracks));
        m_bySeq.erase(m_bySeq.begin());
    }
    dropOld(now, &dropped);
}

void OpenTracksSnapshots::withdraw(std::int64_t seq)
{
    std::shared_ptr<const OpenTracks> dropped;
    std::lock_guard lock(m_mutex);
    if (auto it = m_bySeq.find(seq); it != m_bySeq.end()) {
        dropped = std::move(it->second.tracks);
        const bool latest = std::next(it) == m_bySeq.end();
        it = m_bySeq.erase(it);
        // The commit before it is the latest again.
        if (latest && it != m_bySeq.begin())
            std::prev(it)->second.supersededAt.reset();
    }
}

std::size_t OpenTracksSnapshots::dropSuperseded(Clock::time_point now)
{
    std::vector<std::shared_ptr<const OpenTracks>> dropped;
    std::lock_guard lock(m_mutex);
    dropOld(now, &dropped);
    return dropped.size();
}

void OpenTracksSnapshots::dropOld(Clock::time_point now,
                                  std::vector<std::shared_ptr<const OpenTracks>>* dropped)
{
    for (auto it = m_bySeq.begin(); it != m_bySeq.end();) {
        const auto& superseded = it->second.supersededAt;
        if (!superseded || now - *superseded < kSupersededFor)
            break;
        dropped->push_back(std::move(it->second.tracks));
        it = m_bySeq.erase(it);
    }
}

std::shared_ptr<const OpenTracks> OpenTracksSnapshots::get(std::int64_t seq) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_bySeq.find(seq);
    return it == m_bySeq.end() ? nullptr : it->second.tracks;
}

std::size_t OpenTracksSnapshots::kept() const
{
    std::lock_guard lock(m_mutex);
    return m_bySeq.size();
}

}  // namespace kest::analytics::db
