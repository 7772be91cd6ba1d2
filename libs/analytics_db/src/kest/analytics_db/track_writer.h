#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <kest/sql/database.h>

#include "object_metadata_packet.h"
#include "record_codec.h"
#include "storage_schema.h"
#include "track_aggregate.h"

namespace kest::analytics::db {

using PacketPtr = std::shared_ptr<const common::metadata::ObjectMetadataPacket>;

/** A cheap hash for the writer's maps: ids are random already, so mixing two words is enough. */
struct UuidHash
{
    std::size_t operator()(const ZuUuid& id) const noexcept
    {
        const QUuid& u = id.toQUuid();
        std::uint64_t tail = 0;
        std::memcpy(&tail, u.data4, sizeof(tail));
        const std::uint64_t head =
            (std::uint64_t(u.data1) << 32) ^ (std::uint64_t(u.data2) << 16) ^ u.data3;
        return static_cast<std::size_t>((head ^ tail) * 0x9e3779b97f4a7c15ull);
    }
};

/**
 * The writing side of the events database, used by one thread: merges a batch of packets into
 * their tracks and commits the batch in one transaction. Recently written tracks stay in a
 * bounded cache so that a track seen in every batch is not read back each time.
 */
class TrackWriter
{
public:
    explicit TrackWriter(std::size_t cacheCapacity = 200'000);

    sql::DBResult open(const std::string& file, const sql::ConnectionOptions& options);

    /** All of the batch or nothing of it is stored. */
    sql::DBResult write(const std::vector<PacketPtr>& packets);

    /** Deletes at most `maxRows` tracks last seen before `cutoffUs`; `deleted` gets how many. */
    sql::DBResult deleteExpired(std::int64_t cutoffUs, int maxRows, int* deleted);

    /** The longest track (last minus first appearance) stored, which bounds search scans. */
    const std::atomic<std::int64_t>& maxSpanUs() const { return m_maxSpanUs; }

    sql::Database& database() { return m_db; }
    std::size_t cachedTracks() const { return m_cache.size(); }

private:
    struct Pending
    {
        TrackAggregate track;
        std::int64_t rowId = 0;
        bool attributesChanged = false;
        /** The indexed values as stored before this batch. */
        struct
        {
            std::int64_t firstUs = 0;
            ZuUuid deviceId;
            std::string typeId;
            int bestShotKind = 0;

            void operator=(const TrackAggregate& t)
            {
                firstUs = t.firstUs;
                typeId = t.typeId;
                deviceId = t.deviceId;
                bestShotKind = t.bestShotKind;
            }
        } stored;
        /** Positions of this batch. */
        PositionChunk positions;
    };
    struct Cached
    {
        TrackAggregate track;
        std::int64_t rowId = 0;
        std::list<ZuUuid>::iterator lru;
    };

    sql::DBResult loadTrack(const ZuUuid& id, Pending* pending);
    sql::DBResult storeTrack(Pending& pending);
    sql::DBResult storeMeta(const char* key, std::int64_t value);
    sql::DBResult deviceKey(const ZuUuid& id, std::int64_t* key);
    sql::DBResult typeKey(const std::string& name, std::int64_t* key);
    void remember(Pending&& pending);
    void forget(const ZuUuid& id);

    sql::Database m_db;
    std::size_t m_cacheCapacity;
    std::unordered_map<ZuUuid, Cached, UuidHash> m_cache;
    std::list<ZuUuid> m_lru;
    std::unordered_map<ZuUuid, std::int64_t, UuidHash> m_devices;
    std::unordered_map<std::string, std::int64_t> m_types;
    std::atomic<std::int64_t> m_maxSpanUs{0};
    /** See kMaxLagKey: kept here so that a batch does not read them back. */
    std::int64_t m_maxFirstUs = kNoFirstUs;
    std::int64_t m_maxLagUs = 0;
};

}  // namespace kest::analytics::db
