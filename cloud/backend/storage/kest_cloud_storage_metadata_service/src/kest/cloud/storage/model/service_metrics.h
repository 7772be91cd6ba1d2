#pragma once

#include <chrono>
#include <string>

#include <kest/network/http/server/request_metrics.h>
#include <kest/utils/metrics/registry.h>

namespace kest::cloud::storage::metadatadb {

/**
 * The service's metrics registry and the figures that requests update as they go: searches by
 * kind and the distributed search's peer failures. Made before the storages and destroyed after
 * them, so every part of the service may hold on to its counters.
 */
class ServiceMetrics
{
public:
    /** Every metric of the service starts with it. */
    static constexpr const char* kPrefix = "metadatadb_";

    enum class LookupKind
    {
        internal,
        distributed,
    };

    ServiceMetrics();

    ServiceMetrics(const ServiceMetrics&) = delete;
    ServiceMetrics& operator=(const ServiceMetrics&) = delete;

    kest::utils::metrics::Registry& registry() { return m_registry; }
    /**
     * Kept here rather than by the HTTP front end: a request that a stopping server gave up on
     * may still be answered, and counted, until the storages are gone.
     */
    kest::network::http::server::RequestMetrics& requestMetrics() { return m_requestMetrics; }

    /** A search of `kind` answered, successfully or not, after `elapsed`. */
    void lookupDone(LookupKind kind, std::chrono::steady_clock::duration elapsed) noexcept;

    /** An instance asked during a distributed search answered anything but 200 in time. */
    void peerFailed() noexcept { m_peerFailures.add(); }
    /** An instance asked during a distributed search did not answer within the peer timeout. */
    void peerTimedOut() noexcept { m_peerTimeouts.add(); }
    void peerAsked() noexcept { m_peerRequests.add(); }

    /** Objects without a track id were handed to the storage as tracks of their own. */
    void untrackedObjectsStored(std::uint64_t count) noexcept
    {
        if (count > 0)
            m_untrackedObjects.add(count);
    }

    static std::string name(const char* suffix) { return std::string(kPrefix) + suffix; }

private:
    kest::utils::metrics::Registry m_registry;
    kest::network::http::server::RequestMetrics m_requestMetrics;
    kest::utils::metrics::Counter& m_internalLookups;
    kest::utils::metrics::Counter& m_distributedLookups;
    kest::utils::metrics::Histogram& m_internalLookupLatency;
    kest::utils::metrics::Histogram& m_distributedLookupLatency;
    kest::utils::metrics::Counter& m_peerRequests;
    kest::utils::metrics::Counter& m_peerFailures;
    kest::utils::metrics::Counter& m_peerTimeouts;
    kest::utils::metrics::Counter& m_untrackedObjects;
};

}  // namespace kest::cloud::storage::metadatadb
