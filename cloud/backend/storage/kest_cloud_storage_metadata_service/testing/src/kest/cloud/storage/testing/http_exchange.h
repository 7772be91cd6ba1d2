#pragma once

// Blocking HTTP/1.1 exchanges over plain loopback sockets, for tests that must send exactly the
// bytes they choose: one request per connection, the whole answer read until the server closes.

#include <cstdint>
#include <optional>
#include <string>

namespace kest::cloud::storage::metadatadb::test {

struct HttpResponse
{
    int status = 0;
    std::string head;
    std::string body;

    /** Whether the head says "Content-Type: application/json", in any letter case. */
    bool hasJsonContentType() const;
};

/** Sends `raw` as it is and reads the answer. Nothing when connecting or reading fails. */
std::optional<HttpResponse> exchangeRaw(std::uint16_t port, const std::string& raw);

/** One request with a Host, the body's length and "Connection: close". */
std::optional<HttpResponse> exchange(std::uint16_t port, const std::string& method,
                                     const std::string& target, const std::string& body = {},
                                     const std::string& contentType = {});

}  // namespace kest::cloud::storage::metadatadb::test
