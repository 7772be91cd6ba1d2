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

}  // namespace

Settings::Settings(QString group) : m_group(std::move(group)) {}

void Settings::load(const ZuSettings& settings)
{
    const QString prefix = m_group + "/";
    const QVariant listenOn = settings.value(prefix + "listenOn");
    if (!listenOn.isNull()) {
        endpoints.clear();
        for (const QString& item : listenOn.toString().split(',', Qt::SkipEmptyParts)) {
            const QString trimmed = item.trimmed();
            if (trimmed.isEmpty())
                continue;
            const auto address = SocketAddress::parse(trimmed.toStdString());
            if (!address)
                throw std::invalid_argument("Invalid endpoint in setting " + prefix.toStdString() +
                                            "listenOn: " + trimmed.toStdString());
            endpoints.push_back(*address);
        }
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
