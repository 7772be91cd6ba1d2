#include "service_metrics.h"

namespace kest::cloud::storage::metadatadb {

using kest::utils::metrics::Histogram;

namespace {

const char* const kLookupsHelp = "Track searches answered, by kind";
const char* const kLookupLatencyHelp = "Time to answer a track search, by kind";

}  // namespace

ServiceMetrics::ServiceMetrics()
    : m_requestMetrics(m_registry, kPrefix),
      m_internalLookups(
          m_registry.counter(name("lookups_total"), kLookupsHelp, {{"kind", "internal"}})),
      m_distributedLookups(
          m_registry.counter(name("lookups_total"), kLookupsHelp, {{"kind", "distributed"}})),
      m_internalLookupLatency(m_registry.histogram(name("lookup_duration_seconds"),
                                                   kLookupLatencyHelp, Histogram::latencyBounds(),
                                                   {{"kind", "internal"}})),
      m_distributedLookupLatency(
          m_registry.histogram(name("lookup_duration_seconds"), kLookupLatencyHelp,
                               Histogram::latencyBounds(), {{"kind", "distributed"}})),
      m_peerRequests(
          m_registry.counter(name("fanout_peer_requests_total"),
                             "Internal lookups sent to instances by distributed searches")),
      m_peerFailures(m_registry.counter(
          name("fanout_peer_failures_total"),
          "Instances that answered a distributed search's lookup with a failure or not at all, "
          "timeouts aside")),
      m_peerTimeouts(
          m_registry.counter(name("fanout_peer_timeouts_total"),
                             "Instances cut off by the peer timeout during a distributed search")),
      m_untrackedObjects(
          m_registry.counter(name("untracked_objects_total"),
                             "Objects saved without a track id, each stored as a track of its own"))
{}

void ServiceMetrics::lookupDone(LookupKind kind,
                                std::chrono::steady_clock::duration elapsed) noexcept
{
    if (kind == LookupKind::internal) {
        m_internalLookups.add();
        m_internalLookupLatency.observe(elapsed);
    } else {
        m_distributedLookups.add();
        m_distributedLookupLatency.observe(elapsed);
    }
}

}  // namespace kest::cloud::storage::metadatadb
