#include "security_settings.h"

#include <stdexcept>

#include <kest/utils/zu_settings.h>

namespace kest::cloud::storage::metadatadb::conf {

namespace {

std::string readText(const ZuSettings& settings, const char* key)
{
    return settings.value(key).toString().trimmed().toStdString();
}

}  // namespace

void SecuritySettings::load(const ZuSettings& settings)
{
    tokensFile = readText(settings, "http/tokensFile");
    peerToken = readText(settings, "cluster/peerToken");
    peerCaFile = readText(settings, "cluster/peerCaFile");

    const QString ping = settings.value("http/authenticatePing").toString().trimmed().toLower();
    if (ping.isEmpty() || ping == "false" || ping == "no" || ping == "off" || ping == "0") {
        authenticatePing = false;
    } else if (ping == "true" || ping == "yes" || ping == "on" || ping == "1") {
        authenticatePing = true;
    } else {
        throw std::invalid_argument("http/authenticatePing is neither true nor false: " +
                                    ping.toStdString());
    }
    // A token is sent in a header line: anything that would end or fold the line is no token.
    for (const char c : peerToken) {
        if (static_cast<unsigned char>(c) < 0x21 || c == 0x7f)
            throw std::invalid_argument("cluster/peerToken holds a blank or control character");
    }
}

}  // namespace kest::cloud::storage::metadatadb::conf
