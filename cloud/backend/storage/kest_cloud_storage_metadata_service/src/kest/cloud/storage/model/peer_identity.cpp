#include "peer_identity.h"

#include <kest/cloud/storage/settings.h>

namespace kest::cloud::storage::metadatadb {

PeerIdentity PeerIdentity::fromSettings(const conf::Settings& settings)
{
    PeerIdentity identity;
    identity.credentials.bearerToken = settings.security().peerToken;

    kest::network::ssl::ClientContext::Options options;
    options.caFile = settings.security().peerCaFile;
    // The certificate the instance serves with says who it is to the instances it asks too.
    options.certificateFile = settings.httpServer().certificateFile;
    options.privateKeyFile = settings.httpServer().privateKeyFile;
    if (options.caFile.empty() && options.certificateFile.empty())
        identity.tlsContext = kest::network::ssl::ClientContext::systemDefault();
    else
        identity.tlsContext = std::make_shared<kest::network::ssl::ClientContext>(options);
    return identity;
}

}  // namespace kest::cloud::storage::metadatadb
