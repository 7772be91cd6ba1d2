#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/analytics_db/result_code.h>
#include <kest/network/http/api/base_api_request_handler.h>

#include "data_request_data.h"
#include "peer_fan_out.h"

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * GET data: an internal lookup searches this instance's analytics storage; any other search
 * asks the data-distribution storage which instances hold the filter's devices and period, sends
 * each of them the search as an internal lookup, and answers with their tracks concatenated in
 * order of arrival (see PeerFanOut).
 */
class DataProviderController
    : public kest::network::http::detail::BaseApiRequestHandler<
          DataRequestData, kest::network::http::AbstractApiRequestHandler<DataRequestData>>
{
public:
    explicit DataProviderController(Model& model);

    void processRequest(kest::network::http::RequestContext requestContext,
                        DataRequestData request) override;

private:
    void onLocalLookupDone(kest::analytics::db::ResultCode resultCode,
                           std::vector<kest::analytics::db::ObjectTrackEx> tracks);
    /** Every instance asked has answered or failed. */
    void finishRequest(PeerFanOut::Outcome outcome);
    /** Counts the search by its kind, with its time so far; just before it is answered. */
    void countLookup();

    Model& m_model;
    std::vector<kest::analytics::db::ObjectTrackEx> m_collectedTracks;
    std::recursive_mutex m_mutex;
    kest::analytics::db::Filter m_filter;
    bool m_internalLookup = false;
    std::chrono::steady_clock::time_point m_started;
    PeerFanOut m_fanOut;
};

}  // namespace kest::cloud::storage::metadatadb
