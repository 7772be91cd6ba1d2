#pragma once

#include <cstdint>
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
 * with COPY and merges them with one INSERT ... ON CONFLICT per batch.
 */
class PostgresStore : public ComparedStore
{
public:
    /** `connection` is a libpq connection string; not open (see lastError) on failure. */
    explicit PostgresStore(const std::string& connection);
    ~PostgresStore() override;

    bool isOpen() const { return m_connection != nullptr; }
    std::string name() const override { return "postgresql"; }
    std::string description() const override;
    bool load(const std::vector<PacketPtr>& packets) override;
    bool finishLoading() override;
    bool search(const analytics::db::Filter& filter, std::size_t* tracks) override;
    std::uint64_t bytesOnDisk() override;
    double serverCpuSeconds() override;
    std::string lastError() const override { return m_error; }

    /** The query of a filter and its parameters, in text form. */
    struct Query
    {
        std::string sql;
        std::vector<std::string> parameters;
    };
    static Query queryOf(const analytics::db::Filter& filter, std::int64_t maxSpanUs);
    /** A value as COPY's text format carries it. */
    static std::string copyEscaped(std::string_view text);

private:
    bool exec(const std::string& sql);
    bool copy(const std::string& table, const std::string& rows);
    bool loadBatch(const std::vector<PacketPtr>& packets, std::size_t begin, std::size_t end);
    bool fail(const std::string& what);

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
    std::map<std::string, std::string> m_prepared;
    std::string m_settings;
};

}  // namespace kest::bench
