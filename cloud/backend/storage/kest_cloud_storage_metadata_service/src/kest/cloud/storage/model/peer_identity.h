#pragma once

#include <memory>

#include <kest/network/http/client/credentials.h>
#include <kest/network/ssl/client_context.h>

namespace kest::cloud::storage::metadatadb {

namespace conf {
class Settings;
}

/**
 * How this instance identifies itself to the instances it asks during a distributed search: the
 * bearer token of "cluster/peerToken", and over https the certificate it serves with, presented
 * to peers that ask for one, and the CAs it trusts for theirs.
 */
struct PeerIdentity
{
    kest::network::http::client::Credentials credentials;
    std::shared_ptr<kest::network::ssl::ClientContext> tlsContext;

    /** Throws std::runtime_error when a certificate, key or CA file cannot be used. */
    static PeerIdentity fromSettings(const conf::Settings& settings);
};

}  // namespace kest::cloud::storage::metadatadb
