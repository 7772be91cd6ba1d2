#pragma once

#include <QUrlQuery>
#include <boost/describe/class.hpp>
#include <string>

#include <kest/analytics_db/filter.h>
#include <kest/network/rest/params.h>

namespace kest::cloud::storage::metadatadb {

/** A track search: the filter, and whether only the asked instance's own storage is searched. */
struct DataRequestData
{
    kest::analytics::db::Filter filter;
    /** Set in the searches instances send each other. */
    bool internal_lookup = false;

    friend bool operator==(const DataRequestData&, const DataRequestData&) = default;
};

BOOST_DESCRIBE_STRUCT(DataRequestData, (), (filter, internal_lookup))

/**
 * Reads the query form: the filter's own items plus "internal_lookup", a base-10 integer whose
 * non-zero value sets the flag (text that is not a number, "true" included, reads as 0). The
 * flag's items never reach the filter reader. False when the filter's items are malformed.
 */
bool loadFromUrlQuery(const QUrlQuery& query, DataRequestData* data);
/** The same; on failure `error` names the filter's item and what it expects. */
bool loadFromUrlQuery(const QUrlQuery& query, DataRequestData* data, std::string* error);

/** The same, from the query's items, of which it removes those it reads. */
bool loadFromParams(kest::network::rest::Params* params, DataRequestData* data, std::string* error);

/** Appends the filter's items, then "internal_lookup" as "1" or "0". */
void serializeToUrlQuery(const DataRequestData& data, QUrlQuery* query);

}  // namespace kest::cloud::storage::metadatadb
