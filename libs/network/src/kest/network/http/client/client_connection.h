#pragma once

#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>

#include <kest/network/ssl/client_context.h>

namespace kest::network::http::client {

/**
 * One connection of the HTTP client, plain TCP or TLS over it. Operations reach the stream
 * through visit(), which hands over the plain socket or the TLS stream as the case may be.
 */
class ClientConnection
{
public:
    using TlsStream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

    /** Plain TCP. */
    explicit ClientConnection(boost::asio::io_context& ioContext);
    /** TLS with the context, which the connection keeps alive. */
    ClientConnection(boost::asio::io_context& ioContext,
                     std::shared_ptr<ssl::ClientContext> tlsContext);
    ~ClientConnection();

    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    /** The TCP socket under the stream. */
    boost::asio::ip::tcp::socket& socket() { return m_tls ? m_tls->next_layer() : *m_plain; }
    /** Null unless TLS. */
    TlsStream* tls() { return m_tls ? &*m_tls : nullptr; }

    template <typename Operation>
    decltype(auto) visit(Operation&& operation)
    {
        if (m_tls)
            return operation(*m_tls);
        return operation(*m_plain);
    }

    /** Closes the socket at once: pending operations end with an error. */
    void close();

private:
    std::shared_ptr<ssl::ClientContext> m_tlsContext;
    std::optional<boost::asio::ip::tcp::socket> m_plain;
    std::optional<TlsStream> m_tls;
};

}  // namespace kest::network::http::client
