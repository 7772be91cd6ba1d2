#include "client.h"

#include <QUrlQuery>
#include <string_view>

#include <kest/cloud/storage/view/api_paths.h>
#include <kest/utils/assert.h>

namespace kest::cloud::storage::metadatadb::api {

namespace {

constexpr std::string_view kDeviceIdsPlaceholder = "{deviceIds}";

template <typename Request>
QUrlQuery toUrlQuery(const Request& request)
{
    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    return query;
}

}  // namespace

void Client::saveData(const std::vector<ObjectMetadataPacket>& data,
                      MoveOnlyFunc<void(StatusCode::Value)> handler)
{
    makeAsyncCallWithRetries<void, std::vector<ObjectMetadataPacket>>(
        "POST", ApiPaths::kDataHandlerPath, QUrlQuery(), data, 1, std::move(handler));
}

std::tuple<Client::StatusCode::Value> Client::saveDataSync(
    const std::vector<ObjectMetadataPacket>& data)
{
    return makeSyncCallInternal<void, std::vector<ObjectMetadataPacket>>(
        "POST", ApiPaths::kDataHandlerPath, QUrlQuery(), data);
}

void Client::getData(const DataRequestData& request,
                     MoveOnlyFunc<void(StatusCode::Value, std::vector<ObjectTrackEx>)> handler)
{
    makeAsyncCallWithRetries<std::vector<ObjectTrackEx>>(
        "GET", ApiPaths::kDataHandlerPath, toUrlQuery(request), 1, std::move(handler));
}

std::tuple<Client::StatusCode::Value, std::vector<Client::ObjectTrackEx>> Client::getDataSync(
    const DataRequestData& request)
{
    return makeSyncCallInternal<std::vector<ObjectTrackEx>>("GET", ApiPaths::kDataHandlerPath,
                                                            toUrlQuery(request));
}

void Client::getOptimalInstance(const OptimalInstanceRequest& request,
                                MoveOnlyFunc<void(StatusCode::Value, std::string)> handler)
{
    makeAsyncCallWithRetries<std::string>("GET", ApiPaths::kOptimalInstancePath,
                                          toUrlQuery(request), 1, std::move(handler));
}

std::tuple<Client::StatusCode::Value, std::string> Client::getOptimalInstanceSync(
    const OptimalInstanceRequest& request)
{
    return makeSyncCallInternal<std::string>("GET", ApiPaths::kOptimalInstancePath,
                                             toUrlQuery(request));
}

void Client::getErrors(const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds,
                       MoveOnlyFunc<void(StatusCode::Value, std::vector<DbErrorData>)> handler)
{
    makeAsyncCallWithRetries<std::vector<DbErrorData>>("GET", buildErrorPath(deviceIds),
                                                       toUrlQuery(request), 1, std::move(handler));
}

std::tuple<Client::StatusCode::Value, std::vector<DbErrorData>> Client::getErrorsSync(
    const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds)
{
    return makeSyncCallInternal<std::vector<DbErrorData>>("GET", buildErrorPath(deviceIds),
                                                          toUrlQuery(request));
}

void Client::getActivity(const ActivityRequestData& request,
                         MoveOnlyFunc<void(StatusCode::Value, ActivityAnswer)> handler)
{
    makeAsyncCallWithRetries<ActivityAnswer>("GET", ApiPaths::kActivityPath, toUrlQuery(request), 1,
                                             std::move(handler));
}

std::tuple<Client::StatusCode::Value, ActivityAnswer> Client::getActivitySync(
    const ActivityRequestData& request)
{
    return makeSyncCallInternal<ActivityAnswer>("GET", ApiPaths::kActivityPath,
                                                toUrlQuery(request));
}

std::string Client::buildErrorPath(const std::vector<ZuUuid>& deviceIds)
{
    std::string_view base = ApiPaths::kErrorHandlerPath;
    base.remove_suffix(kDeviceIdsPlaceholder.size());
    std::string path(base);
    KEST_ASSERT(!deviceIds.empty());
    for (std::size_t i = 0; i < deviceIds.size(); ++i) {
        if (i > 0)
            path += ';';
        path += deviceIds[i].toSimpleStdString();
    }
    return path;
}

}  // namespace kest::cloud::storage::metadatadb::api
