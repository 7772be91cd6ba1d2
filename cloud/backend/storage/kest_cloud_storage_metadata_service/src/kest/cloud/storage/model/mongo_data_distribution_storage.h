#pragma once

#include <QThreadPool>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "abstract_data_distribution_storage.h"
#include "mongo/client_pool.h"
#include "mongo/driver_instance.h"
#include "mongo/pooled_client.h"
#include "mongo/update_one.h"

namespace kest::cloud::storage::metadatadb {

namespace conf {
class MongoConnectionSettings;
}

/**
 * The data-distribution storage in the shared MongoDB database "metadataStorage". Every
 * operation runs on the storage's own thread pool with a client of its own from the pool.
 */
class MongoDataDistributionStorage : public AbstractDataDistributionStorage
{
public:
    static const std::string kDataDistributionCollection;
    static const std::string kHostsLoadCollection;
    static const std::string kMappingCollection;
    static const std::string kDeviceId;
    static const std::string kHost;
    static const std::string kStorageInfo;
    static const std::string kTimeFrom;
    static const std::string kTimeTill;
    static const std::string kNode;
    static const std::string kLongLoadMetric;
    static const std::string kShortLoadMetric;
    static const std::string kHostsInfoUpdateTime;
    static const std::string kVmsId;
    static const std::string kHealthStatus;
    static const std::string kLastUpdateTime;
    static const std::string kCurHosts;

    /**
     * Driver timeouts used unless the connection string sets its own. The driver's defaults
     * (30 s to find a server, 10 s to connect, none on a socket) would hold every lookup for
     * half a minute while MongoDB is down; with these a lookup fails within about
     * kServerSelectionTimeoutMs plus kConnectTimeoutMs.
     */
    static constexpr std::int32_t kServerSelectionTimeoutMs = 3000;
    static constexpr std::int32_t kConnectTimeoutMs = 2000;
    static constexpr std::int32_t kSocketTimeoutMs = 10000;
    /**
     * Operations run at once. They mostly wait on the network, and while MongoDB is down each
     * waits out the selection timeout: with only a thread per core, searches would queue behind
     * the instance's own background writes (load, data addresses) for many times that.
     */
    static constexpr int kMaxConcurrentOperations = 16;
    /** Devices named in one query of getDataAddresses, to keep the query well under 16 MiB. */
    static constexpr std::size_t kDeviceIdsPerRead = 1'000;
    /** After a failed attempt at the index on "DeviceId", the next one waits this long. */
    static constexpr std::chrono::minutes kIndexRetry{1};

    /**
     * Connects through "MongoDb/uri" when set, else through the URI built from the other keys.
     * Throws std::runtime_error naming the setting when the driver rejects the URI.
     */
    explicit MongoDataDistributionStorage(const conf::MongoConnectionSettings& settings);
    /** Throws std::runtime_error when the driver rejects the URI. */
    explicit MongoDataDistributionStorage(const std::string& uri);
    ~MongoDataDistributionStorage() override;

    /** The connection string of the settings' separate keys; nothing is percent-encoded. */
    static std::string buildUri(const conf::MongoConnectionSettings& settings);

    void getStorageInfo(const std::vector<std::string>& deviceIds, const ZuTimePeriod& period,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override;
    void saveDataAddress(const std::vector<DataInfo>& data, const std::string& host,
                         MoveOnlyFunc<void(std::vector<DataInfo>)> handler) override;
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override;
    void saveInstanceLoad(const InstanseLoad& load) override;
    void getDeviceInstancesMapping(std::chrono::system_clock::time_point since,
                                   MoveOnlyFunc<void(bool, DeviceMapping)> handler) override;
    void saveInstanceLoadSync(const InstanseLoad& load) override;
    /**
     * "node_lookup", "data_address_save", "load_lookup", "load_save", "mapping_lookup",
     * "data_address_read", "data_address_replace", and "data_address_document_too_large": the
     * saves among the failed ones whose device document had outgrown the server's limit.
     */
    std::vector<std::pair<std::string, std::uint64_t>> operationFailures() const override;
    /** The same bulk write as saveDataAddress. */
    void appendDataAddresses(const std::vector<DataInfo>& data, const std::string& host,
                             MoveOnlyFunc<void(AppendResult)> handler) override;
    /**
     * Reads the devices' documents, kDeviceIdsPerRead at a time, or every document that names
     * `host` (a whole scan of the collection, without an index of its own); malformed spans are
     * left out.
     */
    void getDataAddresses(const std::string& host, const std::vector<std::string>& deviceIds,
                          MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler) override;
    /** A "$push" of all `add` spans at once, then a "$pullAll" of the `remove` spans. */
    void replaceDataAddresses(const std::string& deviceId, const std::string& host,
                              const std::vector<ZuTimePeriod>& add,
                              const std::vector<ZuTimePeriod>& remove,
                              MoveOnlyFunc<void(bool)> handler) override;

    /** Runs the save on the calling thread; the handler hears only of failure. */
    void saveDataAddressSync(const std::vector<DataInfo>& data, const std::string& host,
                             MoveOnlyFunc<void(std::vector<DataInfo>)> handler) const;

    /** One upserting "$push" of a span to its device's document per item, in order. */
    std::vector<mongo::UpdateOne> buildSaveRequest(const std::vector<DataInfo>& data,
                                                   const std::string& host) const;
    /** All spans of the call in one ordered bulk write. */
    MoveOnlyFunc<void()> buildSaveTask(const std::vector<DataInfo>& data, const std::string& host,
                                       MoveOnlyFunc<void(std::vector<DataInfo>)> handler) const;

    /**
     * The nodes of the spans, in document then span order, that overlap `period`; the devices
     * are already in `filter`. Ends are exclusive: a span that only touches the period is out.
     */
    MoveOnlyFunc<void()> buildGetDataInstancesTask(
        const ZuTimePeriod& period, const std::vector<std::string>& deviceIds,
        mongo::Document filter, MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) const;
    /** One upserting "$set" of the host's two metrics. */
    MoveOnlyFunc<void()> buildSaveInstanceLoadTask(const InstanseLoad& load);

    /** Blocks while the pool's maxPoolSize clients are in use. */
    mongo::PooledClient getClient() const;
    const std::string& dbName() const { return m_dbName; }

protected:
    /** Runs the task on the storage's thread pool, priority 0. */
    void startTask(MoveOnlyFunc<void()> task);

private:
    enum Operation
    {
        nodeLookup,
        dataAddressSave,
        loadLookup,
        loadSave,
        mappingLookup,
        dataAddressRead,
        dataAddressReplace,
        dataAddressDocumentTooLarge,
        operationCount,
    };

    MongoDataDistributionStorage(const std::string& uri, const std::string& source);
    /**
     * Makes the index on "DeviceId" of the data addresses, by which every search, save and
     * replacement finds a device's document (else a scan of all of them), after a save went
     * through: a server that cannot be reached costs no second wait. Once per process; after a
     * failure, again kIndexRetry later. Logs what fails; throws nothing.
     */
    void makeDeviceIndex(const mongo::Collection& collection) const;
    /** Runs the bulk write of a save and logs what failed; what failed, nothing on success. */
    std::optional<AppendResult> executeSave(const std::vector<mongo::UpdateOne>& requests,
                                            const std::vector<DataInfo>& data) const;
    /** A stored span, with its fields in the order every span is written in. */
    static mongo::Document spanDocument(const ZuTimePeriod& period, const std::string& host);
    /** One relaxed add, on the storage's threads, where each failure is logged. */
    void countFailure(Operation operation) const;

    static const mongo::DriverInstance& m_instance;

    std::unique_ptr<mongo::ClientPool> m_pool;
    QThreadPool m_threadPool;
    std::string m_dbName = "metadataStorage";
    mutable std::array<std::atomic<std::uint64_t>, operationCount> m_failures{};
    mutable std::atomic<bool> m_indexMade{false};
    /** Held by the task that makes the index; the others go on without waiting for it. */
    mutable std::mutex m_indexMutex;
    mutable std::chrono::steady_clock::time_point m_nextIndexAttempt{};
};

}  // namespace kest::cloud::storage::metadatadb
