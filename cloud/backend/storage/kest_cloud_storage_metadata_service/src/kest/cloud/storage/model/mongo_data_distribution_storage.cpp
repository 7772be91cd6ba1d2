#include "mongo_data_distribution_storage.h"

#include <QRunnable>
#include <QThread>
#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>

#include <kest/cloud/storage/mongo_connection_settings.h>
#include <kest/utils/assert.h>
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

    void run() override
    {
        // An exception escaping a pool thread would end the process; tasks catch their own,
        // and this is the last line for a throwing completion handler.
        try {
            m_function();
        } catch (const std::exception& e) {
            KEST_ERROR("MongoDataDistributionStorage", "A storage task failed: %1", e.what());
        }
    }

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
        mongo::Uri parsed(uri);
        // Option names as the driver knows them, so that one given in the string wins.
        parsed.setDefaultOption(MONGOC_URI_SERVERSELECTIONTIMEOUTMS, kServerSelectionTimeoutMs);
        parsed.setDefaultOption(MONGOC_URI_CONNECTTIMEOUTMS, kConnectTimeoutMs);
        parsed.setDefaultOption(MONGOC_URI_SOCKETTIMEOUTMS, kSocketTimeoutMs);
        m_pool = std::make_unique<mongo::ClientPool>(parsed);
    } catch (const mongo::Error& e) {
        throw std::runtime_error("Invalid MongoDB connection settings (" + source +
                                 "): " + e.what());
    }
    m_threadPool.setMaxThreadCount(std::max(QThread::idealThreadCount(), kMaxConcurrentOperations));
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

void MongoDataDistributionStorage::makeDeviceIndex(const mongo::Collection& collection) const
{
    if (m_indexMade.load(std::memory_order_acquire))
        return;
    std::unique_lock lock(m_indexMutex, std::try_to_lock);
    if (!lock.owns_lock() || std::chrono::steady_clock::now() < m_nextIndexAttempt)
        return;
    try {
        collection.createIndex(kDeviceId);
        m_indexMade.store(true, std::memory_order_release);
        KEST_INFO(this, "The data addresses in MongoDB are indexed by %1", kDeviceId);
    } catch (const mongo::Error& e) {
        // Searches and saves still work, by scanning; a user without the createIndex privilege
        // gets this once every kIndexRetry.
        m_nextIndexAttempt = std::chrono::steady_clock::now() + kIndexRetry;
        KEST_WARNING(this, "Cannot index the data addresses in MongoDB by %1: %2", kDeviceId,
                     e.what());
    }
}

void MongoDataDistributionStorage::startTask(MoveOnlyFunc<void()> task)
{
    m_threadPool.start(new Task(std::move(task)), 0);
}

void MongoDataDistributionStorage::getStorageInfo(
    const std::vector<std::string>& deviceIds, const ZuTimePeriod& period,
    MoveOnlyFunc<void(bool, std::vector<std::string>)> handler)
{
    mongo::Document in;
    in.appendStringArray("$in", deviceIds);
    mongo::Document filter;
    filter.appendDocument(kDeviceId, in);
    startTask(buildGetDataInstancesTask(period, deviceIds, std::move(filter), std::move(handler)));
}

kest::utils::MoveOnlyFunc<void()> MongoDataDistributionStorage::buildGetDataInstancesTask(
    const ZuTimePeriod& period, const std::vector<std::string>& deviceIds, mongo::Document filter,
    MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) const
{
    return [this, period, deviceIds, filter = std::move(filter),
            handler = std::move(handler)]() mutable {
        std::vector<std::string> nodes;
        bool ok = true;
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection =
                client.collection(m_dbName, kDataDistributionCollection);
            // The period is applied here, not in the query: spans are elements of one array.
            mongo::Cursor cursor = collection.find(filter);
            while (const auto document = cursor.next()) {
                for (const mongo::DocumentView& span : document->getDocumentArray(kStorageInfo)) {
                    if (period.startTimeMs >= span.getDateTimeMs(kTimeTill))
                        continue;
                    if (period.endTimeMs() <= span.getDateTimeMs(kTimeFrom))
                        continue;
                    nodes.push_back(span.getString(kNode));
                }
            }
        } catch (const std::exception& e) {
            KEST_ERROR(this, "(devices: %1, time period: %2) node lookup failed: %3", deviceIds,
                       period, e.what());
            countFailure(nodeLookup);
            nodes.clear();
            ok = false;
        }
        handler(ok, std::move(nodes));
    };
}

void MongoDataDistributionStorage::saveDataAddress(
    const std::vector<DataInfo>& data, const std::string& host,
    MoveOnlyFunc<void(std::vector<DataInfo>)> handler)
{
    startTask(buildSaveTask(data, host, std::move(handler)));
}

void MongoDataDistributionStorage::saveDataAddressSync(
    const std::vector<DataInfo>& data, const std::string& host,
    MoveOnlyFunc<void(std::vector<DataInfo>)> handler) const
{
    auto task = buildSaveTask(data, host, std::move(handler));
    if (!KEST_ASSERT(static_cast<bool>(task), "save task is empty"))
        throw std::bad_function_call();
    task();
}

std::vector<mongo::UpdateOne> MongoDataDistributionStorage::buildSaveRequest(
    const std::vector<DataInfo>& data, const std::string& host) const
{
    std::vector<mongo::UpdateOne> requests;
    requests.reserve(data.size());
    for (const DataInfo& item : data) {
        mongo::UpdateOne request;
        request.upsert = true;
        request.filter.appendString(kDeviceId, item.deviceId);
        mongo::Document push;
        push.appendDocument(kStorageInfo, spanDocument(item.timePeriod, host));
        request.update.appendDocument("$push", push);
        requests.push_back(std::move(request));
    }
    return requests;
}

kest::utils::MoveOnlyFunc<void()> MongoDataDistributionStorage::buildSaveTask(
    const std::vector<DataInfo>& data, const std::string& host,
    MoveOnlyFunc<void(std::vector<DataInfo>)> handler) const
{
    return [this, requests = buildSaveRequest(data, host), data,
            handler = std::move(handler)]() mutable {
        // A throwing handler must not be called a second time: it is called outside the save.
        if (executeSave(requests, data))
            handler(data);
    };
}

mongo::Document MongoDataDistributionStorage::spanDocument(const ZuTimePeriod& period,
                                                           const std::string& host)
{
    mongo::Document span;
    span.appendDateTime(kTimeFrom, period.startTimeMs)
        .appendDateTime(kTimeTill, period.endTimeMs())
        .appendString(kNode, host);
    return span;
}

std::optional<AbstractDataDistributionStorage::AppendResult>
MongoDataDistributionStorage::executeSave(const std::vector<mongo::UpdateOne>& requests,
                                          const std::vector<DataInfo>& data) const
{
    try {
        const mongo::PooledClient client = getClient();
        const mongo::Collection collection =
            client.collection(m_dbName, kDataDistributionCollection);
        mongo::BulkWrite bulk = collection.createBulkWrite();
        for (const auto& request : requests)
            bulk.append(request);
        if (const auto result = bulk.execute()) {
            if (result->modified + result->upserted != static_cast<std::int64_t>(data.size())) {
                KEST_WARNING(this,
                             "possible problems while saving data( %1 ) to MongoDB, inserted(%2) "
                             "+ upserted(%3) != num of items to save(%4)",
                             data, result->modified, result->upserted, data.size());
            }
            makeDeviceIndex(collection);
            return std::nullopt;
        }
        KEST_ERROR(this, "saving data( %1 ) to MongoDB failed", data);
    } catch (const mongo::Error& e) {
        KEST_ERROR(this, "exception while saving data( %1 ) to MongoDb, %2", data, e.what());
        const auto index = e.writeErrorIndex();
        if (index && *index < data.size()) {
            if (e.isDocumentTooLarge()) {
                // Nothing more of this device can be saved until its document shrinks.
                KEST_ERROR(this,
                           "The data addresses of device %1 cannot be saved: its document in "
                           "MongoDB is too large (%2)",
                           data[*index].deviceId, e.what());
                countFailure(dataAddressDocumentTooLarge);
            }
            countFailure(dataAddressSave);
            // The bulk write is ordered: the server applied the operations before this one.
            return AppendResult{{data.begin() + static_cast<std::ptrdiff_t>(*index), data.end()},
                                true};
        }
    } catch (const std::exception& e) {
        KEST_ERROR(this, "exception while saving data( %1 ) to MongoDb, %2", data, e.what());
    }
    countFailure(dataAddressSave);
    return AppendResult{data, false};
}

void MongoDataDistributionStorage::appendDataAddresses(const std::vector<DataInfo>& data,
                                                       const std::string& host,
                                                       MoveOnlyFunc<void(AppendResult)> handler)
{
    startTask([this, requests = buildSaveRequest(data, host), data,
               handler = std::move(handler)]() mutable {
        handler(executeSave(requests, data).value_or(AppendResult{}));
    });
}

void MongoDataDistributionStorage::getDataAddresses(
    const std::string& host, const std::vector<std::string>& deviceIds,
    MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler)
{
    // Known devices are found by "DeviceId", as searches find them; the others only by a scan.
    std::vector<mongo::Document> filters;
    if (deviceIds.empty()) {
        filters.emplace_back().appendString(kStorageInfo + "." + kNode, host);
    }
    for (std::size_t first = 0; first < deviceIds.size(); first += kDeviceIdsPerRead) {
        const auto begin = deviceIds.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = deviceIds.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                 deviceIds.size(), first + kDeviceIdsPerRead));
        mongo::Document in;
        in.appendStringArray("$in", std::vector<std::string>(begin, end));
        filters.emplace_back().appendDocument(kDeviceId, in);
    }
    startTask([this, host, filters = std::move(filters), handler = std::move(handler)]() mutable {
        std::vector<DataInfo> spans;
        bool ok = true;
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection =
                client.collection(m_dbName, kDataDistributionCollection);
            for (const mongo::Document& filter : filters) {
                mongo::Cursor cursor = collection.find(filter);
                while (const auto document = cursor.next()) {
                    const std::string deviceId = document->getString(kDeviceId);
                    for (const mongo::DocumentView& span :
                         document->getDocumentArray(kStorageInfo)) {
                        // Another writer's span of another shape is no reason to fail the others.
                        try {
                            if (span.getString(kNode) != host)
                                continue;
                            spans.push_back({deviceId, ZuTimePeriod::fromInterval(
                                                           span.getDateTimeMs(kTimeFrom),
                                                           span.getDateTimeMs(kTimeTill))});
                        } catch (const mongo::Error&) {
                        }
                    }
                }
            }
        } catch (const std::exception& e) {
            KEST_ERROR(this, "Reading the data addresses of %1 failed: %2", host, e.what());
            countFailure(dataAddressRead);
            spans.clear();
            ok = false;
        }
        handler(ok, std::move(spans));
    });
}

void MongoDataDistributionStorage::replaceDataAddresses(const std::string& deviceId,
                                                        const std::string& host,
                                                        const std::vector<ZuTimePeriod>& add,
                                                        const std::vector<ZuTimePeriod>& remove,
                                                        MoveOnlyFunc<void(bool)> handler)
{
    mongo::Document filter;
    filter.appendString(kDeviceId, deviceId);
    const auto spans = [&host](const std::vector<ZuTimePeriod>& periods) {
        std::vector<mongo::Document> documents;
        for (const auto& period : periods)
            documents.push_back(spanDocument(period, host));
        return documents;
    };
    std::optional<mongo::Document> push;
    if (!add.empty()) {
        mongo::Document each;
        each.appendDocumentArray("$each", spans(add));
        mongo::Document field;
        field.appendDocument(kStorageInfo, each);
        push.emplace().appendDocument("$push", field);
    }
    std::optional<mongo::Document> pull;
    if (!remove.empty()) {
        mongo::Document field;
        field.appendDocumentArray(kStorageInfo, spans(remove));
        pull.emplace().appendDocument("$pullAll", field);
    }
    startTask([this, deviceId, filter = std::move(filter), push = std::move(push),
               pull = std::move(pull), handler = std::move(handler)]() mutable {
        bool ok = false;
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection =
                client.collection(m_dbName, kDataDistributionCollection);
            // Removed only once what replaces them is stored: a search never misses data.
            ok = !push || [&] {
                const auto result = collection.updateOne(filter, *push, /*upsert*/ false);
                return result && result->modified == 1;
            }();
            if (ok && pull)
                ok = collection.updateOne(filter, *pull, /*upsert*/ false).has_value();
            if (!ok)
                KEST_WARNING(this, "Replacing data addresses of device %1 changed nothing",
                             deviceId);
        } catch (const std::exception& e) {
            KEST_ERROR(this, "Replacing data addresses of device %1 failed: %2", deviceId,
                       e.what());
        }
        if (!ok)
            countFailure(dataAddressReplace);
        handler(ok);
    });
}

void MongoDataDistributionStorage::getInstancesLoad(
    MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler)
{
    startTask([this, handler = std::move(handler)]() mutable {
        std::vector<InstanseLoad> loads;
        bool ok = true;
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection = client.collection(m_dbName, kHostsLoadCollection);
            mongo::Cursor cursor = collection.find(mongo::Document());
            while (const auto document = cursor.next()) {
                loads.push_back(
                    InstanseLoad{.host = document->getString(kHost),
                                 .shortLoadMetric = document->getDouble(kShortLoadMetric),
                                 .longLoadMetric = document->getDouble(kLongLoadMetric)});
            }
        } catch (const std::exception& e) {
            KEST_ERROR(this, "instances load metrics lookup failed");
            countFailure(loadLookup);
            KEST_DEBUG(this, "Load metrics lookup error: %1", e.what());
            loads.clear();
            ok = false;
        }
        handler(ok, std::move(loads));
    });
}

void MongoDataDistributionStorage::saveInstanceLoad(const InstanseLoad& load)
{
    startTask(buildSaveInstanceLoadTask(load));
}

void MongoDataDistributionStorage::saveInstanceLoadSync(const InstanseLoad& load)
{
    auto task = buildSaveInstanceLoadTask(load);
    if (!KEST_ASSERT(static_cast<bool>(task), "save load task is empty"))
        throw std::bad_function_call();
    task();
}

kest::utils::MoveOnlyFunc<void()> MongoDataDistributionStorage::buildSaveInstanceLoadTask(
    const InstanseLoad& load)
{
    mongo::UpdateOne request;
    request.filter.appendString(kHost, load.host);
    mongo::Document set;
    set.appendString(kHost, load.host)
        .appendDouble(kLongLoadMetric, load.longLoadMetric)
        .appendDouble(kShortLoadMetric, load.shortLoadMetric);
    request.update.appendDocument("$set", set);
    request.upsert = true;

    return [this, request = std::move(request)]() {
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection = client.collection(m_dbName, kHostsLoadCollection);
            const auto result =
                collection.updateOne(request.filter, request.update, request.upsert);
            if (!result) {
                KEST_ERROR(this, "saving load metrics to MongoDB failed");
                countFailure(loadSave);
            } else if (result->upserted + result->modified != 1) {
                // Also when the figures are the ones already stored: nothing was modified.
                KEST_WARNING(this, "possible problems while saving load metrics to MongoDB");
            }
        } catch (const std::exception& e) {
            KEST_ERROR(this, "exception while saving load metrics to MongoDb, %1", e.what());
            countFailure(loadSave);
        }
    };
}

void MongoDataDistributionStorage::getDeviceInstancesMapping(
    std::chrono::system_clock::time_point since, MoveOnlyFunc<void(bool, DeviceMapping)> handler)
{
    startTask([this, since, handler = std::move(handler)]() mutable {
        DeviceMapping mapping;
        bool ok = true;
        try {
            const mongo::PooledClient client = getClient();
            const mongo::Collection collection = client.collection(m_dbName, kMappingCollection);
            mongo::Document gte;
            gte.appendDateTime("$gte", since);
            mongo::Document filter;
            filter.appendDocument(kHostsInfoUpdateTime, gte);
            mongo::Cursor cursor = collection.find(filter);
            while (const auto document = cursor.next()) {
                std::string deviceId = document->getString(kDeviceId);
                DeviceId2InstanceMapping::DeviceInfo info;
                info.vmsId = document->getString(kVmsId);
                info.hostsInfoUpdateTime = document->getTimePoint(kHostsInfoUpdateTime);
                for (const mongo::DocumentView& host : document->getDocumentArray(kCurHosts)) {
                    DeviceId2InstanceMapping::HostInfo hostInfo;
                    hostInfo.healthStatus = host.getBool(kHealthStatus);
                    hostInfo.lastUpdateTime = host.getTimePoint(kLastUpdateTime);
                    hostInfo.host = host.getString(kHost);
                    info.curHosts.push_back(std::move(hostInfo));
                }
                mapping.emplace_back(std::move(deviceId), std::move(info));
            }
        } catch (const std::exception& e) {
            KEST_ERROR(this, "instances load metrics lookup failed with error :%1", e.what());
            countFailure(mappingLookup);
            mapping.clear();
            ok = false;
        }
        handler(ok, std::move(mapping));
    });
}

void MongoDataDistributionStorage::countFailure(Operation operation) const
{
    m_failures[operation].fetch_add(1, std::memory_order_relaxed);
}

std::vector<std::pair<std::string, std::uint64_t>> MongoDataDistributionStorage::operationFailures()
    const
{
    static constexpr std::array<const char*, operationCount> kNames = {
        "node_lookup",          "data_address_save",
        "load_lookup",          "load_save",
        "mapping_lookup",       "data_address_read",
        "data_address_replace", "data_address_document_too_large"};
    std::vector<std::pair<std::string, std::uint64_t>> result;
    for (std::size_t i = 0; i < kNames.size(); ++i)
        result.emplace_back(kNames[i], m_failures[i].load(std::memory_order_relaxed));
    return result;
}

}  // namespace kest::cloud::storage::metadatadb
