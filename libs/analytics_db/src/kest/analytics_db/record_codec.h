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

/** Appends one position to a chunk; a chunk is positions one after another. */
void appendPosition(std::string* chunk, const ZuUuid& deviceId, std::int64_t timestampUs,
                    std::int64_t durationUs, const common::metadata::Rect& box,
                    const std::vector<common::metadata::Attribute>& attributes);
std::string encodePositions(const std::vector<ObjectPosition>& positions);
/** Appends the decoded positions of a chunk to `out`. */
void decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out);

/** The words free-text search finds: every attribute name and value, one attribute a line. */
std::string attributesSearchText(const std::vector<common::metadata::Attribute>& attributes);

}  // namespace kest::analytics::db
