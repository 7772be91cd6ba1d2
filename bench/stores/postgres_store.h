#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include <kest/analytics_db/track_aggregate.h>
#include <kest/analytics_db/track_writer.h>

#include "compared_store.h"

struct pg_conn;

namespace kest::bench {

/**
 * PostgreSQL as a careful engineer would lay it out for tracks: one row per track with B-tree
 * indexes on (device, first appearance), type and track id, a GIN index on a tsvector of the
 * attributes and a GiST index on the box the track covered; its positions in a side table, one
 * row of arrays per track and batch. The loader aggregates each batch of packets into tracks
 * (knowing every track it has stored, as the writer of a live system would), sends the rows
 * with COPY and merges them with one INSERT ... ON CONFLICT per batch. `tune()` adds the
 * indexes that each search shape's plan asks for.
 */
class PostgresStore : public ComparedStore
{
public:
    /** `connection` is a libpq connection string; not open (see lastError) on failure. */
    explicit PostgresStore(const std::string& connection);
    ~PostgresStore() override;

    bool isOpen() const { return m_connection != nullptr; }
    std::string name() const override { return m_tuned ? "postgresql tuned" : "postgresql"; }
    std::string description() const override;
    bool load(const std::vector<PacketPtr>& packets) override;
    bool finishLoading() override;
    bool search(const analytics::db::Filter& filter, std::size_t* tracks) override;
    std::uint64_t bytesOnDisk() override;
    bool tune() override;
    double serverCpuSeconds() override;
    /** The plan of the filter's search as run (EXPLAIN ANALYZE, BUFFERS), one line each. */
    std::vector<std::string> explain(const analytics::db::Filter& filter);
    std::string lastError() const override { return m_error; }

    /** The query of a filter and its parameters, in text form. */
    struct Query
    {
        std::string sql;
        std::vector<std::string> parameters;
    };
    /** `tuned`: the query of the tuned store, which tests the stored words column. */
    static Query queryOf(const analytics::db::Filter& filter, std::int64_t maxSpanUs,
                         bool tuned = false);
    /** A value as COPY's text format carries it. */
    static std::string copyEscaped(std::string_view text);

private:
    bool exec(const std::string& sql);
    /** The prepared statement of the query, prepared on first use. */
    const std::string* prepared(const std::string& sql);
    bool copy(const std::string& table, const std::string& rows);
    bool loadBatch(const std::vector<PacketPtr>& packets, std::size_t begin, std::size_t end);
    bool fail(const std::string& what);
    void forgetEndedTracks(std::int64_t nowUs);

    pg_conn* m_connection = nullptr;
    std::string m_error;
    struct Known
    {
        analytics::db::TrackAggregate track;
        /** The bounding rectangle of every box of the track. */
        common::metadata::Rect area;
    };
    std::unordered_map<ZuUuid, Known, analytics::db::UuidHash> m_tracks;
    std::int64_t m_maxSpanUs = 0;
    std::int64_t m_forgottenUpToUs = std::numeric_limits<std::int64_t>::min() / 2;
    std::map<std::string, std::string> m_prepared;
    std::string m_settings;
    bool m_tuned = false;
};

}  // namespace kest::bench
