#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <kest/vms_common/zu_uuid.h>

#include "bounding_box_grid.h"
#include "object_metadata_packet.h"
#include "object_track_ex.h"

namespace kest::analytics::db {

/**
 * What the storage keeps of one track, built from its records one at a time. Every rule is
 * order-independent, so that packets arriving late, twice or across restarts give the same track:
 * - first appearance is the earliest packet start, last appearance the latest packet end;
 * - attributes are the set of distinct name/value pairs, sorted;
 * - the grid is the union of all boxes;
 * - device, type and engine come from the earliest record, preferring a non-empty type, ties
 *   broken by the smaller type, engine and device;
 * - the best shot is the externalBestShot record if any, else a bestShot record; among those the
 *   latest, ties broken by the smaller rectangle and stream.
 */
struct TrackAggregate
{
    /** One object with what the aggregate takes of it and of its packet. */
    struct Sighting
    {
        std::int64_t startUs = 0;
        std::int64_t durationUs = 0;
        const ZuUuid& deviceId;
        const std::string& typeId;
        const ZuUuid& engineId;
        common::metadata::ObjectMetadataType kind;
        const common::metadata::Rect& box;
        common::metadata::StreamIndex stream;
    };

    static constexpr std::int64_t kNoTime = std::numeric_limits<std::int64_t>::max();

    ZuUuid id;
    ZuUuid deviceId;
    std::string typeId;
    ZuUuid engineId;
    /** Start of the packet whose record gave device, type and engine. */
    std::int64_t originUs = kNoTime;
    std::int64_t firstUs = kNoTime;
    std::int64_t lastUs = std::numeric_limits<std::int64_t>::min();
    BoundingBoxGrid grid;
    BestShot bestShot;
    /** The `ObjectMetadataType` value of the best-shot record; 0 when there is none. */
    int bestShotKind = 0;
    std::vector<common::metadata::Attribute> attributes;

    /** Adds one record. Returns true when the attribute set grew. */
    bool add(const common::metadata::ObjectMetadataPacket& packet,
             const common::metadata::ObjectMetadata& object);
    /** add() in two parts, for callers that know the attributes are those of the last record. */
    void addSighting(const Sighting& sighting);
    bool addAttributes(const std::vector<common::metadata::Attribute>& attributes);

    /** Merges another aggregate of the same track. Returns true when the attribute set grew. */
    bool merge(const TrackAggregate& other);

    bool hasData() const { return firstUs != kNoTime; }

    /** The track as searches return it, without positions. */
    ObjectTrackEx toTrack() const&;
    /** The same, taking the type and attributes over. */
    ObjectTrackEx toTrack() &&;

private:
    void takeOrigin(std::int64_t originUs, const ZuUuid& deviceId, const std::string& typeId,
                    const ZuUuid& engineId);
    void takeBestShot(const BestShot& shot, int kind);
    bool addAttribute(const common::metadata::Attribute& attribute);
};

/** The order of a full track's positions: by time, then by every other field. */
void sortPositions(std::vector<ObjectPosition>* positions);

}  // namespace kest::analytics::db
