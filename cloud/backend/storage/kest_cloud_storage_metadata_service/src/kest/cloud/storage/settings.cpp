#include "settings.h"

#include <stdexcept>

#include <kest/branding/branding.h>
#include <kest/utils/app_info.h>

namespace kest::cloud::storage::metadatadb::conf {

namespace {

/** A yes-or-no setting: true/false, yes/no, on/off or 1/0 in any letter case. */
bool readFlag(const ZuSettings& settings, const char* key, bool defaultValue)
{
    if (!settings.contains(key))
        return defaultValue;
    const QString value = settings.value(key).toString().trimmed().toLower();
    if (value == "true" || value == "yes" || value == "on" || value == "1")
        return true;
    if (value == "false" || value == "no" || value == "off" || value == "0")
        return false;
    throw std::invalid_argument(std::string(key) +
                                " is neither true nor false: " + value.toStdString());
}

}  // namespace

Settings::Settings()
    : kest::utils::BasicServiceSettings(kest::utils::AppInfo::organizationNameForSettings(),
                                        kest::branding::company(), kModuleName)
{}

Settings::~Settings() = default;

QString Settings::dataDir() const
{
    const QString dataDir = settings().value("dataDir").toString();
    if (!dataDir.isEmpty())
        return dataDir;
    return settings()
        .value("varDir",
               QString("/opt/%1/%2/var").arg(kest::branding::companyId(), QString(kModuleName)))
        .toString();
}

kest::utils::log::Settings Settings::logging() const
{
    return m_logging;
}

void Settings::loadSettings()
{
    m_logging.load(settings(), "log");
    m_httpServer.load(settings());
    m_analyticsDb.load(settings());
    if (m_analyticsDb.path.isEmpty())
        m_analyticsDb.path = dataDir() + "/analytics_db";
    m_ddsConnection.load(settings());
    m_cluster.load(settings());
    m_security.load(settings());
    m_serveDocs = readFlag(settings(), "http/serveDocs", true);
}

std::string Settings::additionalHelp() const
{
    return "  http/listenOn            host:port[,host:port...] to serve HTTP on\n"
           "  http/serveDocs           serve the API documentation at /metadataDb/v1/docs/\n"
           "                           (true or false; default true)\n"
           "  analyticsDb/path         analytics events database directory\n"
           "  MongoDb/instances        host:port[;host:port...] of the MongoDB deployment\n"
           "  MongoDb/user, MongoDb/password, MongoDb/replicaSet\n"
           "  MongoDb/minPoolSize, MongoDb/maxPoolSize\n"
           "  MongoDb/uri              complete connection string; replaces the keys above\n"
           "  cluster/advertisedUrl    this instance's base URL as peers reach it; when set, the\n"
           "                           instance records its data addresses and load\n"
           "  http/certificateFile, http/privateKeyFile   serve TLS (https://) with them\n"
           "  http/clientCaFile        ask TLS clients for certificates signed by these CAs\n"
           "  http/tokensFile          bearer tokens (SHA-256) and the routes each may call\n"
           "  http/authenticatePing    the ping needs credentials too (default false)\n"
           "  cluster/peerToken        bearer token sent to the other instances\n"
           "  cluster/peerCaFile       CAs of the other instances' certificates (default: "
           "system)\n";
}

}  // namespace kest::cloud::storage::metadatadb::conf
