#pragma once

#include <chrono>
#include <string>

class ZuSettings;

namespace kest::cloud::storage::metadatadb::conf {

/**
 * How this instance takes part in a cluster of its own (group "cluster"): whether it records in
 * the shared database where its data lives and how loaded it is, and how often.
 *
 * Data addresses: a device's committed data is recorded at once as a span that reaches F past
 * it, and the next span of F before that one runs out, so data is found through other instances
 * moments after its commit and a steady stream adds 3600 s / F spans per hour to the device's
 * document, plus one per silence longer than F. Spans older than an hour merge into fewer (see
 * DataAddressRecorder), so the document stays small however long the device streams.
 */
class ClusterSettings
{
public:
    static constexpr std::chrono::milliseconds kDefaultDataAddressFlushInterval{300'000};
    static constexpr std::chrono::milliseconds kDefaultLoadPublishInterval{10'000};
    static constexpr std::chrono::milliseconds kDefaultPeerTimeout{5'000};
    static constexpr double kDefaultNominalPacketsPerSecond = 50'000;
    /** Intervals are kept within these bounds; a shorter one would only load the database. */
    static constexpr std::chrono::milliseconds kMinInterval{100};
    static constexpr std::chrono::milliseconds kMaxInterval{86'400'000};

    /**
     * "advertisedUrl": this instance's base URL as its peers reach it ("http://10.0.0.5:8080"),
     * stored as the node of its data addresses and the host of its load record. Empty: the
     * instance records nothing.
     */
    std::string advertisedUrl;
    /** "dataAddressFlushIntervalMs": F above, the length of a span recorded ahead of the data. */
    std::chrono::milliseconds dataAddressFlushInterval = kDefaultDataAddressFlushInterval;
    /** "loadPublishIntervalMs": how often the load record is refreshed. */
    std::chrono::milliseconds loadPublishInterval = kDefaultLoadPublishInterval;
    /** "peerTimeoutMs": how long a distributed search waits for one peer's answer. */
    std::chrono::milliseconds peerTimeout = kDefaultPeerTimeout;
    /**
     * "nominalPacketsPerSecond": the ingest rate this instance is sized for; the short load
     * figure is 1 at this rate.
     */
    double nominalPacketsPerSecond = kDefaultNominalPacketsPerSecond;

    bool enabled() const { return !advertisedUrl.empty(); }

    /**
     * Reads the "cluster/..." keys; missing or unreadable numbers keep their defaults. Throws
     * std::invalid_argument when "advertisedUrl" is set but is not an http or https URL.
     */
    void load(const ZuSettings& settings);
};

}  // namespace kest::cloud::storage::metadatadb::conf
