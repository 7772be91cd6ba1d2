#pragma once

// The whole service in-process for tests that talk to it over HTTP, and helpers to make its
// packets and requests.

#include <QUrl>
#include <QUrlQuery>
#include <atomic>
#include <cctype>
#include <optional>
#include <string>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/model/dd_provider_factory.h>
#include <kest/cloud/storage/test_launcher.h>
#include <kest/reflect/json.h>

#include "http_test_client.h"
#include "temporary_directory.h"

namespace kest::cloud::storage::metadatadb::test {

inline const std::string kUnreachableMongo =
    "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100&connectTimeoutMS=100";

/**
 * The whole service in-process, with the real analytics events storage in a directory of its
 * own (reachable for flush() and fault injection) and the MongoDB storage at `mongoUri`.
 */
class RunningService
{
public:
    explicit RunningService(const std::string& mongoUri, std::vector<std::string> extraArgs = {})
    {
        m_previousFactory = DdProviderFactory::instance().setCreateFunction(
            [this]() -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
                auto storage = std::make_unique<kest::analytics::db::EventsStorage>();
                m_events = storage.get();
                return storage;
            });
        std::vector<std::string> args{"--http/listenOn=127.0.0.1:0", "--dataDir=" + m_dir.path(),
                                      "--MongoDb/uri=" + mongoUri};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        std::vector<const char*> argv;
        for (const auto& arg : args)
            argv.push_back(arg.c_str());
        if (m_launcher.startService(argv, /*waitUntilStarted*/ true))
            m_port = m_launcher.moduleInstance()->httpEndpoints().front().port;
    }

    ~RunningService()
    {
        m_launcher.stop();
        DdProviderFactory::instance().setCreateFunction(std::move(m_previousFactory));
    }

    bool started() const { return m_port != 0; }
    std::uint16_t port() const { return m_port; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    kest::analytics::db::EventsStorage& events() { return *m_events; }

    std::optional<HttpResponse> get(const std::string& target, const std::string& contentType = {})
    {
        return exchange(m_port, "GET", target, {}, contentType);
    }

    /** Posts the packets as JSON; with `commit`, waits until the storage has written them. */
    int post(const std::vector<kest::common::metadata::ObjectMetadataPacket>& packets,
             bool commit = true)
    {
        const auto response = exchange(m_port, "POST", "/metadataDb/v1/data",
                                       kest::reflect::json::serialize(packets), "application/json");
        if (commit)
            m_events.load()->flush();
        return response ? response->status : 0;
    }

private:
    TemporaryDirectory m_dir;
    DdProviderFactory::CreateFunction m_previousFactory;
    std::atomic<kest::analytics::db::EventsStorage*> m_events{nullptr};
    Launcher m_launcher;
    std::uint16_t m_port = 0;
};

inline kest::common::metadata::ObjectMetadataPacket packet(
    const ZuUuid& device, std::int64_t timeMs, const ZuUuid& track, const std::string& type,
    std::vector<kest::common::metadata::Attribute> attributes = {})
{
    kest::common::metadata::ObjectMetadataPacket result;
    result.deviceId = device;
    result.timestampUs = timeMs * 1000;
    result.durationUs = 1000;
    result.streamIndex = kest::common::metadata::StreamIndex::primary;
    kest::common::metadata::ObjectMetadata object;
    object.trackId = track;
    object.typeId = type;
    object.objectMetadataType = kest::common::metadata::ObjectMetadataType::regular;
    object.boundingBox = {0.1, 0.2, 0.3, 0.4};
    object.attributes = std::move(attributes);
    result.objectMetadataList.push_back(std::move(object));
    return result;
}

inline std::string dataTarget(const DataRequestData& request)
{
    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    return "/metadataDb/v1/data?" + query.toString(QUrl::FullyEncoded).toStdString();
}

inline bool hasJsonContentType(const HttpResponse& response)
{
    std::string head = response.head;
    for (char& c : head)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return head.find("content-type: application/json") != std::string::npos;
}

}  // namespace kest::cloud::storage::metadatadb::test
