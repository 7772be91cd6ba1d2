#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/model/dd_provider_factory.h>
#include <kest/cloud/storage/test_launcher.h>

#include "http_exchange.h"
#include "temporary_directory.h"

namespace kest::cloud::storage::metadatadb::test {

/** A MongoDB address that refuses at once: for services whose searches stay internal. */
inline const std::string kUnreachableMongo =
    "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100&connectTimeoutMS=100";

/**
 * The whole service in-process on an ephemeral loopback port, with the real analytics events
 * storage in a directory of its own (reachable for flush() and fault injection) and the MongoDB
 * storage at `mongoUri`. Extra arguments come after the defaults and override them.
 */
class RunningService
{
public:
    explicit RunningService(const std::string& mongoUri, std::vector<std::string> extraArgs = {});
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    bool started() const { return m_port != 0; }
    std::uint16_t port() const { return m_port; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    kest::analytics::db::EventsStorage& events() { return *m_events; }

    std::optional<HttpResponse> get(const std::string& target, const std::string& contentType = {});

    /** Posts the packets as JSON; with `commit`, waits until the storage has written them. */
    int post(const std::vector<kest::common::metadata::ObjectMetadataPacket>& packets,
             bool commit = true);

private:
    TemporaryDirectory m_dir;
    DdProviderFactory::CreateFunction m_previousFactory;
    std::atomic<kest::analytics::db::EventsStorage*> m_events{nullptr};
    Launcher m_launcher;
    std::uint16_t m_port = 0;
};

}  // namespace kest::cloud::storage::metadatadb::test
