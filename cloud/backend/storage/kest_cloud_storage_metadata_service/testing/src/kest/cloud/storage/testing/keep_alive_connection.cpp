#include "keep_alive_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>

namespace kest::cloud::storage::metadatadb::test {

KeepAliveConnection::KeepAliveConnection(std::uint16_t port)
{
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval timeout{60, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

KeepAliveConnection::~KeepAliveConnection()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool KeepAliveConnection::send(const std::string& method, const std::string& target,
                               const std::string& body, const std::string& contentType)
{
    std::string raw = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    if (!contentType.empty())
        raw += "Content-Type: " + contentType + "\r\n";
    raw += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    return sendRaw(raw);
}

bool KeepAliveConnection::sendRaw(const std::string& raw)
{
    for (std::size_t sent = 0; sent < raw.size();) {
        const ssize_t n = ::send(m_fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<HttpResponse> KeepAliveConnection::receive()
{
    std::size_t headEnd;
    while ((headEnd = m_buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!readSome())
            return std::nullopt;
    }
    HttpResponse result;
    result.head = m_buffer.substr(0, headEnd);
    result.status = std::stoi(result.head.substr(9, 3));
    std::size_t length = 0;
    std::string lower = result.head;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (const auto at = lower.find("content-length:"); at != std::string::npos)
        length = std::stoul(lower.substr(at + 15));
    while (m_buffer.size() < headEnd + 4 + length) {
        if (!readSome())
            return std::nullopt;
    }
    result.body = m_buffer.substr(headEnd + 4, length);
    m_buffer.erase(0, headEnd + 4 + length);
    return result;
}

bool KeepAliveConnection::readable() const
{
    pollfd pfd{m_fd, POLLIN, 0};
    return !m_buffer.empty() || ::poll(&pfd, 1, 0) > 0;
}

std::optional<HttpResponse> KeepAliveConnection::request(const std::string& method,
                                                         const std::string& target,
                                                         const std::string& body,
                                                         const std::string& contentType)
{
    if (!send(method, target, body, contentType))
        return std::nullopt;
    return receive();
}

bool KeepAliveConnection::readSome()
{
    char buffer[16384];
    const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
    if (n <= 0)
        return false;
    m_buffer.append(buffer, static_cast<std::size_t>(n));
    return true;
}

}  // namespace kest::cloud::storage::metadatadb::test
