#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include <kest/sql/database.h>

namespace kest::analytics::db {

/**
 * What activity counts need of each stored track, in memory, so that a count over millions of
 * tracks reads neither the track table nor its indexes: per track row, its device and type (the
 * store's keys), its first and last appearance in milliseconds (rounded down) and whether it has
 * a best shot; 24 bytes a track.
 *
 * The writer stages the rows it writes and deletes while its transaction runs, and publishes
 * them once the transaction has committed, with the store's version (its commit and retention
 * numbers, see kRetentionsKey); a failed transaction's changes are dropped. Counts take the
 * shared lock before their read transaction starts and compare the version the entries are of
 * with the one their transaction sees: while they hold the lock nothing is published, so when
 * both agree they stay the same state. Publishing waits for the readers in hand and goes before
 * readers that come later, so that steady counts cannot hold it off. Row ids are the writer's
 * dense numbering, so entries sit in one array from the lowest row id held.
 */
class ActivityIndex
{
public:
    struct Entry
    {
        std::int64_t firstMs = 0;
        std::int64_t lastMs = 0;
        std::uint32_t device = 0;
        std::uint16_t type = 0;
        bool bestShot = false;
        bool present = false;
    };
    /** Type keys up to this fit an entry; a store with larger ones is not indexed. */
    static constexpr std::uint32_t kMaxTypeKey = 0xFFFF;
    /**
     * The meta value that counts the transactions of retention, which delete rows without a
     * commit number of their own.
     */
    static constexpr const char* kRetentionsKey = "retentions";

    /** Which state of the store the entries are of. */
    struct Version
    {
        std::int64_t seq = -1;
        std::int64_t retentions = 0;

        friend bool operator==(const Version&, const Version&) = default;
    };

    /** Reads the index under a shared lock, for as long as it exists. */
    class Reader
    {
    public:
        explicit Reader(const ActivityIndex& index) : m_index(index), m_lock(lockShared(index)) {}

        /** False until the index was loaded, and after it gave up (see disable()). */
        bool usable() const { return m_index.m_usable; }
        /** The commit the entries are of. */
        std::int64_t seq() const { return m_index.m_version.seq; }
        Version version() const { return m_index.m_version; }
        std::size_t size() const { return m_index.m_size; }

        /** Calls `visit(rowId, entry)` for every entry, in row id order. */
        template <typename Visit>
        void forEach(Visit&& visit) const
        {
            std::int64_t rowId = m_index.m_base;
            for (const Entry& entry : m_index.m_entries) {
                if (entry.present)
                    visit(rowId, entry);
                ++rowId;
            }
        }

        /** The entry of the row; null when there is none. */
        const Entry* find(std::int64_t rowId) const { return m_index.find(rowId); }

    private:
        static std::shared_lock<std::shared_mutex> lockShared(const ActivityIndex& index)
        {
            // Past a publish that waits for the lock: it is let in first.
            {
                std::lock_guard gate(index.m_gate);
            }
            return std::shared_lock(index.m_mutex);
        }

        const ActivityIndex& m_index;
        std::shared_lock<std::shared_mutex> m_lock;
    };

    /** What an entry holds of a row of the track table: device, type, first_us, span_us, best. */
    static Entry entryOf(std::int64_t device, std::int64_t type, std::int64_t firstUs,
                         std::int64_t spanUs, std::int64_t best);

    // The writer's side, on one thread.

    /**
     * Reads every row of the store on the writer's connection `db`, in a read transaction, and
     * publishes them with the store's version. Entries that cannot hold a row's keys disable
     * the index.
     */
    sql::DBResult load(sql::Database& db);
    /** Starts again from nothing: the writer loads every row, then publishes. */
    void clear();
    /** A row written (inserted or replaced) by the transaction in progress. */
    void stage(std::int64_t rowId, const Entry& entry);
    /** A row deleted by the transaction in progress. */
    void stageRemoval(std::int64_t rowId);
    /** The transaction committed as `seq`: its rows become what counts read. */
    void publish(std::int64_t seq) { publish(Version{seq, m_version.retentions}); }
    void publish(Version version);
    /** The transaction failed: its rows are forgotten. */
    void discardStaged();
    /** Counts stop using the index (a key too large for an entry); until the next clear(). */
    void disable();

    std::size_t stagedChanges() const { return m_staged.size(); }

private:
    struct Change
    {
        std::int64_t rowId = 0;
        Entry entry;
    };

    const Entry* find(std::int64_t rowId) const;
    void apply(const Change& change);

    /** Taken by a publish while it waits for the readers, so that new ones wait behind it. */
    mutable std::mutex m_gate;
    mutable std::shared_mutex m_mutex;
    std::deque<Entry> m_entries;
    std::int64_t m_base = 0;
    std::size_t m_size = 0;
    Version m_version;
    bool m_usable = false;
    bool m_disabled = false;
    /** Only the writer's thread touches it. */
    std::vector<Change> m_staged;
};

}  // namespace kest::analytics::db
