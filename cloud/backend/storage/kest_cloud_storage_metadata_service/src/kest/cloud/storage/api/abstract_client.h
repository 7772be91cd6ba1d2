#pragma once

#include <string>
#include <tuple>
#include <vector>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/controller/activity_answer.h>
#include <kest/cloud/storage/controller/activity_request_data.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/cloud/storage/model/db_error_data.h>
#include <kest/network/http/default_api_result_code_descriptor.h>
#include <kest/network/http/generic_api_client.h>
#include <kest/network/http/status_code.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/url.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::cloud::storage::metadatadb::api {

/**
 * The operations of the metadata storage API, each asynchronous (the handler runs on the
 * client's I/O thread) and blocking (`...Sync`, never on that thread). A failed call is a status:
 * 500 when no answer came, with an empty output.
 */
class AbstractClient : public kest::network::http::GenericApiClient<
                           kest::network::http::DefaultApiResultCodeDescriptor>
{
public:
    using StatusCode = kest::network::http::StatusCode;
    using ObjectMetadataPacket = kest::common::metadata::ObjectMetadataPacket;
    using ObjectTrackEx = kest::analytics::db::ObjectTrackEx;
    template <typename Signature>
    using MoveOnlyFunc = kest::utils::MoveOnlyFunc<Signature>;

    /** `url` is the service's base URL, such as "http://10.0.0.5:8080". */
    explicit AbstractClient(const kest::utils::Url& url);
    ~AbstractClient() override;

    /** Queues packets into the service's storage: 200 once accepted. */
    virtual void saveData(const std::vector<ObjectMetadataPacket>& data,
                          MoveOnlyFunc<void(StatusCode::Value)> handler) = 0;
    virtual std::tuple<StatusCode::Value> saveDataSync(
        const std::vector<ObjectMetadataPacket>& data) = 0;

    /** A track search, local or distributed by the request's `internal_lookup`. */
    virtual void getData(
        const DataRequestData& request,
        MoveOnlyFunc<void(StatusCode::Value, std::vector<ObjectTrackEx>)> handler) = 0;
    virtual std::tuple<StatusCode::Value, std::vector<ObjectTrackEx>> getDataSync(
        const DataRequestData& request) = 0;

    /** The base URL of the least loaded instance. */
    virtual void getOptimalInstance(const OptimalInstanceRequest& request,
                                    MoveOnlyFunc<void(StatusCode::Value, std::string)> handler) = 0;
    virtual std::tuple<StatusCode::Value, std::string> getOptimalInstanceSync(
        const OptimalInstanceRequest& request) = 0;

    /** The failed-save periods of the devices, which must not be empty. */
    virtual void getErrors(
        const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds,
        MoveOnlyFunc<void(StatusCode::Value, std::vector<DbErrorData>)> handler) = 0;
    virtual std::tuple<StatusCode::Value, std::vector<DbErrorData>> getErrorsSync(
        const ErrorsRequestData& request, const std::vector<ZuUuid>& deviceIds) = 0;

    /**
     * Tracks per bucket of time and type (and per cell of the grid), local or distributed by the
     * request's `internal_lookup`. Implementations that do not count answer 501.
     */
    virtual void getActivity(const ActivityRequestData& request,
                             MoveOnlyFunc<void(StatusCode::Value, ActivityAnswer)> handler);
    virtual std::tuple<StatusCode::Value, ActivityAnswer> getActivitySync(
        const ActivityRequestData& request);
};

}  // namespace kest::cloud::storage::metadatadb::api
