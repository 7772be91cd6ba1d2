#include "request_metrics.h"

#include <algorithm>

namespace kest::network::http::server {

namespace {

using kest::utils::metrics::Histogram;
using kest::utils::metrics::MetricType;
using kest::utils::metrics::TextWriter;

constexpr std::array<std::string_view, 8> kUnmatchedMethods = {
    "GET", "HEAD", "POST", "PUT", "DELETE", "OPTIONS", "PATCH", "other"};

std::string upperCase(std::string_view text)
{
    std::string result(text);
    for (char& c : result) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return result;
}

}  // namespace

RequestMetrics::Route::Route(std::string route, std::string method)
    : m_route(std::move(route)), m_method(std::move(method)), m_latency(Histogram::latencyBounds())
{}

void RequestMetrics::Route::record(StatusCode::Value status,
                                   std::chrono::steady_clock::duration elapsed) noexcept
{
    const auto code = static_cast<std::size_t>(status);
    m_byStatus[code >= 100 && code < kStatusSlots ? code : 0].add();
    m_latency.observe(elapsed);
}

RequestMetrics::RequestMetrics(kest::utils::metrics::Registry& registry, std::string_view prefix)
{
    for (const std::string_view method : kUnmatchedMethods) {
        m_routes.push_back(
            std::make_unique<Route>(std::string(kUnmatchedRoute), std::string(method)));
        m_unmatched.push_back(m_routes.back().get());
    }
    const std::string name(prefix);
    m_counts = registry.collector(name + "http_requests_total",
                                  "HTTP requests answered, by route template, method and status",
                                  MetricType::counter,
                                  [this](TextWriter& writer) { writeCounts(writer); });
    m_latencies = registry.collector(
        name + "http_request_duration_seconds",
        "Time from routing a request to its answer, by route template and method",
        MetricType::histogram, [this](TextWriter& writer) { writeLatencies(writer); });
}

RequestMetrics::~RequestMetrics() = default;

RequestMetrics::Route& RequestMetrics::route(std::string_view pathTemplate, std::string_view method)
{
    const std::string methodLabel = method.empty() ? std::string("any") : upperCase(method);
    std::lock_guard lock(m_mutex);
    const auto it = std::find_if(m_routes.begin(), m_routes.end(), [&](const auto& route) {
        return route->route() == pathTemplate && route->method() == methodLabel;
    });
    if (it != m_routes.end())
        return **it;
    m_routes.push_back(std::make_unique<Route>(std::string(pathTemplate), methodLabel));
    return *m_routes.back();
}

RequestMetrics::Route& RequestMetrics::unmatched(std::string_view method)
{
    for (std::size_t i = 0; i + 1 < kUnmatchedMethods.size(); ++i) {
        const std::string_view known = kUnmatchedMethods[i];
        if (std::equal(known.begin(), known.end(), method.begin(), method.end(),
                       [](char a, char b) { return a == b || a == b - 'a' + 'A'; })) {
            return *m_unmatched[i];
        }
    }
    return *m_unmatched.back();
}

void RequestMetrics::writeCounts(TextWriter& writer) const
{
    std::lock_guard lock(m_mutex);
    for (const auto& route : m_routes) {
        for (std::size_t status = 0; status < Route::kStatusSlots; ++status) {
            const std::uint64_t count = route->m_byStatus[status].value();
            // Only the statuses a route has answered: a few series instead of hundreds.
            if (count == 0)
                continue;
            writer.sample({{"route", route->m_route},
                           {"method", route->m_method},
                           {"status", std::to_string(status)}},
                          count);
        }
    }
}

void RequestMetrics::writeLatencies(TextWriter& writer) const
{
    std::lock_guard lock(m_mutex);
    for (const auto& route : m_routes) {
        const auto snapshot = route->m_latency.snapshot();
        if (route->m_route == kUnmatchedRoute && snapshot.count() == 0)
            continue;
        writer.histogram({{"route", route->m_route}, {"method", route->m_method}}, snapshot);
    }
}

}  // namespace kest::network::http::server
