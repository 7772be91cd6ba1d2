#include "data_request_data.h"

#include <kest/analytics_db/filter_url_query.h>
#include <kest/network/rest/params.h>

namespace kest::cloud::storage::metadatadb {

namespace {

const QString kInternalLookup = "internal_lookup";

}  // namespace

bool loadFromUrlQuery(const QUrlQuery& query, DataRequestData* data)
{
    std::string error;
    return loadFromUrlQuery(query, data, &error);
}

bool loadFromUrlQuery(const QUrlQuery& query, DataRequestData* data, std::string* error)
{
    auto params = kest::network::rest::Params::fromUrlQuery(query);
    return loadFromParams(&params, data, error);
}

bool loadFromParams(kest::network::rest::Params* params, DataRequestData* data, std::string* error)
{
    if (params->contains(kInternalLookup)) {
        // Peers have always sent a number here; a word such as "true" converts to 0.
        data->internal_lookup = params->value(kInternalLookup).toLongLong(nullptr, 10) != 0;
        params->remove(kInternalLookup);
    }
    return kest::analytics::db::deserializeFromParams(*params, &data->filter, error);
}

void serializeToUrlQuery(const DataRequestData& data, QUrlQuery* query)
{
    kest::analytics::db::serializeToUrlQuery(data.filter, query);
    query->addQueryItem(kInternalLookup, data.internal_lookup ? "1" : "0");
}

}  // namespace kest::cloud::storage::metadatadb
