#include "http_stream_socket_server.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <kest/network/aio/run_sync.h>
#include <kest/utils/log/log.h>

#include "http_server_connection.h"
#include "http_server_shared_state.h"

namespace kest::network::http::server {

using boost::asio::ip::tcp;

namespace {

constexpr std::chrono::milliseconds kFirstAcceptRetryDelay{10};
constexpr std::chrono::milliseconds kMaxAcceptRetryDelay{500};

/**
 * The open connections of one listening socket. Kept apart from the server's state because the
 * connections' close handlers reach it from the I/O threads: holding the last reference to the
 * thread pool's owner there would make a thread destroy its own pool.
 */
struct ConnectionSet
{
    void remove(HttpServerConnection* connection)
    {
        std::shared_ptr<HttpServerConnection> removed;
        {
            std::lock_guard lock(mutex);
            if (const auto it = connections.find(connection); it != connections.end()) {
                // Released after the lock, as the connection may be destroyed with it.
                removed = std::move(it->second);
                connections.erase(it);
            }
        }
        changed.notify_all();
    }

    mutable std::mutex mutex;
    std::unordered_map<HttpServerConnection*, std::shared_ptr<HttpServerConnection>> connections;
    std::condition_variable changed;
};

}  // namespace

struct HttpStreamSocketServer::Private : std::enable_shared_from_this<Private>
{
    explicit Private(std::shared_ptr<HttpServerSharedState> state)
        : state(std::move(state)),
          acceptThread(this->state->threadPool.next()),
          acceptor(acceptThread->ioContext()),
          retryTimer(acceptThread->ioContext())
    {}

    void acceptNext();
    void onAccepted(const boost::system::error_code& error, tcp::socket socket,
                    std::weak_ptr<aio::AioThread> thread);
    void retryAccepting(const boost::system::error_code& error);
    template <typename Action>
    void forEachConnection(Action action);

    std::shared_ptr<HttpServerSharedState> state;
    aio::AioThread* acceptThread = nullptr;
    tcp::acceptor acceptor;
    boost::asio::steady_timer retryTimer;
    SocketAddress address;
    /** Set when the address bound serves TLS. */
    std::shared_ptr<ssl::ServerContext> tlsContext;
    std::error_code lastError;
    // On the accept thread. Each completion holds this object, which owns the thread pool: a
    // stop waits until none is outstanding, lest one be left queued on a stopped thread.
    bool accepting = false;
    bool acceptOutstanding = false;
    bool retryOutstanding = false;
    std::chrono::milliseconds retryDelay{0};

    const std::shared_ptr<ConnectionSet> connections = std::make_shared<ConnectionSet>();
};

void HttpStreamSocketServer::Private::acceptNext()
{
    auto thread = state->threadPool.nextWeak();
    auto& ioContext = thread.lock()->ioContext();  //< The pool lives as long as this object.
    acceptOutstanding = true;
    acceptor.async_accept(ioContext,
                          [self = shared_from_this(), thread = std::move(thread)](
                              const boost::system::error_code& error, tcp::socket socket) mutable {
                              self->acceptOutstanding = false;
                              self->onAccepted(error, std::move(socket), std::move(thread));
                          });
}

void HttpStreamSocketServer::Private::onAccepted(const boost::system::error_code& error,
                                                 tcp::socket socket,
                                                 std::weak_ptr<aio::AioThread> thread)
{
    if (!accepting)
        return;
    if (error) {
        // Repeats are cut short by the logger.
        KEST_WARNING(this, "Accept has failed: %1", error.message());
        // Out of descriptors (EMFILE, ENFILE), buffers or memory, trying again at once would only
        // spin: the wait grows while the failures last, and the first success ends it.
        retryDelay = std::clamp(retryDelay * 2, kFirstAcceptRetryDelay, kMaxAcceptRetryDelay);
        retryOutstanding = true;
        retryTimer.expires_after(retryDelay);
        retryTimer.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
            self->retryOutstanding = false;
            self->retryAccepting(error);
        });
        return;
    }
    retryDelay = std::chrono::milliseconds::zero();

    auto& count = *state->connectionCount;
    if (count.fetch_add(1, std::memory_order_relaxed) >= state->maxConnections &&
        state->maxConnections > 0) {
        count.fetch_sub(1, std::memory_order_relaxed);
        KEST_DEBUG(this, "Too many connections (%1): closing the new one", state->maxConnections);
        boost::system::error_code ignored;
        socket.close(ignored);
        acceptNext();
        return;
    }

    auto* threadPtr = thread.lock().get();
    auto connection = std::make_shared<HttpServerConnection>(
        std::move(thread), std::move(socket), state->limits, state->dispatcher,
        state->connectionCount, state->pendingHandlers,
        [weak = std::weak_ptr<ConnectionSet>(connections)](HttpServerConnection* connection) {
            if (const auto set = weak.lock())
                set->remove(connection);
        },
        tlsContext);
    {
        std::lock_guard lock(connections->mutex);
        connections->connections.emplace(connection.get(), connection);
    }
    threadPtr->post([connection = std::move(connection)]() { connection->start(); });
    acceptNext();
}

void HttpStreamSocketServer::Private::retryAccepting(const boost::system::error_code& error)
{
    if (!error && accepting)
        acceptNext();
}

template <typename Action>
void HttpStreamSocketServer::Private::forEachConnection(Action action)
{
    std::vector<std::shared_ptr<HttpServerConnection>> snapshot;
    {
        std::lock_guard lock(connections->mutex);
        for (const auto& [key, connection] : connections->connections)
            snapshot.push_back(connection);
    }
    std::map<aio::AioThread*, std::vector<std::shared_ptr<HttpServerConnection>>> byThread;
    for (auto& connection : snapshot)
        byThread[connection->thread()].push_back(std::move(connection));
    for (const auto& [thread, onThread] : byThread) {
        aio::runInThreadSync(thread, [&onThread, &action]() {
            for (const auto& connection : onThread)
                action(connection.get());
        });
    }
}

HttpStreamSocketServer::HttpStreamSocketServer(std::shared_ptr<HttpServerSharedState> sharedState)
    : d(std::make_shared<Private>(std::move(sharedState)))
{}

HttpStreamSocketServer::~HttpStreamSocketServer()
{
    cancelAccepting();
    closeAllConnections();
    // What the closed connections still have queued on their threads goes with the thread pool.
}

bool HttpStreamSocketServer::bind(const SocketAddress& address)
{
    const auto& tlsAddresses = d->state->tlsAddresses;
    if (std::find(tlsAddresses.begin(), tlsAddresses.end(), address) != tlsAddresses.end())
        d->tlsContext = d->state->tlsContext;
    boost::system::error_code error;
    tcp::endpoint endpoint;
    const auto ip = boost::asio::ip::make_address(address.host, error);
    if (!error) {
        endpoint = tcp::endpoint(ip, address.port);
    } else {
        tcp::resolver resolver(d->acceptThread->ioContext());
        const auto results = resolver.resolve(address.host, std::to_string(address.port), error);
        if (error || results.empty()) {
            d->lastError = error ? std::error_code(error)
                                 : std::make_error_code(std::errc::address_not_available);
            return false;
        }
        endpoint = results.begin()->endpoint();
    }

    d->acceptor.open(endpoint.protocol(), error);
    if (!error)
        d->acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        d->acceptor.bind(endpoint, error);
    if (error) {
        d->lastError = error;
        boost::system::error_code ignored;
        d->acceptor.close(ignored);
        return false;
    }
    const auto local = d->acceptor.local_endpoint(error);
    d->address = SocketAddress{local.address().to_string(), local.port()};
    return true;
}

bool HttpStreamSocketServer::listen(int backlog)
{
    boost::system::error_code error;
    d->acceptor.non_blocking(true, error);
    if (!error)
        d->acceptor.listen(backlog, error);
    if (error) {
        d->lastError = error;
        KEST_ERROR(this, "Failed to listen address %1. %2", d->address.toString(), error.message());
        return false;
    }
    aio::runInThreadSync(d->acceptThread, [this]() {
        d->accepting = true;
        d->acceptNext();
    });
    return true;
}

SocketAddress HttpStreamSocketServer::address() const
{
    return d->address;
}

bool HttpStreamSocketServer::servesTls() const
{
    return d->tlsContext != nullptr;
}

std::error_code HttpStreamSocketServer::lastError() const
{
    return d->lastError;
}

void HttpStreamSocketServer::cancelAccepting()
{
    bool outstanding = true;
    aio::runInThreadSync(d->acceptThread, [this, &outstanding]() {
        d->accepting = false;
        boost::system::error_code ignored;
        d->retryTimer.cancel();
        d->acceptor.close(ignored);
        outstanding = d->acceptOutstanding || d->retryOutstanding;
    });
    // The cancelled completions are queued behind the cancellation, though not always behind a
    // call that the waiter makes as soon as it returns: ask until they have run.
    while (outstanding && !d->acceptThread->isStopped()) {
        aio::runInThreadSync(d->acceptThread, [this, &outstanding]() {
            outstanding = d->acceptOutstanding || d->retryOutstanding;
        });
    }
}

void HttpStreamSocketServer::closeIdleConnections()
{
    d->forEachConnection([](HttpServerConnection* connection) { connection->closeWhenIdle(); });
}

std::size_t HttpStreamSocketServer::waitUntilFinished(
    std::chrono::steady_clock::time_point deadline)
{
    const std::size_t pending = d->state->pendingHandlers->waitForNone(deadline);
    // The handlers' responses are still being written.
    auto& set = *d->connections;
    std::unique_lock lock(set.mutex);
    set.changed.wait_until(lock, deadline, [&set]() { return set.connections.empty(); });
    return pending == 0 ? 0 : d->state->pendingHandlers->count();
}

void HttpStreamSocketServer::closeAllConnections()
{
    d->forEachConnection([](HttpServerConnection* connection) { connection->close(); });
}

std::size_t HttpStreamSocketServer::connectionCount() const
{
    std::lock_guard lock(d->connections->mutex);
    return d->connections->connections.size();
}

}  // namespace kest::network::http::server
