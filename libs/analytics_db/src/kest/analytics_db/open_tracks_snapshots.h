#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include <boost/unordered/unordered_flat_map.hpp>

#include <kest/utils/mutex.h>

#include "open_track_view.h"
#include "uuid_hash.h"

namespace kest::analytics::db {

/** The open tracks as of one commit of the writer. */
struct OpenTracks
{
    /** The commit, as the store's "seq" meta value names it. */
    std::int64_t seq = 0;
    std::vector<std::shared_ptr<const OpenTrackView>> tracks;
    /**
     * Indexes into `tracks`: by track id (flat: made anew for every commit, one block where a
     * chained map took one per track), and by device.
     */
    boost::unordered_flat_map<ZuUuid, std::size_t, UuidHash> byId;
    std::unordered_map<ZuUuid, std::vector<std::size_t>> byDevice;
    /** Those that the store holds an older row of, by row id. */
    std::vector<std::int64_t> replacedRows;
};

/**
 * Hands the writer's open tracks to searches so that each search sees them exactly as of the
 * commit its read transaction sees: the writer publishes a commit's open tracks before the commit
 * and withdraws them if it fails; a search reads the store's seq, then takes that commit's.
 */
class OpenTracksSnapshots
{
public:
    using Clock = std::chrono::steady_clock;
    using Dropped = std::vector<std::shared_ptr<const OpenTracks>>;
    /** Takes the commits that publish() and dropSuperseded() drop, to release them elsewhere. */
    using Releaser = std::function<void(Dropped)>;

    /**
     * Commits kept: a search that falls further behind retries. A search takes its commit's
     * tracks right after it reads the seq, so a few suffice; each costs an index of every open
     * track (about 80 bytes a track), which at 32 kept was a quarter of the heap under ingest.
     */
    static constexpr std::size_t kKept = 8;
    /**
     * How long a commit's tracks are kept once a newer commit is published. Each holds the
     * views of its time, and with them the runs of tracks that have been written since: kept
     * until eight more commits came, the last ones of a load stayed for as long as the writer
     * was idle (a third of the heap after a 20 s load).
     */
    static constexpr std::chrono::milliseconds kSupersededFor{1000};

    /**
     * Commits that are dropped go to `releaser`, from then on: an index of every open track and
     * the views that only it held, whose freeing took the writer as long as making a new one.
     * Without one they are released by the caller of publish() and dropSuperseded().
     */
    void setReleaser(Releaser releaser);

    void publish(std::shared_ptr<const OpenTracks> tracks, Clock::time_point now = Clock::now());
    void withdraw(std::int64_t seq);
    /**
     * Drops the commits superseded for kSupersededFor by `now` (the latest stays); how many.
     * The writer calls it while idle, when no publish does.
     */
    std::size_t dropSuperseded(Clock::time_point now = Clock::now());
    /** Null when `seq` is not kept (any more). */
    std::shared_ptr<const OpenTracks> get(std::int64_t seq) const;
    /** Commits kept now. */
    std::size_t kept() const;

private:
    struct Kept
    {
        std::shared_ptr<const OpenTracks> tracks;
        /** When the next commit was published; none for the latest. */
        std::optional<Clock::time_point> supersededAt;
    };
    void publishLocked(std::shared_ptr<const OpenTracks> tracks, Clock::time_point now,
                       Dropped* dropped);
    /** Under m_mutex; the dropped ones go to `dropped`, to be released outside the lock. */
    void dropOld(Clock::time_point now, Dropped* dropped);
    /** Outside m_mutex. */
    void release(Dropped dropped);

    mutable Mutex m_mutex;
    Releaser m_releaser;
    std::map<std::int64_t, Kept> m_bySeq;
};

}  // namespace kest::analytics::db
