#pragma once

#include <chrono>
#include <memory>

#include <kest/analytics_db/abstract_events_storage.h>

#include "peer_identity.h"

namespace kest::cloud::storage::metadatadb {

namespace conf {
class Settings;
}

class AbstractDataDistributionStorage;
class ErrorsStorageModel;
class ServiceMetrics;

/**
 * Owns the service's storages: the shared data-distribution record, the save-error history and
 * the local analytics events storage. Outlives the HTTP front end that uses them.
 */
class Model
{
public:
    /** Throws when a storage cannot be created; whatever was created is released first. */
    explicit Model(const conf::Settings& settings);
    ~Model();

    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    AbstractDataDistributionStorage* getDDSModel() const;
    ErrorsStorageModel* getErrorStorageModel() const;
    kest::analytics::db::AbstractEventsStorage* getAnalyticsStorage() const;
    ServiceMetrics& metrics() const;

    /** How long a distributed search waits for one instance's answer ("cluster/peerTimeoutMs"). */
    std::chrono::milliseconds peerTimeout() const;
    /** The token and TLS context of the calls to other instances. */
    const PeerIdentity& peerIdentity() const { return m_peerIdentity; }

private:
    // Declared in the order of creation; the destructor releases them in reverse, so that the
    // analytics storage, which may still report save errors while stopping, goes first. The
    // metrics come first of all: any storage may hold on to them.
    std::unique_ptr<ServiceMetrics> m_metrics;
    std::unique_ptr<AbstractDataDistributionStorage> m_dataDistributionStorage;
    std::unique_ptr<ErrorsStorageModel> m_errorsStorageModel;
    std::unique_ptr<kest::analytics::db::AbstractEventsStorage> m_analyticsStorage;
    std::chrono::milliseconds m_peerTimeout;
    PeerIdentity m_peerIdentity;
};

}  // namespace kest::cloud::storage::metadatadb
