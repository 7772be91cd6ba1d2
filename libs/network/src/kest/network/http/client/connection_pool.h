#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "client_connection.h"

namespace kest::network::aio {
class AioThread;
}  // namespace kest::network::aio

namespace kest::network::http::client {

/**
 * The idle kept-alive HTTP connections of one I/O thread, keyed by "host:port", or for TLS by
 * "https://host:port#" and the client context that made them. Every client on the thread shares
 * them, so short-lived clients to the same peer skip the TCP handshake. An idle connection is
 * closed when the peer closes it (or sends anything), when it has been idle for the idle timeout,
 * or when the host already has its cap of idle connections. Lives as long as the thread's
 * io_context; used only on that thread.
 */
class ConnectionPool : public boost::asio::execution_context::service
{
public:
    using key_type = ConnectionPool;
    static boost::asio::execution_context::id id;

    static constexpr std::size_t kDefaultMaxIdlePerHost = 8;
    /** Shorter than the usual server keep-alive (our own server's is a minute), so that it is
     * mostly us who close, not the peer just as we send. */
    static constexpr std::chrono::milliseconds kIdleTimeout{30'000};

    explicit ConnectionPool(boost::asio::io_context& ioContext);
    ~ConnectionPool() override;

    /** The pool of the thread, made on first use. */
    static ConnectionPool& of(aio::AioThread& thread);

    /** Process-wide; applies to connections put into a pool from then on. 0 keeps none idle. */
    static void setMaxIdlePerHost(std::size_t value);
    static std::size_t maxIdlePerHost();

    /** The connection used most recently that still looks open, or nothing. */
    std::unique_ptr<ClientConnection> take(const std::string& key);
    /** Keeps a connection whose last response has been read whole. */
    void put(const std::string& key, std::unique_ptr<ClientConnection> connection);

    std::size_t idleCount(const std::string& key) const;

private:
    struct Idle;

    void shutdown() override;
    void drop(const std::string& key, std::uint64_t id);

    boost::asio::io_context& m_ioContext;
    /** Per key, the oldest first. */
    std::map<std::string, std::deque<std::unique_ptr<Idle>>> m_idle;
    std::uint64_t m_nextId = 0;
};

}  // namespace kest::network::http::client
