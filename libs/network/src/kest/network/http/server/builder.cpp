#include "builder.h"

#include <stdexcept>

#include <kest/network/ssl/server_context.h>

#include "authentication_dispatcher.h"
#include "http_server_shared_state.h"

namespace kest::network::http::server {

std::unique_ptr<MultiAddressHttpServer> Builder::buildOrThrow(
    const Settings& settings, AuthenticationDispatcher* authenticationDispatcher,
    AbstractMessageDispatcher* messageDispatcher)
{
    if (!messageDispatcher)
        throw std::invalid_argument("The HTTP server needs a message dispatcher");
    if (settings.maxHeaderBytes == 0)
        throw std::invalid_argument("The HTTP header size limit must not be zero");
    if (settings.maxChunkLineBytes == 0)
        throw std::invalid_argument("The HTTP chunk line size limit must not be zero");

    auto state = std::make_shared<HttpServerSharedState>(settings.ioThreads);
    state->limits.request.maxHeaderBytes = settings.maxHeaderBytes;
    state->limits.request.maxBodyBytes = settings.maxBodyBytes;
    state->limits.request.maxChunkLineBytes = settings.maxChunkLineBytes;
    state->limits.requestReadTimeout = settings.requestReadTimeout;
    state->limits.idleTimeout = settings.idleTimeout;
    state->maxConnections = settings.maxConnections;
    if (!settings.tlsEndpoints.empty()) {
        try {
            state->tlsContext = std::make_shared<ssl::ServerContext>(ssl::ServerContext::Options{
                settings.certificateFile, settings.privateKeyFile, settings.clientCaFile});
        } catch (const std::runtime_error& e) {
            throw std::invalid_argument(e.what());
        }
        state->tlsAddresses = settings.tlsEndpoints;
    }
    if (authenticationDispatcher) {
        authenticationDispatcher->setNextDispatcher(messageDispatcher);
        state->dispatcher = authenticationDispatcher;
    } else {
        state->dispatcher = messageDispatcher;
    }
    return std::make_unique<MultiAddressHttpServer>(
        [state]() { return std::make_unique<HttpStreamSocketServer>(state); },
        settings.stopTimeout);
}

}  // namespace kest::network::http::server
