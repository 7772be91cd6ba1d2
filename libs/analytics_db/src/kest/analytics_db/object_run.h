#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "attribute_code.h"
#include "rect.h"

namespace kest::analytics::db {

/** One object of a run with the fields of its packet; names and ids as dictionary keys. */
struct ObjectRecord
{
    std::int64_t timestampUs = 0;
    std::int64_t durationUs = 0;
    std::uint32_t device = 0;
    std::uint32_t type = 0;
    std::uint32_t engine = 0;
    /** `ObjectMetadataType`. */
    std::uint8_t kind = 1;
    /** `StreamIndex` plus one. */
    std::uint8_t stream = 0;
    common::metadata::Rect box;
    /** Index into the run's attribute lists. */
    std::uint32_t attributes = 0;

    friend bool operator==(const ObjectRecord&, const ObjectRecord&) = default;
};

/**
 * The binary form of a run of objects of one track: a track's positions as stored, or the
 * objects of one track that one batch brought. Each field is predicted from the object before:
 * times as deltas (or deltas of deltas) in the largest unit that divides them, box coordinates
 * in millionths (FixedPoint) as deltas, deltas of deltas, or not at all when they never change,
 * whichever is shortest for the run; what rarely changes (duration, attributes, device, kind,
 * type, engine, stream) only when it does. A typical position of a moving object takes 5 to 9
 * bytes. The attribute lists that the objects name are written once, at the start.
 */
class ObjectRun
{
public:
    /** `baseUs`: what the first time is written against (a track's first appearance). */
    static std::string encode(std::span<const ObjectRecord> records,
                              const std::vector<AttributeList>& lists, std::int64_t baseUs);

    /**
     * Appends the run's objects to `records` and replaces `lists`; false for bytes that are not
     * a whole run (what was read before the fault is kept).
     */
    static bool decode(std::string_view bytes, std::int64_t baseUs,
                       std::vector<ObjectRecord>* records, std::vector<AttributeList>* lists);
};

}  // namespace kest::analytics::db
