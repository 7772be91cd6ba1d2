#pragma once

namespace kest::sql {

/**
 * The process's SQLite VFS: the system's own, but memory-mapped reads of a database come from
 * one map of the file per process, shared by its connections and kept across commits.
 *
 * SQLite maps the file once per connection and unmaps it whenever another connection has
 * committed, so under ingest every search met a cold map (and a page was faulted in once per
 * lookup worker). Here a connection's view of the map grows with the file instead.
 */
class SharedMapVfs
{
public:
    /**
     * Registers the VFS as the process's default on first call (before any connection opens,
     * so that no connection to a store bypasses it). False if SQLite refused it.
     */
    static bool install();
};

}  // namespace kest::sql
