#pragma once

#include <string>

class ZuSettings;

namespace kest::cloud::storage::metadatadb::conf {

/**
 * Who may call the service, and how it identifies itself to the other instances: the
 * "http/tokensFile" and "http/authenticatePing" keys, and "cluster/peerToken" and
 * "cluster/peerCaFile". With none of them set, and no "http/clientCaFile", every request passes.
 */
class SecuritySettings
{
public:
    /** "http/tokensFile": who may call which routes (bearer token hashes and route rules). */
    std::string tokensFile;
    /** "http/authenticatePing": the ping needs credentials too; off, so load balancers can ping. */
    bool authenticatePing = false;
    /** "cluster/peerToken": the bearer token this instance sends to the instances it asks. */
    std::string peerToken;
    /** "cluster/peerCaFile": the CAs that https instances' certificates must chain to; empty:
     * the system's. */
    std::string peerCaFile;

    /** Throws std::invalid_argument naming the key when a value is malformed. */
    void load(const ZuSettings& settings);
};

}  // namespace kest::cloud::storage::metadatadb::conf
