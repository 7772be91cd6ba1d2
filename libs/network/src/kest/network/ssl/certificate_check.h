#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace kest::network::ssl {

/**
 * Decides whether a TLS peer is accepted: gets the peer's certificate chain (DER, leaf first) and
 * the host name asked for. An HTTPS client runs it once the handshake is done, and again before
 * it reuses a kept-alive connection.
 */
using CertificateCheck =
    std::function<bool(std::span<const std::string> chainDer, std::string_view hostName)>;

/**
 * Empty: OpenSSL decides during the handshake, with the trusted CAs of the client's context
 * (the system's by default) and the usual host name match.
 */
inline const CertificateCheck kDefaultCertificateCheck{};

}  // namespace kest::network::ssl
