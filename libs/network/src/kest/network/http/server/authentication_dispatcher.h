#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include <kest/utils/mutex.h>

#include "abstract_message_dispatcher.h"
#include "authentication_result.h"

namespace kest::network::http::server {

/**
 * Stands between the HTTP server and the message dispatcher. Each authenticator in turn may stop
 * a request: it is then answered 401 (with a WWW-Authenticate challenge) or 403, with the API's
 * error body, and never reaches a route. A request with a body is judged as soon as its head is
 * in, so that a caller without credentials cannot make the server hold a body. With no
 * authenticator, as by default, every request is passed on as it came.
 */
class AuthenticationDispatcher : public AbstractMessageDispatcher
{
public:
    /** Called on the I/O threads, from several at once. */
    using Authenticator = std::function<AuthenticationResult(const RequestContext&)>;

    explicit AuthenticationDispatcher(AbstractMessageDispatcher* next = nullptr) : m_next(next) {}

    /** Set once before the server starts (the server builder does it). */
    void setNextDispatcher(AbstractMessageDispatcher* next) { m_next = next; }

    void addAuthenticator(Authenticator authenticator);

    std::unique_ptr<AbstractRequestHandler> dispatchRequest(
        RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override;
    /** Refuses a request without valid credentials as soon as its head is in. */
    std::optional<RequestResult> screenHead(const RequestContext& head) override;

    /** Requests refused so far: 401 (no or unknown credentials) and 403 (not allowed). */
    std::uint64_t unauthenticatedCount() const { return m_unauthenticated.load(); }
    std::uint64_t forbiddenCount() const { return m_forbidden.load(); }

    /** The answer to a refused request: status, challenge and error body. */
    static RequestResult refusal(const AuthenticationResult& result);

private:
    /** The refusal of the request, counted and logged; nothing when it may pass. */
    std::optional<RequestResult> check(const RequestContext& context);

    AbstractMessageDispatcher* m_next = nullptr;
    mutable kest::Mutex m_mutex;
    std::vector<Authenticator> m_authenticators;
    std::atomic<bool> m_hasAuthenticators{false};
    std::atomic<std::uint64_t> m_unauthenticated{0};
    std::atomic<std::uint64_t> m_forbidden{0};
};

}  // namespace kest::network::http::server
