#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_metadata_packet.h>

namespace kest::bench {

using PacketPtr = std::shared_ptr<const common::metadata::ObjectMetadataPacket>;

/**
 * One way of storing the generated metadata, loaded and searched the same way as every other, so
 * that their figures can stand side by side.
 */
class ComparedStore
{
public:
    virtual ~ComparedStore() = default;

    virtual std::string name() const = 0;
    /** One line on how it is set up: layout, indexes and durability. */
    virtual std::string description() const = 0;

    /** Stores the packets; when it returns they are committed as durably as the store commits. */
    virtual bool load(const std::vector<PacketPtr>& packets) = 0;
    /**
     * After the last packet, timed with the load: what the store still has to write once no
     * more data comes (the tracks ours holds open).
     */
    virtual bool finishWriting() { return true; }
    /** After the last packet, untimed: what an operator runs after a bulk load. */
    virtual bool finishLoading() { return true; }

    /**
     * Runs the search and reads its whole answer, positions too when the filter asks for the full
     * track; `tracks` gets how many tracks it found.
     */
    virtual bool search(const analytics::db::Filter& filter, std::size_t* tracks) = 0;
    /** Untimed, before each search: what the store does between searches. */
    virtual void beforeSearch() {}

    /**
     * Everything the store keeps on disk for the data, its logs folded in; after the searches, as
     * a store may close to be measured.
     */
    virtual std::uint64_t bytesOnDisk() = 0;

    /**
     * Adds what a careful engineer adds for the searches once the data is in (indexes, fresh
     * statistics); from then on the store is its tuned variant, named `name()` as well. False
     * when the store has no tuned variant or adding failed (see lastError).
     */
    virtual bool tune() { return false; }

    /** CPU seconds spent outside this process for the store so far (a database server). */
    virtual double serverCpuSeconds() { return 0; }

    virtual std::string lastError() const { return {}; }
};

}  // namespace kest::bench
