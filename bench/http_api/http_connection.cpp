#include "http_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <cctype>
#include <cstring>

namespace kest::bench {

HttpConnection::HttpConnection(std::uint16_t port) : m_port(port)
{
    connect();
}

HttpConnection::~HttpConnection()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool HttpConnection::connect()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_buffer.clear();
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    return m_fd >= 0;
}

bool HttpConnection::readSome()
{
    char buffer[65536];
    const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
    if (n <= 0)
        return false;
    m_buffer.append(buffer, static_cast<std::size_t>(n));
    return true;
}

int HttpConnection::exchange(const std::string& request, std::string* body)
{
    if (m_fd < 0 && !connect())
        return 0;
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t n = ::send(m_fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            connect();
            return 0;
        }
        sent += static_cast<std::size_t>(n);
    }

    std::size_t headEnd;
    while ((headEnd = m_buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!readSome()) {
            connect();
            return 0;
        }
    }
    const int status = std::atoi(m_buffer.c_str() + 9);
    std::size_t length = 0;
    for (std::size_t line = m_buffer.find("\r\n"); line < headEnd;
         line = m_buffer.find("\r\n", line + 2)) {
        static constexpr char kName[] = "content-length:";
        if (line + 2 + sizeof(kName) - 1 > headEnd)
            break;
        if (::strncasecmp(m_buffer.c_str() + line + 2, kName, sizeof(kName) - 1) == 0)
            length = std::strtoul(m_buffer.c_str() + line + 2 + sizeof(kName) - 1, nullptr, 10);
    }
    while (m_buffer.size() < headEnd + 4 + length) {
        if (!readSome()) {
            connect();
            return 0;
        }
    }
    if (body)
        body->assign(m_buffer, headEnd + 4, length);
    m_buffer.erase(0, headEnd + 4 + length);
    return status;
}

std::string getRequest(const std::string& target)
{
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

std::string postJsonRequest(const std::string& target, const std::string& body)
{
    return "POST " + target +
           " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace kest::bench
