#include "data_saver_controller.h"

#include <memory>
#include <unordered_set>

#include <kest/cloud/storage/model/service_metrics.h>
#include <kest/utils/log/log.h>

#include "value_rules.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;
using kest::common::metadata::ObjectMetadataPacket;

DataSaverController::DataSaverController(kest::analytics::db::AbstractEventsStorage* eventsStorage)
    : m_eventsStorage(eventsStorage)
{}

DataSaverController::DataSaverController(kest::analytics::db::AbstractEventsStorage* eventsStorage,
                                         ServiceMetrics* metrics)
    : m_eventsStorage(eventsStorage), m_metrics(metrics)
{}

void DataSaverController::processRequest(RequestContext /*requestContext*/,
                                         std::vector<ObjectMetadataPacket> packets)
{
    // The device set exists only for the trace line; the ingest path does not pay for it.
    if (kest::utils::log::Logger::instance().isEnabled(kest::utils::log::Level::verbose)) {
        std::unordered_set<ZuUuid> deviceIds;
        for (const auto& packet : packets)
            deviceIds.insert(packet.deviceId);
        KEST_VERBOSE(this, "procsessing save data request with deviceId: %1", deviceIds);
    }

    std::size_t untrackedObjects = 0;
    if (const auto problem = ValueRules::preparePackets(&packets, &untrackedObjects);
        !problem.empty()) {
        requestCompleted(inputError(problem));
        return;
    }

    if (!m_eventsStorage || !m_eventsStorage->isReady()) {
        KEST_ERROR(this, "analytics db in bad state");
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }
    if (m_metrics)
        m_metrics->untrackedObjectsStored(untrackedObjects);

    if (m_eventsStorage->acknowledgesAfterCommit()) {
        // The answer waits for the commit; a commit that fails loses the packets, and the
        // client learns it from the status.
        std::vector<std::shared_ptr<const ObjectMetadataPacket>> shared;
        shared.reserve(packets.size());
        for (auto& packet : packets)
            shared.push_back(std::make_shared<const ObjectMetadataPacket>(std::move(packet)));
        m_eventsStorage->saveCommitted(std::move(shared), [this](bool committed) {
            if (committed)
                requestCompleted(ApiRequestResult());
            else
                requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        });
        return;
    }
    for (auto& packet : packets)
        m_eventsStorage->save(std::make_shared<const ObjectMetadataPacket>(std::move(packet)));
    requestCompleted(ApiRequestResult());
}

}  // namespace kest::cloud::storage::metadatadb
