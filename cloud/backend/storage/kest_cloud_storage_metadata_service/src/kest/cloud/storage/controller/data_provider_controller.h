#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/analytics_db/result_code.h>
#include <kest/cloud/storage/api/abstract_client.h>
#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/api/base_api_request_handler.h>

#include "data_request_data.h"

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * GET data: an internal lookup searches this instance's analytics storage; any other search
 * asks the data-distribution storage which instances hold the filter's devices and period, sends
 * each of them the search as an internal lookup, and answers with their tracks concatenated in
 * order of arrival.
 *
 * The instances are asked from the I/O thread of the request's connection, and their clients
 * are bound to it: replies, the completion and the destruction of the controller (which stops
 * the clients) all happen there, one after another.
 */
class DataProviderController
    : public kest::network::http::detail::BaseApiRequestHandler<
          DataRequestData, kest::network::http::AbstractApiRequestHandler<DataRequestData>>
{
public:
    explicit DataProviderController(Model& model);
    ~DataProviderController() override;

    void processRequest(kest::network::http::RequestContext requestContext,
                        DataRequestData request) override;

private:
    void onLocalLookupDone(kest::analytics::db::ResultCode resultCode,
                           std::vector<kest::analytics::db::ObjectTrackEx> tracks);
    /** Takes the address lookup's result from the storage's thread to the request's. */
    void continueInAioThread(bool ok, std::vector<std::string> addresses);
    /** Asks every instance at `addresses`, once per occurrence; on the request's I/O thread. */
    void requestRemoteInstances(bool ok, std::vector<std::string> addresses);
    /** One instance's reply; a failed one counts with whatever tracks it brought. */
    void finishRequest(kest::network::http::StatusCode::Value status,
                       std::vector<kest::analytics::db::ObjectTrackEx> tracks);

    Model& m_model;
    std::vector<kest::analytics::db::ObjectTrackEx> m_collectedTracks;
    std::recursive_mutex m_mutex;
    std::atomic<std::uint32_t> m_repliesReceived{0};
    std::atomic<std::uint32_t> m_repliesExpected{0};
    kest::analytics::db::Filter m_filter;
    bool m_internalLookup = false;
    std::vector<std::unique_ptr<api::AbstractClient>> m_clients;
    /** Weak: a lookup may end after a stopping server has destroyed its threads. */
    std::weak_ptr<kest::network::aio::AioThread> m_aioThread;
};

}  // namespace kest::cloud::storage::metadatadb
