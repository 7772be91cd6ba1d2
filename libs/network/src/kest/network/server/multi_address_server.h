#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <system_error>
#include <vector>

#include <kest/network/socket_address.h>
#include <kest/utils/log/log.h>

namespace kest::network::server {

/**
 * One socket server per listening address. SocketServer provides bind(SocketAddress),
 * listen(backlog), address(), lastError(), cancelAccepting(), closeIdleConnections(),
 * waitUntilFinished(deadline) giving the number of handlers still pending, and
 * closeAllConnections().
 */
template <typename SocketServer>
class MultiAddressServer
{
public:
    using Factory = std::function<std::unique_ptr<SocketServer>()>;

    /** `stopTimeout` bounds how long stop() waits for the requests in flight. */
    MultiAddressServer(Factory factory, std::chrono::milliseconds stopTimeout)
        : m_factory(std::move(factory)), m_stopTimeout(stopTimeout)
    {}
    ~MultiAddressServer() { stop(); }

    MultiAddressServer(const MultiAddressServer&) = delete;
    MultiAddressServer& operator=(const MultiAddressServer&) = delete;

    /** Makes and binds a server per endpoint. On the first failure keeps its error and says false.
     */
    bool bind(const std::vector<SocketAddress>& endpoints)
    {
        for (const auto& endpoint : endpoints) {
            auto server = m_factory();
            if (!server->bind(endpoint)) {
                m_lastError = server->lastError();
                return false;
            }
            m_servers.push_back(std::move(server));
        }
        return true;
    }

    /** Starts accepting on every bound socket; false when any of them fails. */
    bool listen(int backlog)
    {
        for (const auto& server : m_servers) {
            if (!server->listen(backlog)) {
                m_lastError = server->lastError();
                return false;
            }
        }
        return true;
    }

    /** The addresses actually bound, with the real ports of those bound to port 0. */
    std::vector<SocketAddress> endpoints() const
    {
        std::vector<SocketAddress> result;
        for (const auto& server : m_servers)
            result.push_back(server->address());
        return result;
    }

    /**
     * Stops accepting everywhere first and closes the idle connections. Then lets the requests in
     * flight be answered, within the stop timeout, and closes every connection left. A handler
     * pending past the timeout has its response dropped when it completes. Once stopped, does
     * nothing.
     */
    void stop()
    {
        if (m_stopped)
            return;
        m_stopped = true;
        for (const auto& server : m_servers)
            server->cancelAccepting();
        for (const auto& server : m_servers)
            server->closeIdleConnections();
        const auto deadline = std::chrono::steady_clock::now() + m_stopTimeout;
        std::size_t pending = 0;
        for (const auto& server : m_servers)
            pending = std::max(pending, server->waitUntilFinished(deadline));
        if (pending > 0) {
            KEST_WARNING(this, "Stopping after %1 ms with %2 request handler(s) still pending",
                         m_stopTimeout.count(), pending);
        }
        for (const auto& server : m_servers)
            server->closeAllConnections();
    }

    std::error_code lastError() const { return m_lastError; }

    const std::vector<std::unique_ptr<SocketServer>>& servers() const { return m_servers; }

private:
    Factory m_factory;
    std::chrono::milliseconds m_stopTimeout;
    bool m_stopped = false;
    std::vector<std::unique_ptr<SocketServer>> m_servers;
    std::error_code m_lastError;
};

}  // namespace kest::network::server
