#pragma once

#include <memory>

namespace kest::cloud::storage::metadatadb {

namespace conf {
class ClusterSettings;
}

class Model;
class DataAddressRecorder;
class InstanceLoadPublisher;

/**
 * Makes this instance known to its peers through the shared database: records the data
 * addresses of what its events storage commits, and publishes its load. Built only when
 * "cluster/advertisedUrl" is set, after the Model and before the View; destroyed in reverse.
 */
class ClusterPresence
{
public:
    ClusterPresence(const conf::ClusterSettings& settings, Model& model);
    /**
     * Lets the events storage commit what it holds, records it, and hands the last data
     * addresses and the stopped load to the shared database, whose storage finishes them.
     */
    ~ClusterPresence();

    ClusterPresence(const ClusterPresence&) = delete;
    ClusterPresence& operator=(const ClusterPresence&) = delete;

private:
    Model& m_model;
    std::unique_ptr<DataAddressRecorder> m_recorder;
    std::unique_ptr<InstanceLoadPublisher> m_publisher;
};

}  // namespace kest::cloud::storage::metadatadb
