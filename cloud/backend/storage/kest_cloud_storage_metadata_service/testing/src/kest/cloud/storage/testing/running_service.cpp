#include "running_service.h"

#include <kest/reflect/json.h>

namespace kest::cloud::storage::metadatadb::test {

RunningService::RunningService(const std::string& mongoUri, std::vector<std::string> extraArgs)
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

RunningService::~RunningService()
{
    m_launcher.stop();
    DdProviderFactory::instance().setCreateFunction(std::move(m_previousFactory));
}

std::optional<HttpResponse> RunningService::get(const std::string& target,
                                                const std::string& contentType)
{
    return exchange(m_port, "GET", target, {}, contentType);
}

int RunningService::post(const std::vector<kest::common::metadata::ObjectMetadataPacket>& packets,
                         bool commit)
{
    const auto response = exchange(m_port, "POST", "/metadataDb/v1/data",
                                   kest::reflect::json::serialize(packets), "application/json");
    if (commit)
        m_events.load()->flush();
    return response ? response->status : 0;
}

}  // namespace kest::cloud::storage::metadatadb::test
