#pragma once

// The URL-query form of a search filter, as instances send searches to each other, and its text
// form for logs.
//
// Items, each written only when the field differs from its default:
//   "deviceIds"                one item per device, UUID in simple form (braces are accepted)
//   "objectTypeId"             one item per type
//   "objectTrackId"            UUID
//   "startTimeMs", "durationMs" the time period, decimal; a missing one keeps its default; a
//                              duration is 0 or more, or -1 for no end
//   "boundingBox"              "x,y,width,height", decimal numbers from 0 to 1
//   "freeText"                 text
//   "maxObjectTracksToSelect"  decimal
//   "needFullTrack", "withBestShotOnly"  "true" or "false"
//   "sortOrder"                "asc" or "desc"
//   "analyticsEngineId"        UUID
// Of a repeated single-valued item the last one counts; other items are ignored.
// The service percent-decodes a query once before splitting it into items, so in text values
// the characters % & = + # ; are escaped twice on the wire ("a&b" travels as "a%2526b").

#include <string>

#include <QUrlQuery>

#include <kest/network/rest/params.h>

#include "filter.h"

namespace kest::analytics::db {

/** Appends the filter's items to `query`. */
void serializeToUrlQuery(const Filter& filter, QUrlQuery* query);

/**
 * Reads a filter from request parameters; items that are missing keep their defaults. False,
 * leaving `filter` untouched, when an item's value is malformed.
 */
bool deserializeFromParams(const kest::network::rest::Params& params, Filter* filter);

/**
 * The same, and on failure `error` names the item, quotes its value and says what it expects:
 * "deviceIds: 'camera-1' is not a UUID: ...".
 */
bool deserializeFromParams(const kest::network::rest::Params& params, Filter* filter,
                           std::string* error);

/**
 * Whether a coordinate or size of a box can be: boxes are in fractions of the frame's width and
 * height, from 0 to 1.
 */
bool isFrameFraction(double value);

/** The filter as compact JSON, for log lines. */
std::string toString(const Filter& filter);

}  // namespace kest::analytics::db
