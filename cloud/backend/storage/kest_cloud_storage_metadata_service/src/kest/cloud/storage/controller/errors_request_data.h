#pragma once

#include <QUrlQuery>
#include <boost/describe/class.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kest::cloud::storage::metadatadb {

/** What a save-errors request asks for; every field is optional. */
struct ErrorsRequestData
{
    /** Milliseconds since the Unix epoch: errors before it are not reported (and are pruned). */
    std::optional<std::chrono::milliseconds> timestamp;
    /** At most this many devices are reported. */
    std::optional<std::uint32_t> count;
    /** Prune the history up to `timestamp` before reading it. */
    std::optional<bool> clearData;

    friend bool operator==(const ErrorsRequestData&, const ErrorsRequestData&) = default;
};

BOOST_DESCRIBE_STRUCT(ErrorsRequestData, (), (timestamp, count, clearData))

/**
 * Reads the query as deployed clients write it:
 * - "timestamp" only when longer than two characters, as std::stoul reads it (leading digits,
 *   the rest ignored);
 * - "clearData" always set, true only for exactly "true";
 * - "count" when not empty; text that is not a number reads as 0.
 * Returns true whenever it returns: a timestamp that std::stoul cannot read throws its
 * std::invalid_argument or std::out_of_range instead.
 */
bool loadFromUrlQuery(const QUrlQuery& query, ErrorsRequestData* data);
/**
 * The same, but never throws: a timestamp that does not convert makes it return false with
 * `error` naming the item. The request frame reads the query with this one.
 */
bool loadFromUrlQuery(const QUrlQuery& query, ErrorsRequestData* data, std::string* error);

/**
 * Replaces `query` with the present fields. The timestamp is written with a unit ("5ms"), so that
 * even a small one is longer than the two characters the reader ignores.
 */
void serializeToUrlQuery(const ErrorsRequestData& data, QUrlQuery* query);

/** "timestamp: 1000 count: 5 clearData: true", absent fields left out. */
std::string toString(const ErrorsRequestData& data);

}  // namespace kest::cloud::storage::metadatadb
