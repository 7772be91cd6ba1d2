#include "mongo_data_distribution_storage.h"

#include <QRunnable>
#include <stdexcept>

#include <kest/cloud/storage/mongo_connection_settings.h>
#include <kest/utils/log/log.h>

#include "mongo/error.h"

namespace kest::cloud::storage::metadatadb {

const std::string MongoDataDistributionStorage::kDataDistributionCollection = "dataDistribution";
const std::string MongoDataDistributionStorage::kHostsLoadCollection = "HostsLoad";
const std::string MongoDataDistributionStorage::kMappingCollection = "DeviceIdsToInstancesMapping";
const std::string MongoDataDistributionStorage::kDeviceId = "DeviceId";
const std::string MongoDataDistributionStorage::kHost = "Host";
const std::string MongoDataDistributionStorage::kStorageInfo = "StorageInfo";
const std::string MongoDataDistributionStorage::kTimeFrom = "TimeFrom";
const std::string MongoDataDistributionStorage::kTimeTill = "TimesTill";
const std::string MongoDataDistributionStorage::kNode = "Node";
const std::string MongoDataDistributionStorage::kLongLoadMetric = "LongLoadMetric";
const std::string MongoDataDistributionStorage::kShortLoadMetric = "ShortLoadMetric";
const std::string MongoDataDistributionStorage::kHostsInfoUpdateTime = "HostsInfoUpdateTime";
const std::string MongoDataDistributionStorage::kVmsId = "VmsId";
const std::string MongoDataDistributionStorage::kHealthStatus = "HealthStatus";
const std::string MongoDataDistributionStorage::kLastUpdateTime = "LastUpdateTime";
const std::string MongoDataDistributionStorage::kCurHosts = "CurHosts";

const mongo::DriverInstance& MongoDataDistributionStorage::m_instance =
    mongo::DriverInstance::instance();

namespace {

constexpr const char* kUriSetting = "MongoDb/uri";
constexpr const char* kSeparateSettings =
    "MongoDb/instances, MongoDb/user, MongoDb/password, MongoDb/replicaSet";

class Task : public QRunnable
{
public:
    explicit Task(kest::utils::MoveOnlyFunc<void()> function) : m_function(std::move(function))
    {
        setAutoDelete(true);
    }

    void run() override { m_function(); }

private:
    kest::utils::MoveOnlyFunc<void()> m_function;
};

}  // namespace

MongoDataDistributionStorage::MongoDataDistributionStorage(
    const conf::MongoConnectionSettings& settings)
    : MongoDataDistributionStorage(settings.uri.empty() ? buildUri(settings) : settings.uri,
                                   settings.uri.empty() ? kSeparateSettings : kUriSetting)
{}

MongoDataDistributionStorage::MongoDataDistributionStorage(const std::string& uri)
    : MongoDataDistributionStorage(uri, "the given URI")
{}

MongoDataDistributionStorage::MongoDataDistributionStorage(const std::string& uri,
                                                           const std::string& source)
{
    // The URI itself stays out of the message: it may carry a password.
    try {
        m_pool = std::make_unique<mongo::ClientPool>(mongo::Uri(uri));
    } catch (const mongo::Error& e) {
        throw std::runtime_error("Invalid MongoDB connection settings (" + source +
                                 "): " + e.what());
    }
}

MongoDataDistributionStorage::~MongoDataDistributionStorage()
{
    // Running tasks use clients of the pool, so they end before the pool goes.
    m_threadPool.waitForDone();
}

std::string MongoDataDistributionStorage::buildUri(const conf::MongoConnectionSettings& settings)
{
    std::string uri = "mongodb://" + settings.user + ":" + settings.password + "@";
    for (std::size_t i = 0; i < settings.instances.size(); ++i) {
        if (i > 0)
            uri += ",";
        uri += settings.instances[i].first + ":" + std::to_string(settings.instances[i].second);
    }
    uri += "/?replicaSet=" + settings.replicaSet;
    uri += "&maxPoolSize=" + std::to_string(settings.maxPoolSize);
    uri += "&minPoolSize=" + std::to_string(settings.minPoolSize);
    return uri;
}

mongo::PooledClient MongoDataDistributionStorage::getClient() const
{
    return m_pool->pop();
}

void MongoDataDistributionStorage::startTask(MoveOnlyFunc<void()> task)
{
    m_threadPool.start(new Task(std::move(task)), 0);
}

void MongoDataDistributionStorage::getStorageInfo(
    const std::vector<std::string>& /*deviceIds*/, const ZuTimePeriod& /*period*/,
    MoveOnlyFunc<void(bool, std::vector<std::string>)> handler)
{
    startTask([handler = std::move(handler)]() mutable { handler(false, {}); });
}

void MongoDataDistributionStorage::saveDataAddress(
    const std::vector<DataInfo>& data, const std::string& /*host*/,
    MoveOnlyFunc<void(std::vector<DataInfo>)> handler)
{
    startTask([data, handler = std::move(handler)]() mutable { handler(std::move(data)); });
}

void MongoDataDistributionStorage::getInstancesLoad(
    MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler)
{
    startTask([handler = std::move(handler)]() mutable { handler(false, {}); });
}

void MongoDataDistributionStorage::saveInstanceLoad(const InstanseLoad& load)
{
    startTask([this, load]() { saveInstanceLoadSync(load); });
}

void MongoDataDistributionStorage::getDeviceInstancesMapping(
    std::chrono::system_clock::time_point /*since*/,
    MoveOnlyFunc<void(bool, DeviceMapping)> handler)
{
    startTask([handler = std::move(handler)]() mutable { handler(false, {}); });
}

void MongoDataDistributionStorage::saveInstanceLoadSync(const InstanseLoad& load)
{
    KEST_WARNING(this, "saving load metrics (%1) is not available yet", load);
}

}  // namespace kest::cloud::storage::metadatadb
