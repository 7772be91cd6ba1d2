#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include <kest/network/http/server/abstract_message_dispatcher.h>
#include <kest/network/http/server/request_metrics.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

#include "path_matcher.h"

namespace kest::network::http::server::rest {

/**
 * The route table: (HTTP method, path template) -> handler factory. The empty method stands for
 * any method and is tried after the request's own method. Method names are compared
 * case-insensitively, paths case-sensitively.
 */
template <typename Matcher>
class BasicMessageDispatcher : public AbstractMessageDispatcher
{
public:
    struct FoundHandler
    {
        /** Owned by the dispatcher; valid while the route stays registered. */
        const RequestHandlerFactory* factory = nullptr;
        RequestPathParams pathParams;
    };

    /**
     * From now on every request is recorded in `metrics` once answered, under its route template
     * or as unmatched. Set before the routes are registered; `metrics` must outlive the dispatcher.
     */
    void setRequestMetrics(RequestMetrics* metrics)
    {
        KEST_ASSERT(m_matchers.empty(), "Request metrics set after routes were registered");
        m_metrics = metrics;
    }

    /** False when the (method, template) pair is taken or the template is not a valid pattern. */
    bool registerRequestProcessor(std::string pathTemplate, RequestHandlerFactory factory,
                                  std::string method = {})
    {
        if (m_metrics) {
            factory = [route = &m_metrics->route(pathTemplate, method),
                       factory = std::move(factory)]() -> std::unique_ptr<AbstractRequestHandler> {
                auto handler = factory();
                if (!handler)
                    return nullptr;
                return std::make_unique<MeasuredHandler>(std::move(handler), route);
            };
        }
        return m_matchers[normalizedMethod(method)].add(pathTemplate, std::move(factory));
    }

    /** Requests whose path starts with `prefix` get it replaced by `replacement` before matching.
     */
    void addModRewriteRule(std::string prefix, std::string replacement)
    {
        m_rewriteRules[std::move(prefix)] = std::move(replacement);
    }

    /** Applies the rule with the longest prefix that the path starts with; no rule, no change. */
    void applyModRewrite(std::string* path) const
    {
        const std::pair<const std::string, std::string>* best = nullptr;
        for (const auto& rule : m_rewriteRules) {
            if (path->starts_with(rule.first) &&
                (!best || rule.first.size() > best->first.size())) {
                best = &rule;
            }
        }
        if (!best)
            return;
        std::string rewritten = best->second + path->substr(best->first.size());
        KEST_DEBUG(this, "Rewriting url '%1' to '%2'", *path, rewritten);
        *path = std::move(rewritten);
    }

    /** The handler of the (method, path) pair: the method's own routes first, then any-method
     * routes. */
    std::optional<FoundHandler> getHandler(std::string_view method, const std::string& path) const
    {
        if (auto found = findIn(normalizedMethod(method), path))
            return found;
        return findIn(std::string(), path);
    }

    /**
     * Matches the request and starts its handler. A request that matches no route is answered
     * here, with 404 Not Found, so that the server never has to know about routes.
     */
    std::unique_ptr<AbstractRequestHandler> dispatchRequest(
        RequestContext requestContext,
        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        Request& request = requestContext.request;
        if (!m_rewriteRules.empty()) {
            std::string path = request.path;
            applyModRewrite(&path);
            request.path = std::move(path);
        }
        auto found = getHandler(request.method, request.path);
        std::unique_ptr<AbstractRequestHandler> handler;
        if (found)
            handler = (*found->factory)();
        if (!handler) {
            KEST_VERBOSE(this, "No handler for %1 %2", request.method, request.path);
            if (m_metrics)
                m_metrics->unmatched(request.method).record(StatusCode::notFound, {});
            completionHandler(RequestResult(StatusCode::notFound));
            return nullptr;
        }
        requestContext.requestPathParams = std::move(found->pathParams);
        handler->processRequest(std::move(requestContext), std::move(completionHandler));
        return handler;
    }

private:
    /** Times the handler it wraps and records its answer under its route. */
    class MeasuredHandler : public AbstractRequestHandler
    {
    public:
        MeasuredHandler(std::unique_ptr<AbstractRequestHandler> handler,
                        RequestMetrics::Route* route)
            : m_handler(std::move(handler)), m_route(route)
        {}

        void processRequest(
            RequestContext requestContext,
            kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
        {
            // The completion may come after this wrapper is gone: it takes what it needs along.
            m_handler->processRequest(
                std::move(requestContext),
                [route = m_route, started = std::chrono::steady_clock::now(),
                 completionHandler = std::move(completionHandler)](RequestResult result) mutable {
                    route->record(result.statusCode, std::chrono::steady_clock::now() - started);
                    completionHandler(std::move(result));
                });
        }

    private:
        std::unique_ptr<AbstractRequestHandler> m_handler;
        RequestMetrics::Route* m_route;
    };

    static std::string normalizedMethod(std::string_view method)
    {
        std::string result(method);
        for (char& c : result) {
            if (c >= 'a' && c <= 'z')
                c = static_cast<char>(c - 'a' + 'A');
        }
        return result;
    }

    std::optional<FoundHandler> findIn(const std::string& method, const std::string& path) const
    {
        const auto it = m_matchers.find(method);
        if (it == m_matchers.end())
            return std::nullopt;
        auto match = it->second.match(path);
        if (!match)
            return std::nullopt;
        return FoundHandler{match->factory, std::move(match->pathParams)};
    }

    std::map<std::string, Matcher> m_matchers;
    std::map<std::string, std::string> m_rewriteRules;
    RequestMetrics* m_metrics = nullptr;
};

using MessageDispatcher = BasicMessageDispatcher<PathMatcher>;

}  // namespace kest::network::http::server::rest
