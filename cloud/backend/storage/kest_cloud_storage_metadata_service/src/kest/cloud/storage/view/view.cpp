#include "view.h"

#include <functional>
#include <stdexcept>
#include <system_error>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/cloud/storage/controller/data_provider_controller.h>
#include <kest/cloud/storage/controller/data_saver_controller.h>
#include <kest/cloud/storage/controller/errors_provider_controller.h>
#include <kest/cloud/storage/controller/instance_selector.h>
#include <kest/cloud/storage/model/errors_storage_model.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/settings.h>
#include <kest/utils/log/log.h>

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

}  // namespace

View::View(const conf::Settings& settings, Model& model)
    : m_settings(settings), m_authenticationDispatcher(&m_httpMessageDispatcher)
{
    m_multiAddressHttpServer = server::Builder::buildOrThrow(
        m_settings.httpServer(), &m_authenticationDispatcher, &m_httpMessageDispatcher);
    registerApiHandlers(model);
    registerDbErrorsHandler(model.getAnalyticsStorage(), model.getErrorStorageModel());
    startAcceptor();
}

View::~View()
{
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
    registerApiHandler<DataSaverController>(kDataHandlerPath, "POST", model.getAnalyticsStorage());
    registerApiHandler<DataProviderController>(kDataHandlerPath, "GET", std::ref(model));
    registerApiHandler<InstanceSelector>(kOptimalInstancePath, "GET", std::ref(model));
    registerApiHandler<PingHandler>(kPingPath, "POST", this);
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
