#pragma once

#include <kest/utils/move_only_func.h>

#include "request_context.h"
#include "request_result.h"

namespace kest::network::http {

/**
 * The handler of one request; a new one is made for every request. The completion handler must be
 * called exactly once, from any thread, possibly inside processRequest. The server keeps the
 * handler alive until then and destroys it afterwards on the connection's I/O thread, or, when
 * the connection is closed by then, inside the completion call on the calling thread: the
 * handler must not use itself once it has called the completion handler. A stopping server waits,
 * within a bound, for the handlers still pending.
 */
class AbstractRequestHandler
{
public:
    virtual ~AbstractRequestHandler() = default;

    virtual void processRequest(
        RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) = 0;
};

}  // namespace kest::network::http
