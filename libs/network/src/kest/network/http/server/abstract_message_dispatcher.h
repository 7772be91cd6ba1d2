#pragma once

#include <memory>
#include <optional>

#include <kest/network/http/abstract_request_handler.h>

namespace kest::network::http::server {

/** Where the HTTP server hands every received request. */
class AbstractMessageDispatcher
{
public:
    virtual ~AbstractMessageDispatcher() = default;

    /**
     * Finds the handler of the request and starts it. Returns the handler, which the caller keeps
     * alive until the completion handler has been called. When no handler matches, the request is
     * answered 404 Not Found through the completion handler and nothing is returned.
     */
    virtual std::unique_ptr<AbstractRequestHandler> dispatchRequest(
        RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) = 0;

    /**
     * Looks at a request whose head has arrived while its body is still coming. An answer ends
     * the request there, without reading the body, and the connection is closed after it;
     * nothing lets it go on to dispatchRequest() once whole. On the connection's I/O thread.
     */
    virtual std::optional<RequestResult> screenHead(const RequestContext& /*head*/)
    {
        return std::nullopt;
    }
};

}  // namespace kest::network::http::server
