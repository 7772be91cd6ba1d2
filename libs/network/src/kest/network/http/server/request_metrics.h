#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <kest/network/http/status_code.h>
#include <kest/utils/metrics/registry.h>

namespace kest::network::http::server {

/**
 * Answered requests by route template, method and status, and their latency by route. The routes
 * are known when they are registered, so recording a request is a few relaxed atomic adds.
 */
class RequestMetrics
{
public:
    /** The label of requests that matched no route. */
    static constexpr std::string_view kUnmatchedRoute = "unmatched";

    /** The figures of one (route template, method) pair. */
    class Route
    {
    public:
        Route(std::string route, std::string method);

        void record(StatusCode::Value status, std::chrono::steady_clock::duration elapsed) noexcept;

        const std::string& route() const { return m_route; }
        const std::string& method() const { return m_method; }

    private:
        friend class RequestMetrics;
        // Indexed by the status itself; anything outside 100..599 lands on 0.
        static constexpr std::size_t kStatusSlots = 600;

        std::string m_route;
        std::string m_method;
        std::array<kest::utils::metrics::Counter, kStatusSlots> m_byStatus;
        kest::utils::metrics::Histogram m_latency;
    };

    /**
     * Adds the families "<prefix>http_requests_total" and
     * "<prefix>http_request_duration_seconds" to `registry`, which must outlive this object.
     */
    RequestMetrics(kest::utils::metrics::Registry& registry, std::string_view prefix);
    ~RequestMetrics();

    RequestMetrics(const RequestMetrics&) = delete;
    RequestMetrics& operator=(const RequestMetrics&) = delete;

    /**
     * The figures of a route, made on the first call; an empty method stands for any method. Takes
     * a lock: called when routes are registered, not per request.
     */
    Route& route(std::string_view pathTemplate, std::string_view method);

    /**
     * The figures of requests that matched no route. Lock-free; methods outside the common few
     * share "other", so that no request can add a series.
     */
    Route& unmatched(std::string_view method);

private:
    void writeCounts(kest::utils::metrics::TextWriter& writer) const;
    void writeLatencies(kest::utils::metrics::TextWriter& writer) const;

    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<Route>> m_routes;
    std::vector<Route*> m_unmatched;
    kest::utils::metrics::Registration m_counts;
    kest::utils::metrics::Registration m_latencies;
};

}  // namespace kest::network::http::server
