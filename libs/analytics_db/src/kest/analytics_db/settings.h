#pragma once

#include <QString>
#include <chrono>
#include <cstddef>

#include <kest/sql/connection_options.h>

class ZuSettings;

namespace kest::analytics::db {

/** Settings of the analytics events database (group "analyticsDb"). */
class Settings
{
public:
    /** "path": the database directory. Empty until loaded; the service fills in its default. */
    QString path;
    /**
     * Connection tuning ("journalMode", "synchronous", "cacheSizeKb", "mmapSizeMb" of the
     * searches, "busyTimeoutMs").
     */
    kest::sql::ConnectionOptions connection;
    /** Larger ages are taken as this one (about 270 years), so the cutoff time cannot overflow. */
    static constexpr int kMaxAgeDaysLimit = 100'000;
    /** Longer commit delays are taken as this one; a day-long delay is a typo, not a setting. */
    static constexpr std::chrono::milliseconds kMaxCommitDelayLimit{3'600'000};

    /** "maxAgeDays": tracks last seen longer ago are deleted in the background; 0 keeps all. */
    int maxAgeDays = 0;
    /** "maxQueuedPackets": above this many packets waiting to be written, the storage is not ready.
     */
    std::size_t maxQueuedPackets = 200'000;
    /**
     * "maxQueuedMb": above this much memory held by packets accepted and not yet written, the
     * storage is not ready either. Packets vary a lot in size, so their count alone does not bound
     * the memory; this is what keeps the process small while the writer falls behind.
     */
    std::size_t maxQueuedBytes = 64 * 1024 * 1024;
    /**
     * "writerCacheSizeKb": the writer's page cache; "cacheSizeKb" is the searches'. The writer
     * touches the few pages where new rows go, and a large cache there only fills with what it
     * wrote: at 64 MiB it was a quarter of the process under a steady HTTP load.
     */
    int writerCacheSizeKb = 16 * 1024;
    /**
     * "maxOpenTracksMb": the runs of objects that the open tracks hold in memory, at most
     * (estimated). Past it the tracks that hold the most are written as they go, as long tracks
     * are, so that a load whose tracks do not end (or end later than the memory allows) does not
     * grow the process with every batch.
     */
    std::size_t maxOpenTrackBytes = 16 * 1024 * 1024;
    /** "maxCommitDelayMs": how long an accepted packet may wait before its batch is committed. */
    std::chrono::milliseconds maxCommitDelay{200};
    /**
     * "ackAfterCommit": saves are answered once their packets are committed, so that a crash
     * loses nothing acknowledged; commits are then shared by the saves that wait together.
     */
    bool ackAfterCommit = false;

    /** Reads the group's keys; missing keys keep their defaults. */
    void load(const ZuSettings& settings, const QString& group = "analyticsDb");
};

}  // namespace kest::analytics::db
