#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include <kest/utils/mutex.h>

#include "abstract_message_dispatcher.h"

namespace kest::network::http::server {

/**
 * Stands between the HTTP server and the message dispatcher. No authenticator is registered in
 * this service, so every request is passed on as it came.
 */
class AuthenticationDispatcher : public AbstractMessageDispatcher
{
public:
    /** Says whether a request may pass; an empty list lets everything through. */
    using Authenticator = std::function<bool(const RequestContext&)>;

    explicit AuthenticationDispatcher(AbstractMessageDispatcher* next = nullptr) : m_next(next) {}

    /** Set once before the server starts (the server builder does it). */
    void setNextDispatcher(AbstractMessageDispatcher* next) { m_next = next; }
    AbstractMessageDispatcher* nextDispatcher() const { return m_next; }

    void addAuthenticator(Authenticator authenticator);

    std::unique_ptr<AbstractRequestHandler> dispatchRequest(
        RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override;

private:
    AbstractMessageDispatcher* m_next = nullptr;
    mutable kest::Mutex m_mutex;
    std::vector<Authenticator> m_authenticators;
    std::atomic<bool> m_hasAuthenticators{false};
};

}  // namespace kest::network::http::server
