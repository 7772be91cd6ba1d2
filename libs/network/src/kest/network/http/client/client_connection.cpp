#include "client_connection.h"

#include <boost/asio/ssl/context.hpp>

namespace kest::network::http::client {

ClientConnection::ClientConnection(boost::asio::io_context& ioContext)
{
    m_plain.emplace(ioContext);
}

ClientConnection::ClientConnection(boost::asio::io_context& ioContext,
                                   std::shared_ptr<ssl::ClientContext> tlsContext)
    : m_tlsContext(std::move(tlsContext))
{
    m_tls.emplace(ioContext, m_tlsContext->native());
}

ClientConnection::~ClientConnection() = default;

void ClientConnection::close()
{
    boost::system::error_code ignored;
    auto& tcp = socket();
    tcp.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    tcp.close(ignored);
}

}  // namespace kest::network::http::client
