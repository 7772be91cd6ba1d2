#include "metadata_service.h"

#include <kest/branding/branding.h>
#include <kest/utils/assert.h>

#include "model/cluster_presence.h"
#include "model/model.h"
#include "settings.h"
#include "view/view.h"

namespace kest::cloud::storage::metadatadb {

namespace {

const QString kServiceName = kest::branding::company() + " Media Storage";

}  // namespace

MetadataService::MetadataService(int argc, char** argv)
    : kest::utils::Service(argc, argv, kServiceName)
{}

MetadataService::~MetadataService() = default;

std::vector<kest::network::SocketAddress> MetadataService::httpEndpoints() const
{
    View* view = m_view.load();
    if (!KEST_ASSERT(view, "httpEndpoints() called while the service is not running"))
        return {};
    return view->httpEndpoints();
}

std::unique_ptr<kest::utils::AbstractServiceSettings> MetadataService::createSettings()
{
    return std::make_unique<conf::Settings>();
}

int MetadataService::serviceMain(const kest::utils::AbstractServiceSettings& abstractSettings)
{
    const auto& settings = static_cast<const conf::Settings&>(abstractSettings);

    // The view is declared after the model, so it goes first: no request can reach a storage
    // that is being destroyed. The cluster presence, between them, records what the storage
    // commits until the view is gone and the storage is drained.
    Model model(settings);
    std::unique_ptr<ClusterPresence> clusterPresence;
    if (settings.cluster().enabled())
        clusterPresence = std::make_unique<ClusterPresence>(settings.cluster(), model);
    View view(settings, model);
    m_view = &view;
    view.start();

    // SIGHUP: the tokens file is read again, without a restart.
    setReloadHandler([&view]() { view.reloadCredentials(); });
    const int result = runMainLoop();
    setReloadHandler(nullptr);
    return result;
}

}  // namespace kest::cloud::storage::metadatadb
