#pragma once

#include <memory>

#include <kest/network/server/multi_address_server.h>

#include "http_stream_socket_server.h"
#include "settings.h"

namespace kest::network::http::server {

class AuthenticationDispatcher;
class AbstractMessageDispatcher;

using MultiAddressHttpServer = kest::network::server::MultiAddressServer<HttpStreamSocketServer>;

/**
 * Makes the HTTP server: its I/O threads and one socket server per endpoint, once bound, with TLS
 * on the endpoints that the settings say.
 */
class Builder
{
public:
    /**
     * The server sends every request to `authenticationDispatcher`, which forwards to
     * `messageDispatcher` (or straight to the latter when the former is null). Both must outlive
     * the server. Throws std::invalid_argument when the settings are unusable, among them a
     * certificate or key that cannot be read.
     */
    static std::unique_ptr<MultiAddressHttpServer> buildOrThrow(
        const Settings& settings, AuthenticationDispatcher* authenticationDispatcher,
        AbstractMessageDispatcher* messageDispatcher);
};

}  // namespace kest::network::http::server
