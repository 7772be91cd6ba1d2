#include "open_tracks_snapshots.h"

#include <iterator>

namespace kest::analytics::db {

void OpenTracksSnapshots::setReleaser(Releaser releaser)
{
    std::lock_guard lock(m_mutex);
    m_releaser = std::move(releaser);
}

void OpenTracksSnapshots::release(Dropped dropped)
{
    if (dropped.empty())
        return;
    Releaser releaser;
    {
        std::lock_guard lock(m_mutex);
        releaser = m_releaser;
    }
    if (releaser)
        releaser(std::move(dropped));
}

void OpenTracksSnapshots::publish(std::shared_ptr<const OpenTracks> tracks, Clock::time_point now)
{
    Dropped dropped;
    {
        std::lock_guard lock(m_mutex);
        publishLocked(std::move(tracks), now, &dropped);
    }
    release(std::move(dropped));
}

void OpenTracksSnapshots::publishLocked(std::shared_ptr<const OpenTracks> tracks,
                                        Clock::time_point now, Dropped* droppedOut)
{
    Dropped& dropped = *droppedOut;
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
    Dropped dropped;
    {
        std::lock_guard lock(m_mutex);
        dropOld(now, &dropped);
    }
    const std::size_t count = dropped.size();
    release(std::move(dropped));
    return count;
}

void OpenTracksSnapshots::dropOld(Clock::time_point now, Dropped* dropped)
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
