#pragma once

#include <cstdint>

namespace kest::analytics::db {

/**
 * Running figures of an events storage, for load reports and metrics. Counters count from the
 * storage's start; a storage that keeps no figures reports all zeros.
 */
struct StorageStatistics
{
    /** Packets queued for writing. */
    std::uint64_t packetsAccepted = 0;
    /** Packets in committed batches. */
    std::uint64_t packetsCommitted = 0;
    /** Packets reported through the save-error handler. */
    std::uint64_t packetsFailed = 0;
    /** Packets waiting to be written now. */
    std::uint64_t queuedPackets = 0;
    /** Above this many queued packets the storage is not ready; 0 when there is no such mark. */
    std::uint64_t maxQueuedPackets = 0;
    /** Memory held by packets accepted and not yet written (an estimate). */
    std::uint64_t queuedBytes = 0;
    /** The database's files on disk, as last measured by the writer. */
    std::uint64_t storeBytes = 0;
    /** Space left to the storage on its volume, as last measured by the writer. */
    std::uint64_t diskAvailableBytes = 0;
    /**
     * How long the oldest packet accepted and not yet committed has waited (microseconds); 0
     * when every accepted packet is committed. A crash would lose what waits.
     */
    std::uint64_t oldestUncommittedAgeUs = 0;
};

}  // namespace kest::analytics::db
