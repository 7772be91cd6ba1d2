#include "socket_address.h"

#include <charconv>

namespace kest::network {

std::optional<SocketAddress> SocketAddress::parse(std::string_view text)
{
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        return std::nullopt;
    std::string_view host = text.substr(0, colon);
    const std::string_view portText = text.substr(colon + 1);
    if (host.front() == '[') {
        if (host.back() != ']' || host.size() < 3)
            return std::nullopt;
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string_view::npos) {
        return std::nullopt;  // an IPv6 address needs brackets
    }
    unsigned port = 0;
    const auto [end, error] =
        std::from_chars(portText.data(), portText.data() + portText.size(), port);
    if (portText.empty() || error != std::errc() || end != portText.data() + portText.size() ||
        port > 65535) {
        return std::nullopt;
    }
    return SocketAddress{std::string(host), static_cast<std::uint16_t>(port)};
}

std::string SocketAddress::toString() const
{
    if (host.find(':') != std::string::npos)
        return "[" + host + "]:" + std::to_string(port);
    return host + ":" + std::to_string(port);
}

}  // namespace kest::network
