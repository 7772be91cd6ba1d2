#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <kest/vms_common/zu_uuid.h>

#include "attribute.h"
#include "object_track_ex.h"

namespace kest::analytics::db {

/**
 * The compact binary forms in which the storage keeps attribute sets and position sequences
 * (fixed-width little-endian numbers, length-prefixed strings). Decoding stops at the first
 * malformed entry and keeps what came before it.
 */
std::string encodeUuid(const ZuUuid& id);
ZuUuid decodeUuid(std::string_view bytes);

std::string encodeAttributes(const std::vector<common::metadata::Attribute>& attributes);
std::vector<common::metadata::Attribute> decodeAttributes(std::string_view bytes);

/**
 * The positions of one track written in one batch, as stored: per position a flags byte, the
 * time as a zigzag varint delta from the previous position, the duration as a zigzag varint,
 * the box as four doubles, then the device and the attributes only when they differ from the
 * previous position's (flags bit 0 and bit 1), which for a track they rarely do.
 */
class PositionChunk
{
public:
    void append(const ZuUuid& deviceId, std::int64_t timestampUs, std::int64_t durationUs,
                const common::metadata::Rect& box,
                const std::vector<common::metadata::Attribute>& attributes);
    const std::string& bytes() const { return m_bytes; }
    bool empty() const { return m_bytes.empty(); }

private:
    std::string m_bytes;
    bool m_started = false;
    ZuUuid m_deviceId;
    std::int64_t m_timestampUs = 0;
    std::vector<common::metadata::Attribute> m_attributes;
};

std::string encodePositions(const std::vector<ObjectPosition>& positions);
/** Appends the decoded positions of a chunk to `out`. */
void decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out);
/** The chunk form of schema version 1: fixed-width fields, device and attributes each time. */
void decodePositionsV1(std::string_view bytes, std::vector<ObjectPosition>* out);

/** The words free-text search finds: every attribute name and value, one attribute a line. */
std::string attributesSearchText(const std::vector<common::metadata::Attribute>& attributes);

}  // namespace kest::analytics::db
