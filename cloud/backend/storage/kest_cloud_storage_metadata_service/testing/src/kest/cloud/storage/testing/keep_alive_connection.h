#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "http_exchange.h"

namespace kest::cloud::storage::metadatadb::test {

/**
 * One kept-alive loopback connection: requests go out one at a time on it, so that a test knows
 * which of the server's connections (and I/O threads) serves them, or leaves one unanswered.
 */
class KeepAliveConnection
{
public:
    explicit KeepAliveConnection(std::uint16_t port);
    ~KeepAliveConnection();
    KeepAliveConnection(const KeepAliveConnection&) = delete;
    KeepAliveConnection& operator=(const KeepAliveConnection&) = delete;

    bool connected() const { return m_fd >= 0; }

    /** Sends a request and does not wait for its answer. */
    bool send(const std::string& method, const std::string& target, const std::string& body = {},
              const std::string& contentType = {});
    /** Sends bytes as they are: one request or several, pipelined. */
    bool sendRaw(const std::string& raw);
    /** Reads one answer, framed by its Content-Length. Nothing on a timeout or a close. */
    std::optional<HttpResponse> receive();
    /** Whether an answer (or a close) has arrived, without waiting. */
    bool readable() const;

    std::optional<HttpResponse> request(const std::string& method, const std::string& target,
                                        const std::string& body = {},
                                        const std::string& contentType = {});

private:
    bool readSome();

    int m_fd = -1;
    std::string m_buffer;
};

}  // namespace kest::cloud::storage::metadatadb::test
