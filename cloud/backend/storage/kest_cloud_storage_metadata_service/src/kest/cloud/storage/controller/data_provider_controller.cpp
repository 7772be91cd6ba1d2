#include "data_provider_controller.h"

#include <kest/analytics_db/filter_url_query.h>
#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/utils/log/log.h>

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;
using kest::analytics::db::ObjectTrackEx;
using kest::analytics::db::ResultCode;

DataProviderController::DataProviderController(Model& model) : m_model(model) {}

void DataProviderController::processRequest(RequestContext /*requestContext*/,
                                            DataRequestData request)
{
    KEST_VERBOSE(this, "Processing get data request with filter: %1, internal_lookup: %2",
                 kest::analytics::db::toString(request.filter), request.internal_lookup);
    m_filter = std::move(request.filter);
    m_internalLookup = request.internal_lookup;

    if (m_internalLookup) {
        auto* storage = m_model.getAnalyticsStorage();
        if (!storage || !storage->isReady()) {
            KEST_ERROR(this, "analytics db in bad state");
            requestCompleted(StatusCode::internalServerError, ApiRequestResult());
            return;
        }
        // The handler completes the request, after which this controller may be gone.
        storage->lookup(m_filter, [this](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            onLocalLookupDone(code, std::move(tracks));
        });
        return;
    }

    // The distribution record keeps device ids in their braced text form.
    std::vector<std::string> deviceIds;
    deviceIds.reserve(m_filter.deviceIds.size());
    for (const ZuUuid& id : m_filter.deviceIds)
        deviceIds.push_back(id.toStdString());
    m_model.getDDSModel()->getStorageInfo(deviceIds, m_filter.timePeriod,
                                          [this](bool ok, std::vector<std::string> addresses) {
                                              requestRemoteInstances(ok, std::move(addresses));
                                          });
}

void DataProviderController::onLocalLookupDone(ResultCode resultCode,
                                               std::vector<ObjectTrackEx> tracks)
{
    if (resultCode != ResultCode::ok) {
        KEST_WARNING(this,
                     "Error occurred while executing request to the analytics database with "
                     "filter %1.",
                     kest::analytics::db::toString(m_filter));
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }
    // The text is what operators have always grepped for on this path.
    KEST_VERBOSE(this, "Processing get data request completed WRONG");
    requestCompleted(ApiRequestResult(), tracks);
}

void DataProviderController::requestRemoteInstances(bool ok, std::vector<std::string> addresses)
{
    if (!ok) {
        KEST_ERROR(this, "can't get remote instances addresses for requst with filter %1.",
                   kest::analytics::db::toString(m_filter));
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }
    if (addresses.empty()) {
        requestCompleted(ApiRequestResult(), std::vector<ObjectTrackEx>());
        return;
    }
    // Asking the instances needs the API client, which this build does not have yet.
    KEST_ERROR(this,
               "Distributed search over %1 is not available yet: fan-out to other "
               "instances is not implemented",
               addresses);
    requestCompleted(StatusCode::internalServerError, ApiRequestResult());
}

}  // namespace kest::cloud::storage::metadatadb
