#pragma once

// Storages that stand in for MongoDB and the analytics database in service tests, and a guard
// that puts them into the process-wide factories for the length of a test.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/cloud/storage/model/data_distrib_storage_factory.h>
#include <kest/cloud/storage/model/dd_provider_factory.h>
#include <kest/cloud/storage/testing/null_data_distribution_storage.h>

namespace kest::cloud::storage::metadatadb::test {

/** What the fakes did, in order. */
class EventLog
{
public:
    void add(std::string event)
    {
        std::lock_guard lock(m_mutex);
        m_events.push_back(std::move(event));
    }
    std::vector<std::string> events() const
    {
        std::lock_guard lock(m_mutex);
        return m_events;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
};

class FakeDataDistributionStorage : public NullDataDistributionStorage
{
public:
    explicit FakeDataDistributionStorage(EventLog* log) : m_log(log) { m_log->add("dds created"); }
    ~FakeDataDistributionStorage() override { m_log->add("dds destroyed"); }

private:
    EventLog* m_log;
};

class FakeEventsStorage : public kest::analytics::db::AbstractEventsStorage
{
public:
    FakeEventsStorage(EventLog* log, bool initializeResult)
        : m_log(log), m_initializeResult(initializeResult)
    {
        m_log->add("analytics created");
    }

    ~FakeEventsStorage() override
    {
        // The real storage may still report failed saves while it stops.
        if (m_handler)
            m_handler(kest::sql::DBResult::ioError, {{ZuUuid::createUuid(), {{1, 1}}}});
        m_log->add("analytics destroyed");
    }

    bool initialize(const kest::analytics::db::Settings&) override
    {
        m_log->add("analytics initialized");
        m_ready = m_initializeResult;
        return m_initializeResult;
    }
    void setOnSaveErrorHandler(kest::analytics::db::SaveErrorHandler handler) override
    {
        m_handler = std::move(handler);
    }
    bool isReady() const override { return m_ready; }
    void save(std::shared_ptr<const common::metadata::ObjectMetadataPacket>) override {}
    void lookup(kest::analytics::db::Filter,
                kest::analytics::db::LookupHandler completionHandler) override
    {
        completionHandler(kest::analytics::db::ResultCode::error, {});
    }

    /** Plays the storage reporting a failed save. */
    void reportSaveError(kest::sql::DBResult result,
                         std::unordered_map<ZuUuid, ZuTimePeriodList> periods)
    {
        m_handler(result, std::move(periods));
    }
    bool hasSaveErrorHandler() const { return static_cast<bool>(m_handler); }

private:
    EventLog* m_log;
    bool m_initializeResult;
    bool m_ready = false;
    kest::analytics::db::SaveErrorHandler m_handler;
};

/** Makes both factories produce fakes until destroyed, then puts the real functions back. */
class FakeStoragesGuard
{
public:
    explicit FakeStoragesGuard(bool analyticsInitializes = true)
    {
        m_previousDds = DataDistribStorageFactory::instance().setCreateFunction(
            [this](const conf::MongoConnectionSettings&)
                -> std::unique_ptr<AbstractDataDistributionStorage> {
                if (failDdsCreation)
                    throw std::runtime_error("dds creation failed");
                return std::make_unique<FakeDataDistributionStorage>(&log);
            });
        m_previousAnalytics = DdProviderFactory::instance().setCreateFunction(
            [this, analyticsInitializes]()
                -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
                if (failAnalyticsCreation)
                    throw std::runtime_error("analytics creation failed");
                auto storage = std::make_unique<FakeEventsStorage>(&log, analyticsInitializes);
                lastEventsStorage = storage.get();
                return storage;
            });
    }

    ~FakeStoragesGuard()
    {
        DataDistribStorageFactory::instance().setCreateFunction(std::move(m_previousDds));
        DdProviderFactory::instance().setCreateFunction(std::move(m_previousAnalytics));
    }

    EventLog log;
    FakeEventsStorage* lastEventsStorage = nullptr;
    bool failDdsCreation = false;
    bool failAnalyticsCreation = false;

private:
    DataDistribStorageFactory::CreateFunction m_previousDds;
    DdProviderFactory::CreateFunction m_previousAnalytics;
};

}  // namespace kest::cloud::storage::metadatadb::test
