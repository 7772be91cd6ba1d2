#pragma once

#include "abstract_client.h"

namespace kest::cloud::storage::metadatadb::api {

/**
 * The HTTP client of a metadata storage service instance: each operation is one API call, made
 * once, with the request records' URL-query forms and JSON bodies. Instances use it to ask each
 * other; other programs use it to talk to the service.
 */
class Client : public AbstractClient
{
public:
    using AbstractClient::AbstractClient;

    void saveData(const std::vector<ObjectMetadataPacket>& data,
                  MoveOnlyFunc<void(StatusCode::Value)> handler) override;
    std::tuple<StatusCode::Value> saveDataSync(
        const std::vector<ObjectMetadataPacket>& data) override;

    void getData(
        const DataRequestData& request,
        MoveOnlyFunc<void(StatusCode::Value, std::vector<ObjectTrackEx>)> handler) override;
    std::tuple<StatusCode::Value, std::vector<ObjectTrackEx>> getDataSync(
        const DataRequestData& request) override;

    void getOptimalInstance(const OptimalInstanceRequest& request,
                            MoveOnlyFunc<void(StatusCode::Value, std::string)> handler) override;
    std::tuple<StatusCode::Value, std::string> getOptimalInstanceSync(
        const OptimalInstanceRequest& request) override;

    void getErrors(
        const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds,
        MoveOnlyFunc<void(StatusCode::Value, std::vector<DbErrorData>)> handler) override;
    std::tuple<StatusCode::Value, std::vector<DbErrorData>> getErrorsSync(
        const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds) override;

    void getActivity(const ActivityRequestData& request,
                     MoveOnlyFunc<void(StatusCode::Value, ActivityAnswer)> handler) override;
    std::tuple<StatusCode::Value, ActivityAnswer> getActivitySync(
        const ActivityRequestData& request) override;

    /**
     * The save-errors path of the devices: their ids without braces, in the order given and
     * separated by ";". An empty list is a programming error, and gives the path without ids.
     */
    static std::string buildErrorPath(const std::vector<ZuUuid>& deviceIds);
};

}  // namespace kest::cloud::storage::metadatadb::api
