#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <kest/network/socket_address.h>
#include <kest/utils/service.h>

namespace kest::cloud::storage::metadatadb {

class View;

/**
 * The metadata storage service as the host runs it: builds the storages and the HTTP front
 * end, serves until asked to stop, then tears them down in reverse order.
 */
class MetadataService : public kest::utils::Service
{
public:
    MetadataService(int argc, char** argv);
    ~MetadataService() override;

    /** The addresses the HTTP server listens on. Only while the service is running. */
    std::vector<kest::network::SocketAddress> httpEndpoints() const;

protected:
    std::unique_ptr<kest::utils::AbstractServiceSettings> createSettings() override;
    int serviceMain(const kest::utils::AbstractServiceSettings& settings) override;

private:
    // Read from test threads once the service has reported its start.
    std::atomic<View*> m_view{nullptr};
};

}  // namespace kest::cloud::storage::metadatadb
