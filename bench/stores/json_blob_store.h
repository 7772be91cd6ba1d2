#pragma once

#include <filesystem>

#include <kest/sql/database.h>

#include "compared_store.h"

namespace kest::bench {

/**
 * The layout of open-source video recorders: SQLite with one row per detected object (an event),
 * its object as a JSON text, indexed by device and time, by time and by track id, and searched
 * with json_extract and LIKE. A track is the events that share its id.
 */
class JsonBlobStore : public ComparedStore
{
public:
    /** Not open (see lastError) when the database cannot be made in `dir`. */
    explicit JsonBlobStore(std::filesystem::path dir);

    bool isOpen() const { return m_db.isOpen(); }
    std::string name() const override { return "sqlite json"; }
    std::string description() const override;
    bool load(const std::vector<PacketPtr>& packets) override;
    bool search(const analytics::db::Filter& filter, std::size_t* tracks) override;
    std::uint64_t bytesOnDisk() override;
    std::string lastError() const override { return m_db.lastError(); }

    /** The WHERE clause (after "WHERE") and ORDER BY of a filter, for the events table. */
    static std::string whereClause(const analytics::db::Filter& filter);

private:
    std::filesystem::path m_dir;
    sql::Database m_db;
};

}  // namespace kest::bench
