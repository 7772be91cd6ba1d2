#pragma once

#include <QString>

#include <kest/analytics_db/settings.h>
#include <kest/network/http/server/settings.h>
#include <kest/utils/basic_service_settings.h>
#include <kest/utils/log/settings.h>

#include "cluster_settings.h"
#include "dds_connetion_settings.h"
#include "security_settings.h"

namespace kest::cloud::storage::metadatadb::conf {

/** Everything the metadata storage service reads from its settings file and command line. */
class Settings : public kest::utils::BasicServiceSettings
{
public:
    static constexpr const char* kModuleName = "metadata_storage";

    Settings();
    ~Settings() override;

    /** "dataDir" when non-empty, else "varDir", else "/opt/<companyId>/metadata_storage/var". */
    QString dataDir() const override;
    kest::utils::log::Settings logging() const override;

    const kest::network::http::server::Settings& httpServer() const { return m_httpServer; }
    const kest::analytics::db::Settings& analyticsDb() const { return m_analyticsDb; }
    const DDSConnetionSettings& ddsConnection() const { return m_ddsConnection; }
    const ClusterSettings& cluster() const { return m_cluster; }
    const SecuritySettings& security() const { return m_security; }
    /**
     * "http/serveDocs": whether the interactive API documentation and the OpenAPI description
     * are served under /metadataDb/v1/docs/ (true, the default, or false).
     */
    bool serveDocs() const { return m_serveDocs; }

protected:
    void loadSettings() override;
    std::string additionalHelp() const override;

private:
    kest::utils::log::Settings m_logging;
    kest::network::http::server::Settings m_httpServer{"http"};
    kest::analytics::db::Settings m_analyticsDb;
    DDSConnetionSettings m_ddsConnection;
    ClusterSettings m_cluster;
    SecuritySettings m_security;
    bool m_serveDocs = true;
};

}  // namespace kest::cloud::storage::metadatadb::conf
