#include "peer_fan_out.h"

#include <kest/analytics_db/filter_url_query.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/model/service_metrics.h>
#include <kest/network/aio/aio_thread_pool.h>
#include <kest/utils/log/log.h>
#include <kest/utils/url.h>

namespace kest::cloud::storage::metadatadb {

PeerFanOut::PeerFanOut(Model& model) : m_model(model) {}

PeerFanOut::~PeerFanOut()
{
    // On the clients' own thread this stops them inline; no answer reaches an owner gone.
    for (const auto& client : m_clients)
        client->pleaseStopSync();
}

void PeerFanOut::start(const kest::analytics::db::Filter& filter, Ask ask, Finished finished)
{
    m_filter = filter;
    m_ask = std::move(ask);
    m_finished = std::move(finished);

    // Outside the HTTP server (a controller called directly) any I/O thread will do.
    m_aioThread = kest::network::aio::AioThread::currentWeak();
    if (m_aioThread.expired())
        m_aioThread = kest::network::aio::AioThreadPool::instance().nextWeak();

    // The distribution record keeps device ids in their braced text form.
    std::vector<std::string> deviceIds;
    deviceIds.reserve(filter.deviceIds.size());
    for (const ZuUuid& id : filter.deviceIds)
        deviceIds.push_back(id.toStdString());
    m_model.getDDSModel()->getStorageInfo(deviceIds, m_filter.timePeriod,
                                          [this](bool ok, std::vector<std::string> addresses) {
                                              continueInAioThread(ok, std::move(addresses));
                                          });
}

void PeerFanOut::continueInAioThread(bool ok, std::vector<std::string> addresses)
{
    // A thread that stops drops what is queued on it uncalled; the request still ends.
    struct Continuation
    {
        PeerFanOut* fanOut;
        bool ok;
        std::vector<std::string> addresses;
        bool ran = false;

        ~Continuation()
        {
            if (!ran)
                fanOut->finish(Outcome::Kind::stopped);
        }
    };
    auto continuation = std::make_unique<Continuation>(this, ok, std::move(addresses));
    const auto thread = m_aioThread.lock();
    if (!thread)
        return;  //< The server is gone; the continuation ends the request.
    thread->post([continuation = std::move(continuation)]() {
        continuation->ran = true;
        continuation->fanOut->askInstances(continuation->ok, std::move(continuation->addresses));
    });
}

void PeerFanOut::askInstances(bool ok, std::vector<std::string> addresses)
{
    if (!ok) {
        KEST_ERROR(this, "can't get remote instances addresses for requst with filter %1.",
                   kest::analytics::db::toString(m_filter));
        finish(Outcome::Kind::addressLookupFailed);
        return;
    }

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
        finish(Outcome::Kind::done);
        return;
    }

    // Calls complete on this thread, never inside the call: nothing below can end the request
    // before the last call has been started.
    m_peersAsked = std::chrono::steady_clock::now();
    for (const auto& client : m_clients)
        m_ask(*client, [this](StatusCode::Value status) { onReply(status); });
    // Counted as failed replies; the last of them may end the request.
    for (; notAsked > 0; --notAsked)
        onReply(StatusCode::internalServerError);
}

void PeerFanOut::onReply(StatusCode::Value status)
{
    if (status != StatusCode::ok) {
        KEST_INFO(this, "errors occured during fetching data from other nodes");
        // The client reports a timeout as any other exchange that brought no answer; only a call
        // cut off by the peer timeout can take that long, since each of its steps is bounded by it.
        if (std::chrono::steady_clock::now() - m_peersAsked >= m_model.peerTimeout())
            m_model.metrics().peerTimedOut();
        else
            m_model.metrics().peerFailed();
    } else {
        ++m_answered;
    }
    if (++m_repliesReceived < m_repliesExpected.load())
        return;
    finish(Outcome::Kind::done);
}

void PeerFanOut::finish(Outcome::Kind kind)
{
    Outcome outcome;
    outcome.kind = kind;
    outcome.asked = m_repliesExpected.load();
    outcome.answered = m_answered.load();
    // The owner may destroy this object, and the handler with it, while the handler runs.
    auto finished = std::move(m_finished);
    if (finished)
        finished(outcome);
}

}  // namespace kest::cloud::storage::metadatadb
