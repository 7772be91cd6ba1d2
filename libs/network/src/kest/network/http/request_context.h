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
