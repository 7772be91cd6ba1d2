#pragma once

// Blocking HTTP/1.1 exchanges over plain sockets, enough for service tests: one request per
// connection with the whole response read until the server closes, or requests one after
// another on a kept-alive connection.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <optional>
#include <string>

namespace kest::cloud::storage::metadatadb::test {

struct HttpResponse
{
    int status = 0;
    std::string head;
    std::string body;
};

/** Sends `raw` as it is and reads the answer. Nothing when connecting or reading fails. */
inline std::optional<HttpResponse> exchangeRaw(std::uint16_t port, const std::string& raw)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return std::nullopt;
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return std::nullopt;
    }
    for (std::size_t sent = 0; sent < raw.size();) {
        const ssize_t n = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            break;  // The server may answer and close before taking the whole request.
        sent += static_cast<std::size_t>(n);
    }
    std::string response;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;)
        response.append(buffer, static_cast<std::size_t>(n));
    ::close(fd);

    const auto headEnd = response.find("\r\n\r\n");
    if (response.size() < 12 || headEnd == std::string::npos)
        return std::nullopt;
    HttpResponse result;
    result.status = std::stoi(response.substr(9, 3));
    result.head = response.substr(0, headEnd);
    result.body = response.substr(headEnd + 4);
    return result;
}

inline std::optional<HttpResponse> exchange(std::uint16_t port, const std::string& method,
                                            const std::string& target, const std::string& body = {},
                                            const std::string& contentType = {})
{
    std::string raw = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    if (!contentType.empty())
        raw += "Content-Type: " + contentType + "\r\n";
    raw += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    return exchangeRaw(port, raw + body);
}

/**
 * One kept-alive connection: requests go out one at a time on it, so that a test knows which
 * of the server's connections (and I/O threads) serves them.
 */
class KeepAliveConnection
{
public:
    explicit KeepAliveConnection(std::uint16_t port)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval timeout{10, 0};
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
    ~KeepAliveConnection()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    KeepAliveConnection(const KeepAliveConnection&) = delete;
    KeepAliveConnection& operator=(const KeepAliveConnection&) = delete;

    bool connected() const { return m_fd >= 0; }

    /** Sends a request and does not wait for its answer. */
    bool send(const std::string& method, const std::string& target, const std::string& body = {},
              const std::string& contentType = {})
    {
        std::string raw = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
        if (!contentType.empty())
            raw += "Content-Type: " + contentType + "\r\n";
        raw += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        return sendRaw(raw);
    }

    /** Sends bytes as they are: one request or several, pipelined. */
    bool sendRaw(const std::string& raw)
    {
        for (std::size_t sent = 0; sent < raw.size();) {
            const ssize_t n = ::send(m_fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }

    /** Reads one answer, framed by its Content-Length. Nothing on a timeout or a close. */
    std::optional<HttpResponse> receive()
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

    /** Whether an answer (or a close) has arrived, without waiting. */
    bool readable() const
    {
        pollfd pfd{m_fd, POLLIN, 0};
        return !m_buffer.empty() || ::poll(&pfd, 1, 0) > 0;
    }

    std::optional<HttpResponse> request(const std::string& method, const std::string& target,
                                        const std::string& body = {},
                                        const std::string& contentType = {})
    {
        if (!send(method, target, body, contentType))
            return std::nullopt;
        return receive();
    }

private:
    bool readSome()
    {
        char buffer[16384];
        const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
        if (n <= 0)
            return false;
        m_buffer.append(buffer, static_cast<std::size_t>(n));
        return true;
    }

    int m_fd = -1;
    std::string m_buffer;
};

}  // namespace kest::cloud::storage::metadatadb::test
