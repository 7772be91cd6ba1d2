#include "cluster_settings.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <kest/utils/url.h>
#include <kest/utils/zu_settings.h>

namespace kest::cloud::storage::metadatadb::conf {

namespace {

std::chrono::milliseconds readInterval(const ZuSettings& settings, const char* key,
                                       std::chrono::milliseconds defaultValue)
{
    bool ok = false;
    const qlonglong value = settings.value(key).toLongLong(&ok);
    if (!ok || value <= 0)
        return defaultValue;
    return std::clamp(std::chrono::milliseconds(value), ClusterSettings::kMinInterval,
                      ClusterSettings::kMaxInterval);
}

}  // namespace

void ClusterSettings::load(const ZuSettings& settings)
{
    advertisedUrl = settings.value("cluster/advertisedUrl").toString().trimmed().toStdString();
    if (!advertisedUrl.empty()) {
        const auto url = kest::utils::Url::parse(advertisedUrl);
        if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
            throw std::invalid_argument("cluster/advertisedUrl is not an http or https URL: " +
                                        advertisedUrl);
        }
    }
    dataAddressFlushInterval = readInterval(settings, "cluster/dataAddressFlushIntervalMs",
                                            kDefaultDataAddressFlushInterval);
    loadPublishInterval =
        readInterval(settings, "cluster/loadPublishIntervalMs", kDefaultLoadPublishInterval);
    peerTimeout = readInterval(settings, "cluster/peerTimeoutMs", kDefaultPeerTimeout);

    bool ok = false;
    const double nominal = settings.value("cluster/nominalPacketsPerSecond").toDouble(&ok);
    nominalPacketsPerSecond =
        ok && std::isfinite(nominal) && nominal > 0 ? nominal : kDefaultNominalPacketsPerSecond;
}

}  // namespace kest::cloud::storage::metadatadb::conf
