#pragma once

#include <kest/network/http/abstract_request_handler.h>

namespace kest::network::http {

/**
 * A request handler that takes its request as a decoded record of type `Input`. Controllers
 * implement the typed processRequest; the frame (detail::BaseApiRequestHandler) calls it.
 */
template <typename Input>
class AbstractApiRequestHandler : public AbstractRequestHandler
{
public:
    using InputType = Input;
    using AbstractRequestHandler::processRequest;

    /** Called once the input has been decoded; must end with exactly one completion. */
    virtual void processRequest(RequestContext requestContext, Input input) = 0;
};

}  // namespace kest::network::http
