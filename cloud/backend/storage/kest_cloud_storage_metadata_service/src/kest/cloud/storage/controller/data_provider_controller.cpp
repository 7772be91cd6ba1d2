#include "data_provider_controller.h"

#include <iterator>

#include <kest/analytics_db/filter_url_query.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/model/service_metrics.h>
#include <kest/network/aio/aio_thread.h>
#include <kest/network/aio/aio_thread_pool.h>
#include <kest/utils/log/log.h>
#include <kest/utils/url.h>

#include "value_rules.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;
using kest::analytics::db::ObjectTrackEx;
using kest::analytics::db::ResultCode;

DataProviderController::DataProviderController(Model& model) : m_model(model) {}

DataProviderController::~DataProviderController()
{
    // On the clients' own thread this stops them inline; no reply reaches a controller gone.
    for (const auto& client : m_clients)
        client->pleaseStopSync();
}

void DataProviderController::processRequest(RequestContext /*requestContext*/,
                                            DataRequestData request)
{
    KEST_VERBOSE(this, "Processing get data request with filter: %1, internal_lookup: %2",
                 kest::analytics::db::toString(request.filter), request.internal_lookup);
    if (const auto problem = ValueRules::checkFilter(request.filter); !problem.empty()) {
        requestCompleted(inputError(problem));
        return;
    }
    m_started = std::chrono::steady_clock::now();
    m_filter = std::move(request.filter);
    m_internalLookup = request.internal_lookup;

    if (m_internalLookup) {
        auto* storage = m_model.getAnalyticsStorage();
        if (!storage || !storage->isReady()) {
            KEST_ERROR(this, "analytics db in bad state");
            countLookup();
            requestCompleted(StatusCode::internalServerError, ApiRequestResult());
            return;
        }
        // The handler completes the request, after which this controller may be gone.
        storage->lookup(m_filter, [this](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            onLocalLookupDone(code, std::move(tracks));
        });
        return;
    }

    // Outside the HTTP server (a controller called directly) any I/O thread will do.
    m_aioThread = kest::network::aio::AioThread::currentWeak();
    if (m_aioThread.expired())
        m_aioThread = kest::network::aio::AioThreadPool::instance().nextWeak();

    // The distribution record keeps device ids in their braced text form.
    std::vector<std::string> deviceIds;
    deviceIds.reserve(m_filter.deviceIds.size());
    for (const ZuUuid& id : m_filter.deviceIds)
        deviceIds.push_back(id.toStdString());
    m_model.getDDSModel()->getStorageInfo(deviceIds, m_filter.timePeriod,
                                          [this](bool ok, std::vector<std::string> addresses) {
                                              continueInAioThread(ok, std::move(addresses));
                                          });
}

void DataProviderController::continueInAioThread(bool ok, std::vector<std::string> addresses)
{
    // A thread that stops drops what is queued on it uncalled; the request is still answered.
    struct Continuation
    {
        DataProviderController* controller;
        bool ok;
        std::vector<std::string> addresses;
        bool ran = false;

        ~Continuation()
        {
            if (!ran) {
                controller->countLookup();
                controller->requestCompleted(StatusCode::serviceUnavailable, ApiRequestResult());
            }
        }
    };
    auto continuation = std::make_unique<Continuation>(this, ok, std::move(addresses));
    const auto thread = m_aioThread.lock();
    if (!thread)
        return;  //< The server is gone; the continuation answers.
    thread->post([continuation = std::move(continuation)]() {
        continuation->ran = true;
        continuation->controller->requestRemoteInstances(continuation->ok,
                                                         std::move(continuation->addresses));
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
        countLookup();
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }
    // The text is what operators have always grepped for on this path.
    KEST_VERBOSE(this, "Processing get data request completed WRONG");
    countLookup();
    requestCompleted(ApiRequestResult(), tracks);
}

void DataProviderController::requestRemoteInstances(bool ok, std::vector<std::string> addresses)
{
    if (!ok) {
        KEST_ERROR(this, "can't get remote instances addresses for requst with filter %1.",
                   kest::analytics::db::toString(m_filter));
        countLookup();
        requestCompleted(StatusCode::internalServerError, ApiRequestResult());
        return;
    }

    DataRequestData request;
    request.filter = m_filter;
    request.internal_lookup = true;

    // Stored before the first call goes out, so that every reply compares with the final count.
    m_repliesExpected.store(static_cast<std::uint32_t>(addresses.size()));
    // An instance is listed once per stored span, and asked as many times.
    std::uint32_t notAsked = 0;
    for (const std::string& address : addresses) {
        m_model.metrics().peerAsked();
        auto client = api::ClientFactory::instance().create(kest::utils::Url(address));
        if (!client) {
            ++notAsked;
            continue;
        }
        client->bindToAioThread(kest::network::aio::AioThread::current());
        // A peer that never answers would otherwise hold the whole search.
        client->setRequestTimeout(m_model.peerTimeout());
        client->setCredentials(m_model.peerIdentity().credentials);
        client->setTlsContext(m_model.peerIdentity().tlsContext);
        m_clients.push_back(std::move(client));
    }
    if (addresses.empty()) {
        countLookup();
        requestCompleted(ApiRequestResult(), std::vector<ObjectTrackEx>());
        return;
    }

    // Calls complete on this thread, never inside getData: nothing below can end the request
    // before the last call has been started.
    m_peersAsked = std::chrono::steady_clock::now();
    for (const auto& client : m_clients) {
        client->getData(request,
                        [this](StatusCode::Value status, std::vector<ObjectTrackEx> tracks) {
                            finishRequest(status, std::move(tracks));
                        });
    }
    // Counted as failed replies; the last of them may complete the request.
    for (; notAsked > 0; --notAsked)
        finishRequest(StatusCode::internalServerError, {});
}

void DataProviderController::finishRequest(StatusCode::Value status,
                                           std::vector<ObjectTrackEx> tracks)
{
    if (status != StatusCode::ok) {
        KEST_INFO(this, "errors occured during fetching data from other nodes");
        // The client reports a timeout as any other exchange that brought no answer; only a call
        // cut off by the peer timeout can take that long, since each of its steps is bounded by it.
        if (std::chrono::steady_clock::now() - m_peersAsked >= m_model.peerTimeout())
            m_model.metrics().peerTimedOut();
        else
            m_model.metrics().peerFailed();
    }

    std::vector<ObjectTrackEx> merged;
    {
        std::lock_guard lock(m_mutex);
        m_collectedTracks.insert(m_collectedTracks.end(), std::make_move_iterator(tracks.begin()),
                                 std::make_move_iterator(tracks.end()));
        const std::uint32_t received = ++m_repliesReceived;
        if (received < m_repliesExpected.load())
            return;
        merged = std::move(m_collectedTracks);
        m_collectedTracks.clear();
    }
    KEST_VERBOSE(this, "Processing get data request completed");
    countLookup();
    requestCompleted(ApiRequestResult(), merged);
}

void DataProviderController::countLookup()
{
    m_model.metrics().lookupDone(m_internalLookup ? ServiceMetrics::LookupKind::internal
                                                  : ServiceMetrics::LookupKind::distributed,
                                 std::chrono::steady_clock::now() - m_started);
}

}  // namespace kest::cloud::storage::metadatadb
