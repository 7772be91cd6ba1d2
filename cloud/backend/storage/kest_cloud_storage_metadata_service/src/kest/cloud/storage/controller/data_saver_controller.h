#pragma once

#include <vector>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/network/http/api/base_api_request_handler.h>

namespace kest::cloud::storage::metadatadb {

class ServiceMetrics;

/**
 * POST data: queues every packet into the analytics storage and answers 200 at once, before
 * anything is written; later failures reach the save-error history instead. Packets are first
 * made ready by ValueRules, which may refuse the request. With "analyticsDb/ackAfterCommit" the
 * answer waits until the packets are committed (500 when their commit fails).
 */
class DataSaverController : public kest::network::http::detail::BaseApiRequestHandler<
                                std::vector<kest::common::metadata::ObjectMetadataPacket>,
                                kest::network::http::AbstractApiRequestHandler<
                                    std::vector<kest::common::metadata::ObjectMetadataPacket>>>
{
public:
    explicit DataSaverController(kest::analytics::db::AbstractEventsStorage* eventsStorage);
    /** `metrics`, when given, counts the untracked objects stored. */
    DataSaverController(kest::analytics::db::AbstractEventsStorage* eventsStorage,
                        ServiceMetrics* metrics);

    void processRequest(kest::network::http::RequestContext requestContext,
                        std::vector<kest::common::metadata::ObjectMetadataPacket> packets) override;

private:
    kest::analytics::db::AbstractEventsStorage* m_eventsStorage;
    ServiceMetrics* m_metrics = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb
