#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kest::network {

/** A host (name or IP address) and a port. Written "host:port", IPv6 addresses in brackets. */
struct SocketAddress
{
    std::string host;
    std::uint16_t port = 0;

    /** Reads "host:port" or "[v6]:port". Nothing when the text is not such a pair. */
    static std::optional<SocketAddress> parse(std::string_view text);

    std::string toString() const;

    friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
};

}  // namespace kest::network
