#pragma once

#include <kest/network/socket_address.h>

#include "request.h"
#include "request_path_params.h"

namespace kest::network::http {

/** Everything a handler gets about one request: the request itself, its path parameters, and who
 * sent it. */
struct RequestContext
{
    Request request;
    RequestPathParams requestPathParams;
    SocketAddress clientEndpoint;
    /** Came over TLS. */
    bool secure = false;
    /**
     * The common name of the subject of the certificate that the client presented and the
     * server's client CA verified; empty without one.
     */
    std::string clientCertificateName;

    RequestContext() = default;
    RequestContext(Request request, SocketAddress clientEndpoint)
        : request(std::move(request)), clientEndpoint(std::move(clientEndpoint))
    {}

    RequestContext(RequestContext&&) = default;
    RequestContext& operator=(RequestContext&&) = default;
    RequestContext(const RequestContext&) = delete;
    RequestContext& operator=(const RequestContext&) = delete;
};

}  // namespace kest::network::http
