#include "view.h"

#include <functional>
#include <limits>
#include <stdexcept>
#include <system_error>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/cloud/storage/controller/activity_controller.h>
#include <kest/cloud/storage/controller/data_provider_controller.h>
#include <kest/cloud/storage/controller/data_saver_controller.h>
#include <kest/cloud/storage/controller/errors_provider_controller.h>
#include <kest/cloud/storage/controller/instance_selector.h>
#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>
#include <kest/cloud/storage/model/errors_storage_model.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/model/service_metrics.h>
#include <kest/cloud/storage/settings.h>
#include <kest/utils/log/log.h>
#include <kest/utils/metrics/process_statistics.h>
#include <kest/utils/metrics/registry.h>

#include "static_files_handler.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;

namespace {

/** Answers a ping; it touches no storage. */
class PingHandler : public AbstractRequestHandler
{
public:
    explicit PingHandler(View* view) : m_view(view) {}

    void processRequest(RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        m_view->respondOk(std::move(requestContext), std::move(completionHandler));
    }

private:
    View* m_view;
};

/** Answers the metrics in the Prometheus text format; it only reads counters. */
class MetricsHandler : public AbstractRequestHandler
{
public:
    explicit MetricsHandler(kest::utils::metrics::Registry* registry) : m_registry(registry) {}

    void processRequest(RequestContext /*requestContext*/,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        completionHandler(RequestResult(StatusCode::ok, m_registry->exposition(),
                                        kest::utils::metrics::TextWriter::kContentType));
    }

private:
    kest::utils::metrics::Registry* m_registry;
};

}  // namespace

View::View(const conf::Settings& settings, Model& model)
    : m_settings(settings), m_authenticationDispatcher(&m_httpMessageDispatcher)
{
    setUpAuthentication();
    m_multiAddressHttpServer = server::Builder::buildOrThrow(
        m_settings.httpServer(), &m_authenticationDispatcher, &m_httpMessageDispatcher);
    m_httpMessageDispatcher.setRequestMetrics(&model.metrics().requestMetrics());
    registerApiHandlers(model);
    registerDbErrorsHandler(model.getAnalyticsStorage(), model.getErrorStorageModel());
    registerMetricSources(model);
    startAcceptor();
}

View::~View()
{
    // First: the sources read the server and the storages.
    m_metricSources.clear();
    stop();
    m_multiAddressHttpServer.reset();
}

void View::start()
{
    if (!m_multiAddressHttpServer->listen(m_settings.httpServer().listenBacklog)) {
        const std::error_code error = m_multiAddressHttpServer->lastError();
        // system_error appends ": " and the error's text itself, giving
        // "Cannot start listening: <text>".
        throw std::system_error(error, "Cannot start listening");
    }
    KEST_INFO(this, "HTTP server is listening on %1", httpEndpoints());
    std::vector<kest::network::SocketAddress> tls;
    for (const auto& server : m_multiAddressHttpServer->servers()) {
        if (server->servesTls())
            tls.push_back(server->address());
    }
    if (!tls.empty())
        KEST_INFO(this, "TLS is served on %1", tls);
    else if (!m_settings.httpServer().certificateFile.empty())
        KEST_WARNING(this, "http/certificateFile is set, but every address serves plain HTTP");
}

void View::setUpAuthentication()
{
    const auto& security = m_settings.security();
    const bool certificates = !m_settings.httpServer().clientCaFile.empty();
    if (security.tokensFile.empty() && !certificates)
        return;
    server::TokenAuthenticator::Options options;
    options.tokensFile = security.tokensFile;
    if (!security.authenticatePing) {
        std::string error;
        // Load balancers ping without credentials.
        options.openRoutes.push_back(*server::AccessRule::make("POST", kPingPath, &error));
    }
    try {
        m_tokenAuthenticator = std::make_unique<server::TokenAuthenticator>(std::move(options));
    } catch (const std::runtime_error& e) {
        KEST_ERROR(this, "%1", e.what());
        throw;
    }
    m_authenticationDispatcher.addAuthenticator(
        [authenticator = m_tokenAuthenticator.get()](const RequestContext& context) {
            return authenticator->authenticate(context);
        });
    KEST_INFO(this, "Requests need credentials: %1%2%3",
              security.tokensFile.empty() ? "" : "tokens of " + security.tokensFile,
              !security.tokensFile.empty() && certificates ? " or " : "",
              certificates ? "client certificates" : "");
}

void View::reloadCredentials()
{
    if (m_tokenAuthenticator)
        m_tokenAuthenticator->reload();
}

void View::stop()
{
    if (m_multiAddressHttpServer)
        m_multiAddressHttpServer->stop();
}

std::vector<kest::network::SocketAddress> View::httpEndpoints() const
{
    return m_multiAddressHttpServer->endpoints();
}

void View::respondOk(RequestContext /*requestContext*/,
                     kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    completionHandler(RequestResult(StatusCode::ok));
}

void View::registerApiHandlers(Model& model)
{
    registerApiHandler<DataSaverController>(kDataHandlerPath, "POST", model.getAnalyticsStorage(),
                                            &model.metrics());
    registerApiHandler<DataProviderController>(kDataHandlerPath, "GET", std::ref(model));
    registerApiHandler<InstanceSelector>(kOptimalInstancePath, "GET", std::ref(model));
    registerApiHandler<PingHandler>(kPingPath, "POST", this);
    registerApiHandler<MetricsHandler>(kMetricsPath, "GET", &model.metrics().registry());
    registerApiHandler<ActivityController>(kActivityPath, "GET", std::ref(model),
                                           ActivityController::Output::json);
    registerApiHandler<ActivityController>(kActivitySvgPath, "GET", std::ref(model),
                                           ActivityController::Output::svg);
    if (m_settings.serveDocs()) {
        for (const auto& [path, directory, site] :
             {std::tuple{kDocsPath, kDocsDirectoryPath, &StaticSite::docs},
              std::tuple{kConsolePath, kConsoleDirectoryPath, &StaticSite::console}}) {
            registerApiHandler<StaticFilesHandler>(path, "GET", StaticSite::Get(site));
            registerApiHandler<DirectoryRedirectHandler>(directory, "GET", StaticSite::Get(site));
        }
    }
}

void View::registerMetricSources(Model& model)
{
    using kest::utils::metrics::MetricType;
    using kest::utils::metrics::TextWriter;
    auto& registry = model.metrics().registry();
    const auto name = &ServiceMetrics::name;
    auto& sources = m_metricSources;

    if (auto* storage = model.getAnalyticsStorage()) {
        // statistics() is lock-free: a scrape never waits for the writer.
        const auto statistic =
            [storage](std::uint64_t kest::analytics::db::StorageStatistics::*field) {
                return [storage, field]() { return storage->statistics().*field; };
            };
        using Statistics = kest::analytics::db::StorageStatistics;
        sources.push_back(registry.counterFunction(name("packets_accepted_total"),
                                                   "Packets accepted and queued for writing",
                                                   statistic(&Statistics::packetsAccepted)));
        sources.push_back(registry.counterFunction(name("packets_committed_total"),
                                                   "Packets written to the storage",
                                                   statistic(&Statistics::packetsCommitted)));
        sources.push_back(registry.counterFunction(
            name("packets_failed_total"), "Packets whose write failed (kept as save errors)",
            statistic(&Statistics::packetsFailed)));
        const auto gauge = [&](const char* suffix, const char* help, auto read) {
            sources.push_back(registry.gauge(name(suffix), help,
                                             [read]() { return static_cast<double>(read()); }));
        };
        gauge("write_queue_packets", "Packets accepted and not yet written",
              statistic(&Statistics::queuedPackets));
        gauge("write_queue_max_packets",
              "The queue depth above which saves are refused; 0 when there is no such mark",
              statistic(&Statistics::maxQueuedPackets));
        gauge("write_queue_bytes", "Memory held by packets not yet written (an estimate)",
              statistic(&Statistics::queuedBytes));
        gauge("store_bytes", "Size of the storage's files on disk",
              statistic(&Statistics::storeBytes));
        sources.push_back(registry.gauge(
            name("write_queue_oldest_age_seconds"),
            "How long the oldest packet accepted and not yet committed has waited; 0 when none "
            "waits",
            [storage]() { return storage->statistics().oldestUncommittedAgeUs / 1e6; }));
        gauge("storage_ready", "1 while the storage takes saves and searches, else 0",
              [storage]() { return storage->isReady() ? 1 : 0; });
    }

    if (auto* errors = model.getErrorStorageModel()) {
        sources.push_back(registry.gauge(
            name("save_error_devices"), "Devices with periods in the save-error history",
            [errors]() { return static_cast<double>(errors->historySize().devices); }));
        sources.push_back(registry.gauge(
            name("save_error_periods"), "Periods in the save-error history",
            [errors]() { return static_cast<double>(errors->historySize().periods); }));
    }

    if (auto* distribution = model.getDDSModel()) {
        sources.push_back(registry.collector(
            name("mongodb_operation_failures_total"), "Failed MongoDB operations, by operation",
            MetricType::counter, [distribution](TextWriter& writer) {
                for (const auto& [operation, count] : distribution->operationFailures())
                    writer.sample({{"operation", operation}}, count);
            }));
    }

    sources.push_back(registry.collector(
        name("http_refused_requests_total"),
        "Requests refused before any route: 401 without valid credentials, 403 not allowed",
        MetricType::counter, [dispatcher = &m_authenticationDispatcher](TextWriter& writer) {
            writer.sample({{"status", "401"}}, dispatcher->unauthenticatedCount());
            writer.sample({{"status", "403"}}, dispatcher->forbiddenCount());
        }));
    sources.push_back(registry.gauge(name("http_open_connections"), "HTTP connections open now",
                                     [server = m_multiAddressHttpServer.get()]() {
                                         std::size_t count = 0;
                                         for (const auto& socketServer : server->servers())
                                             count += socketServer->connectionCount();
                                         return static_cast<double>(count);
                                     }));
    sources.push_back(
        registry.gauge("process_resident_memory_bytes", "Resident memory of the process", []() {
            const auto bytes = kest::utils::metrics::ProcessStatistics::residentMemoryBytes();
            return bytes ? static_cast<double>(*bytes) : std::numeric_limits<double>::quiet_NaN();
        }));
}

void View::registerDbErrorsHandler(kest::analytics::db::AbstractEventsStorage* analyticsStorage,
                                   ErrorsStorageModel* errorsStorageModel)
{
    if (analyticsStorage) {
        analyticsStorage->setOnSaveErrorHandler(
            [errorsStorageModel](kest::sql::DBResult result,
                                 std::unordered_map<ZuUuid, ZuTimePeriodList> periodsByDevice) {
                errorsStorageModel->saveErrors(result, std::move(periodsByDevice));
            });
    }
    registerApiHandler<ErrorsProviderController>(kErrorHandlerPath, "GET", errorsStorageModel);
}

void View::startAcceptor()
{
    const auto& endpoints = m_settings.httpServer().endpoints;
    if (endpoints.empty()) {
        KEST_ERROR(this, "No HTTP address to listen");
        throw std::runtime_error("No HTTP address to listen");
    }
    if (!m_multiAddressHttpServer->bind(endpoints)) {
        throw std::runtime_error(
            kest::utils::format("Cannot bind to address(es) %1. %2", endpoints,
                                m_multiAddressHttpServer->lastError().message()));
    }
}

}  // namespace kest::cloud::storage::metadatadb
