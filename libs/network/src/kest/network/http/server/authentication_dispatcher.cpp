#include "authentication_dispatcher.h"

#include <kest/utils/assert.h>

namespace kest::network::http::server {

void AuthenticationDispatcher::addAuthenticator(Authenticator authenticator)
{
    std::lock_guard lock(m_mutex);
    m_authenticators.push_back(std::move(authenticator));
    m_hasAuthenticators.store(true, std::memory_order_release);
}

std::unique_ptr<AbstractRequestHandler> AuthenticationDispatcher::dispatchRequest(
    RequestContext requestContext, kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    // The list is empty in this service: skip the lock on the request path unless someone added
    // one.
    if (m_hasAuthenticators.load(std::memory_order_acquire)) {
        std::unique_lock lock(m_mutex);
        for (const auto& authenticator : m_authenticators) {
            if (!authenticator(requestContext)) {
                lock.unlock();
                completionHandler(RequestResult(StatusCode::unauthorized));
                return nullptr;
            }
        }
    }
    if (!KEST_ASSERT(m_next, "No message dispatcher behind the authentication dispatcher")) {
        completionHandler(RequestResult(StatusCode::internalServerError));
        return nullptr;
    }
    return m_next->dispatchRequest(std::move(requestContext), std::move(completionHandler));
}

}  // namespace kest::network::http::server
