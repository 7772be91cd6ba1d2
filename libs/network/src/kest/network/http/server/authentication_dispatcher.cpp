#include "authentication_dispatcher.h"

#include <kest/network/http/api/api_request_result.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

namespace kest::network::http::server {

void AuthenticationDispatcher::addAuthenticator(Authenticator authenticator)
{
    std::lock_guard lock(m_mutex);
    m_authenticators.push_back(std::move(authenticator));
    m_hasAuthenticators.store(true, std::memory_order_release);
}

RequestResult AuthenticationDispatcher::refusal(const AuthenticationResult& result)
{
    // Neither text says anything of the credentials that were sent or of those that exist.
    const bool unauthenticated = result.verdict == AuthenticationResult::Verdict::unauthenticated;
    const ApiRequestResult body(
        ApiRequestErrorClass::unauthorized, unauthenticated ? "unauthenticated" : "forbidden",
        unauthenticated ? "Credentials are required: a valid bearer token or client certificate"
                        : "These credentials do not allow this request");
    RequestResult answer(unauthenticated ? StatusCode::unauthorized : StatusCode::forbidden,
                         body.toJson(), "application/json");
    if (unauthenticated)
        answer.headers.emplace_back("WWW-Authenticate", result.challenge);
    return answer;
}

std::optional<RequestResult> AuthenticationDispatcher::check(const RequestContext& context)
{
    // The list is empty unless the service was given credentials: skip the lock on the request
    // path unless someone added one.
    if (!m_hasAuthenticators.load(std::memory_order_acquire))
        return std::nullopt;
    AuthenticationResult result;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& authenticator : m_authenticators) {
            result = authenticator(context);
            if (result.verdict != AuthenticationResult::Verdict::pass)
                break;
        }
    }
    if (result.verdict == AuthenticationResult::Verdict::pass)
        return std::nullopt;
    const bool unauthenticated = result.verdict == AuthenticationResult::Verdict::unauthenticated;
    ++(unauthenticated ? m_unauthenticated : m_forbidden);
    KEST_DEBUG(this, "Refused %1 %2 from %3: %4", context.request.method, context.request.path,
               context.clientEndpoint.toString(),
               unauthenticated ? "no valid credentials" : "not allowed");
    return refusal(result);
}

std::optional<RequestResult> AuthenticationDispatcher::screenHead(const RequestContext& head)
{
    return check(head);
}

std::unique_ptr<AbstractRequestHandler> AuthenticationDispatcher::dispatchRequest(
    RequestContext requestContext, kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    if (auto refused = check(requestContext)) {
        completionHandler(std::move(*refused));
        return nullptr;
    }
    if (!KEST_ASSERT(m_next, "No message dispatcher behind the authentication dispatcher")) {
        completionHandler(RequestResult(StatusCode::internalServerError));
        return nullptr;
    }
    return m_next->dispatchRequest(std::move(requestContext), std::move(completionHandler));
}

}  // namespace kest::network::http::server
