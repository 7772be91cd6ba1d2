#include "optimal_instance_request.h"

namespace kest::cloud::storage::metadatadb {

namespace {

const QString kDeviceIds = "deviceIds";
const QString kVmsId = "VmsId";

}  // namespace

void serializeToParams(const OptimalInstanceRequest& request, kest::network::rest::Params* params)
{
    for (const ZuUuid& id : request.deviceIds)
        params->insert(kDeviceIds, id.toString());
    params->insert(kVmsId, request.vmsId.toString());
}

void serializeToUrlQuery(const OptimalInstanceRequest& request, QUrlQuery* query)
{
    kest::network::rest::Params params;
    serializeToParams(request, &params);
    *query = params.toUrlQuery();
}

bool loadFromUrlQuery(const QUrlQuery& query, OptimalInstanceRequest* request, std::string* error)
{
    if (loadFromUrlQuery(query, request))
        return true;
    *error = kVmsId.toStdString() + ": missing; the UUID of the VMS that asks is expected";
    return false;
}

bool loadFromUrlQuery(const QUrlQuery& query, OptimalInstanceRequest* request)
{
    const auto params = kest::network::rest::Params::fromUrlQuery(query);
    if (!params.contains(kVmsId))
        return false;
    request->vmsId = ZuUuid(params.value(kVmsId));
    request->deviceIds.clear();
    for (const QString& value : params.values(kDeviceIds))
        request->deviceIds.emplace_back(value);
    return true;
}

std::string toString(const OptimalInstanceRequest& request)
{
    std::string text = "vmsId: " + toString(request.vmsId);
    if (request.deviceIds.empty())
        return text;
    text += "deviceIds: ";
    for (std::size_t i = 0; i < request.deviceIds.size(); ++i) {
        if (i > 0)
            text += ", ";
        text += toString(request.deviceIds[i]);
    }
    return text;
}

}  // namespace kest::cloud::storage::metadatadb
