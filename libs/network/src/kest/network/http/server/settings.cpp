#include "settings.h"

#include <algorithm>
#include <stdexcept>

#include <kest/utils/zu_settings.h>

namespace kest::network::http::server {

namespace {

template <typename T>
void readNumber(const ZuSettings& settings, const QString& key, T* out)
{
    const QVariant value = settings.value(key);
    if (value.isNull())
        return;
    bool ok = false;
    const qlonglong number = value.toString().trimmed().toLongLong(&ok);
    if (!ok || number < 0)
        throw std::invalid_argument("Invalid value of setting " + key.toStdString() + ": " +
                                    value.toString().toStdString());
    *out = static_cast<T>(number);
}

std::string readText(const ZuSettings& settings, const QString& key)
{
    return settings.value(key).toString().trimmed().toStdString();
}

}  // namespace

Settings::Settings(QString group) : m_group(std::move(group)) {}

void Settings::load(const ZuSettings& settings)
{
    const QString prefix = m_group + "/";
    const std::string group = prefix.toStdString();
    certificateFile = readText(settings, prefix + "certificateFile");
    privateKeyFile = readText(settings, prefix + "privateKeyFile");
    clientCaFile = readText(settings, prefix + "clientCaFile");
    if (certificateFile.empty() != privateKeyFile.empty()) {
        throw std::invalid_argument("TLS needs both " + group + "certificateFile and " + group +
                                    "privateKeyFile");
    }
    const bool haveCertificate = !certificateFile.empty();
    if (!clientCaFile.empty() && !haveCertificate) {
        throw std::invalid_argument(
            group + "clientCaFile asks TLS clients for certificates: " + group +
            "certificateFile and " + group + "privateKeyFile must be set too");
    }

    const QVariant listenOn = settings.value(prefix + "listenOn");
    if (!listenOn.isNull()) {
        endpoints.clear();
        tlsEndpoints.clear();
        for (const QString& item : listenOn.toString().split(',', Qt::SkipEmptyParts)) {
            std::string text = item.trimmed().toStdString();
            if (text.empty())
                continue;
            bool tls = haveCertificate;
            if (text.starts_with("https://")) {
                tls = true;
                text.erase(0, 8);
            } else if (text.starts_with("http://")) {
                tls = false;
                text.erase(0, 7);
            }
            if (!text.empty() && text.back() == '/')
                text.pop_back();
            const auto address = SocketAddress::parse(text);
            if (!address) {
                throw std::invalid_argument("Invalid endpoint in setting " + group +
                                            "listenOn: " + item.trimmed().toStdString());
            }
            if (tls && !haveCertificate) {
                throw std::invalid_argument(group + "listenOn: " + item.trimmed().toStdString() +
                                            " serves TLS, which needs " + group +
                                            "certificateFile and " + group + "privateKeyFile");
            }
            endpoints.push_back(*address);
            if (tls)
                tlsEndpoints.push_back(*address);
        }
    } else if (haveCertificate) {
        tlsEndpoints = endpoints;
    }
    readNumber(settings, prefix + "backlog", &listenBacklog);
    readNumber(settings, prefix + "ioThreads", &ioThreads);
    readNumber(settings, prefix + "maxHeaderBytes", &maxHeaderBytes);
    readNumber(settings, prefix + "maxBodyBytes", &maxBodyBytes);
    readNumber(settings, prefix + "maxChunkLineBytes", &maxChunkLineBytes);
    readNumber(settings, prefix + "maxConnections", &maxConnections);
    qlonglong ms = 0;
    if (!settings.value(prefix + "requestReadTimeoutMs").isNull()) {
        readNumber(settings, prefix + "requestReadTimeoutMs", &ms);
        requestReadTimeout = std::min(std::chrono::milliseconds(ms), kMaxTimeout);
    }
    if (!settings.value(prefix + "idleTimeoutMs").isNull()) {
        readNumber(settings, prefix + "idleTimeoutMs", &ms);
        idleTimeout = std::min(std::chrono::milliseconds(ms), kMaxTimeout);
    }
    if (!settings.value(prefix + "stopTimeoutMs").isNull()) {
        readNumber(settings, prefix + "stopTimeoutMs", &ms);
        stopTimeout = std::min(std::chrono::milliseconds(ms), kMaxTimeout);
    }
}

}  // namespace kest::network::http::server
