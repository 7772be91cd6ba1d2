#include "connection_pool.h"

#include <sys/socket.h>

#include <cerrno>

#include <kest/network/aio/aio_thread.h>

namespace kest::network::http::client {

namespace {

std::atomic<std::size_t> g_maxIdlePerHost{ConnectionPool::kDefaultMaxIdlePerHost};

/**
 * Whether an idle connection can still carry a request: the peer has neither closed it nor sent
 * anything unasked. Peeks without blocking, so nothing is consumed.
 */
bool looksOpen(boost::asio::ip::tcp::socket& socket)
{
    if (!socket.is_open())
        return false;
    char byte = 0;
    const ssize_t got = ::recv(socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace

boost::asio::execution_context::id ConnectionPool::id;

struct ConnectionPool::Idle
{
    Idle(std::uint64_t id, std::unique_ptr<ClientConnection> connection,
         boost::asio::io_context& ioContext)
        : id(id), connection(std::move(connection)), expiry(ioContext)
    {}

    std::uint64_t id;
    std::unique_ptr<ClientConnection> connection;
    boost::asio::steady_timer expiry;
};

ConnectionPool::ConnectionPool(boost::asio::io_context& ioContext)
    : boost::asio::execution_context::service(ioContext), m_ioContext(ioContext)
{
    // Services are shut down and destroyed newest first. Making the socket and timer services
    // now, before this one is registered, lets the idle sockets and timers die before them.
    boost::asio::ip::tcp::socket socket(ioContext);
    boost::asio::steady_timer timer(ioContext);
}

ConnectionPool::~ConnectionPool() = default;

ConnectionPool& ConnectionPool::of(aio::AioThread& thread)
{
    return boost::asio::use_service<ConnectionPool>(thread.ioContext());
}

void ConnectionPool::setMaxIdlePerHost(std::size_t value)
{
    g_maxIdlePerHost = value;
}

std::size_t ConnectionPool::maxIdlePerHost()
{
    return g_maxIdlePerHost.load();
}

std::unique_ptr<ClientConnection> ConnectionPool::take(const std::string& key)
{
    const auto it = m_idle.find(key);
    if (it == m_idle.end())
        return nullptr;
    auto& connections = it->second;
    std::unique_ptr<ClientConnection> result;
    while (!connections.empty() && !result) {
        std::unique_ptr<Idle> idle = std::move(connections.back());
        connections.pop_back();
        // Their handlers may already be queued; they find the id gone and do nothing.
        idle->expiry.cancel();
        boost::system::error_code ignored;
        idle->connection->socket().cancel(ignored);
        if (looksOpen(idle->connection->socket()))
            result = std::move(idle->connection);
    }
    if (connections.empty())
        m_idle.erase(it);
    return result;
}

void ConnectionPool::put(const std::string& key, std::unique_ptr<ClientConnection> connection)
{
    const std::size_t limit = maxIdlePerHost();
    if (limit == 0 || !connection->socket().is_open())
        return;
    auto& connections = m_idle[key];
    while (connections.size() >= limit)
        connections.pop_front();

    const std::uint64_t id = ++m_nextId;
    auto& idle =
        connections.emplace_back(std::make_unique<Idle>(id, std::move(connection), m_ioContext));

    // Readable while idle means the peer closed it or sent something unasked (over TLS, its
    // close_notify): either way it can no longer carry a request. The pool outlives every handler
    // queued on its io_context.
    idle->connection->socket().async_wait(boost::asio::socket_base::wait_read,
                                          [this, key, id](const boost::system::error_code& error) {
                                              if (error != boost::asio::error::operation_aborted)
                                                  drop(key, id);
                                          });
    idle->expiry.expires_after(kIdleTimeout);
    idle->expiry.async_wait([this, key, id](const boost::system::error_code& error) {
        if (!error)
            drop(key, id);
    });
}

std::size_t ConnectionPool::idleCount(const std::string& key) const
{
    const auto it = m_idle.find(key);
    return it == m_idle.end() ? 0 : it->second.size();
}

void ConnectionPool::drop(const std::string& key, std::uint64_t id)
{
    const auto it = m_idle.find(key);
    if (it == m_idle.end())
        return;
    auto& connections = it->second;
    std::erase_if(connections, [id](const auto& idle) { return idle->id == id; });
    if (connections.empty())
        m_idle.erase(it);
}

void ConnectionPool::shutdown()
{
    m_idle.clear();
}

}  // namespace kest::network::http::client
