#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace kest::network::ssl {

/**
 * Decides whether a TLS peer is accepted: gets the peer's certificate chain (DER, leaf first) and
 * the host name asked for. HTTPS is not built yet, so nothing calls it today; the HTTP client's
 * connect step is where the handshake and this check go.
 */
using CertificateCheck =
    std::function<bool(std::span<const std::string> chainDer, std::string_view hostName)>;

/** Empty: the system's trusted roots and the usual host name match decide. */
inline const CertificateCheck kDefaultCertificateCheck{};

}  // namespace kest::network::ssl
