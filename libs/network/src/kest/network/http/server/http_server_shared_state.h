#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <kest/network/aio/aio_thread_pool.h>
#include <kest/network/socket_address.h>
#include <kest/network/ssl/server_context.h>

#include "request_parser.h"

namespace kest::network::http::server {

class AbstractMessageDispatcher;

/** The limits that every connection applies; a zero timeout means no limit. */
struct HttpConnectionLimits
{
    RequestLimits request;
    std::chrono::milliseconds requestReadTimeout{0};
    std::chrono::milliseconds idleTimeout{0};
};

/**
 * Request handlers that have not completed yet. A stopping server waits for them: they may still
 * call into objects that the server's owner destroys once the server has stopped.
 */
class PendingHandlers
{
public:
    void add()
    {
        std::lock_guard lock(m_mutex);
        ++m_count;
    }

    void remove()
    {
        {
            std::lock_guard lock(m_mutex);
            --m_count;
        }
        m_changed.notify_all();
    }

    std::size_t count() const
    {
        std::lock_guard lock(m_mutex);
        return m_count;
    }

    /** The number still pending when none is left or at the deadline, whichever comes first. */
    std::size_t waitForNone(std::chrono::steady_clock::time_point deadline)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait_until(lock, deadline, [this]() { return m_count == 0; });
        return m_count;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_count = 0;
};

/** What all socket servers of one HTTP server share: I/O threads, limits, dispatcher. */
struct HttpServerSharedState
{
    explicit HttpServerSharedState(unsigned ioThreads) : threadPool(ioThreads) {}

    HttpConnectionLimits limits;
    /** 0 means no limit. */
    std::size_t maxConnections = 0;
    AbstractMessageDispatcher* dispatcher = nullptr;
    /** Listening addresses, as configured, that serve TLS with `tlsContext`. */
    std::vector<SocketAddress> tlsAddresses;
    std::shared_ptr<ssl::ServerContext> tlsContext;
    aio::AioThreadPool threadPool;
    // Shared with the connections, which may outlive the server while a handler is pending.
    std::shared_ptr<std::atomic<std::size_t>> connectionCount =
        std::make_shared<std::atomic<std::size_t>>(0);
    // Shared for the same reason: a handler may complete after the server is gone.
    std::shared_ptr<PendingHandlers> pendingHandlers = std::make_shared<PendingHandlers>();
};

}  // namespace kest::network::http::server
