#include "http_exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>

namespace kest::cloud::storage::metadatadb::test {

bool HttpResponse::hasJsonContentType() const
{
    std::string lower = head;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower.find("content-type: application/json") != std::string::npos;
}

std::optional<HttpResponse> exchangeRaw(std::uint16_t port, const std::string& raw)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return std::nullopt;
    // Generous: a loaded machine may take seconds to answer, and a test that hangs is no better
    // than one that fails.
    timeval timeout{60, 0};
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

std::optional<HttpResponse> exchange(std::uint16_t port, const std::string& method,
                                     const std::string& target, const std::string& body,
                                     const std::string& contentType)
{
    std::string raw = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    if (!contentType.empty())
        raw += "Content-Type: " + contentType + "\r\n";
    raw += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    return exchangeRaw(port, raw + body);
}

}  // namespace kest::cloud::storage::metadatadb::test
