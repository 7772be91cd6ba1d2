#pragma once

#include <QUrlQuery>
#include <boost/describe/class.hpp>
#include <string>
#include <vector>

#include <kest/network/rest/params.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::cloud::storage::metadatadb {

/**
 * A VMS asking which instance to send its devices' metadata to. The JSON key of the VMS is
 * "vmsId", its query key "VmsId": both are what deployed callers send.
 */
struct OptimalInstanceRequest
{
    std::vector<ZuUuid> deviceIds;
    ZuUuid vmsId;

    friend bool operator==(const OptimalInstanceRequest&, const OptimalInstanceRequest&) = default;
};

BOOST_DESCRIBE_STRUCT(OptimalInstanceRequest, (), (deviceIds, vmsId))

/** One "deviceIds" item per device, in order, then one "VmsId" item. */
void serializeToParams(const OptimalInstanceRequest& request, kest::network::rest::Params* params);
void serializeToUrlQuery(const OptimalInstanceRequest& request, QUrlQuery* query);

/**
 * False without a "VmsId" item. Ids that are not UUIDs read as the null UUID. The devices come
 * out in the multi-map's order, last item of the query first.
 */
bool loadFromUrlQuery(const QUrlQuery& query, OptimalInstanceRequest* request);
/** The same; on failure `error` says that "VmsId" is missing. */
bool loadFromUrlQuery(const QUrlQuery& query, OptimalInstanceRequest* request, std::string* error);

/** "vmsId: {...}deviceIds: {...}, {...}", for log lines; no devices, no "deviceIds: ". */
std::string toString(const OptimalInstanceRequest& request);

}  // namespace kest::cloud::storage::metadatadb
