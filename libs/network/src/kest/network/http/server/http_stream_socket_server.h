#pragma once

#include <chrono>
#include <memory>
#include <system_error>

#include <kest/network/socket_address.h>

namespace kest::network::http::server {

struct HttpServerSharedState;

/** One listening socket, plain or TLS, and the HTTP/1.1 connections it accepted. */
class HttpStreamSocketServer
{
public:
    explicit HttpStreamSocketServer(std::shared_ptr<HttpServerSharedState> sharedState);
    ~HttpStreamSocketServer();

    HttpStreamSocketServer(const HttpStreamSocketServer&) = delete;
    HttpStreamSocketServer& operator=(const HttpStreamSocketServer&) = delete;

    /** Serves TLS when the shared state lists `address` among its TLS addresses. */
    bool bind(const SocketAddress& address);
    /** Switches the socket to non-blocking mode, listens and starts accepting. */
    bool listen(int backlog);
    /** The bound address, with the real port after binding port 0. */
    SocketAddress address() const;
    bool servesTls() const;
    std::error_code lastError() const;

    /** Cancels the pending accept and waits until no accept can complete. */
    void cancelAccepting();
    /**
     * Closes the connections with no request in flight; the others close once their current
     * response is written. Waits until each connection's thread has seen to it.
     */
    void closeIdleConnections();
    /**
     * Waits until no request handler of the server's I/O threads is pending and every connection
     * of this server is closed, or until the deadline. Says how many handlers are still pending.
     */
    std::size_t waitUntilFinished(std::chrono::steady_clock::time_point deadline);
    /** Closes every connection and waits, on each connection's thread, until it is closed. */
    void closeAllConnections();

    std::size_t connectionCount() const;

private:
    struct Private;
    std::shared_ptr<Private> d;
};

}  // namespace kest::network::http::server
