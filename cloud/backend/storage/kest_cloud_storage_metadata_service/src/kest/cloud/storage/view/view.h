#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <kest/network/http/abstract_request_handler.h>
#include <kest/network/http/server/authentication_dispatcher.h>
#include <kest/network/http/server/builder.h>
#include <kest/network/http/server/rest/message_dispatcher.h>
#include <kest/network/http/server/token_authenticator.h>
#include <kest/network/socket_address.h>
#include <kest/utils/assert.h>
#include <kest/utils/metrics/registration.h>
#include <kest/utils/move_only_func.h>

#include "api_paths.h"

namespace kest::analytics::db {
class AbstractEventsStorage;
}

namespace kest::cloud::storage::metadatadb {

namespace conf {
class Settings;
}

class Model;
class ErrorsStorageModel;

/**
 * The HTTP front end: binds the listening sockets (plain or TLS), routes requests to a new
 * controller each, and feeds the analytics storage's save-error reports into the errors history.
 * When the service has credentials (a tokens file or a client CA), every route but the open ones
 * is refused without them, before any controller is made.
 */
class View : public ApiPaths
{
public:
    /** Binds every configured endpoint. Throws std::runtime_error when that is impossible. */
    View(const conf::Settings& settings, Model& model);
    ~View();

    View(const View&) = delete;
    View& operator=(const View&) = delete;

    /** Starts accepting. Throws std::system_error when a socket cannot listen. */
    void start();
    /** Stops accepting and closes every connection, waiting for each to close. */
    void stop();

    /** The addresses actually bound; a port 0 endpoint shows its real port. */
    std::vector<kest::network::SocketAddress> httpEndpoints() const;

    /** Reads the tokens file again; what was read before stays when it cannot be used. */
    void reloadCredentials();

    void respondOk(
        kest::network::http::RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(kest::network::http::RequestResult)> completionHandler);

private:
    void registerApiHandlers(Model& model);
    void registerDbErrorsHandler(kest::analytics::db::AbstractEventsStorage* analyticsStorage,
                                 ErrorsStorageModel* errorsStorageModel);
    void startAcceptor();
    /** Puts the token and certificate checks in front of the routes, when configured. */
    void setUpAuthentication();
    /** The figures read at scrape time: the server's, the storages' and the process's. */
    void registerMetricSources(Model& model);

    /**
     * Routes (path, method) to a new `Controller(args...)` per request. The arguments are kept by
     * value in the route; pass objects that controllers share by pointer or with std::ref.
     */
    template <typename Controller, typename... Args>
    void registerApiHandler(const char* path, const char* method, Args&&... args)
    {
        registerRequestProcessor(
            path,
            [args = std::tuple<std::decay_t<Args>...>(std::forward<Args>(
                 args)...)]() -> std::unique_ptr<kest::network::http::AbstractRequestHandler> {
                return std::apply(
                    [](const auto&... arg) { return std::make_unique<Controller>(arg...); }, args);
            },
            method);
    }

    template <typename... Args>
    void registerRequestProcessor(Args&&... args)
    {
        KEST_ASSERT(
            m_httpMessageDispatcher.registerRequestProcessor(std::forward<Args>(args)...),
            "m_httpMessageDispatcher.registerRequestProcessor(std::forward<Args>(args)...)");
    }

    const conf::Settings& m_settings;
    kest::network::http::server::rest::MessageDispatcher m_httpMessageDispatcher;
    kest::network::http::server::AuthenticationDispatcher m_authenticationDispatcher;
    std::unique_ptr<kest::network::http::server::TokenAuthenticator> m_tokenAuthenticator;
    std::unique_ptr<kest::network::http::server::MultiAddressHttpServer> m_multiAddressHttpServer;
    std::vector<kest::utils::metrics::Registration> m_metricSources;
};

}  // namespace kest::cloud::storage::metadatadb
