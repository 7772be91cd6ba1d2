#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class ZuSettings;

namespace kest::cloud::storage::metadatadb::conf {

/** How to reach the MongoDB deployment that holds the shared data-distribution records. */
class MongoConnectionSettings
{
public:
    static constexpr std::uint32_t defaultMinPoolSize = 0;
    static constexpr std::uint32_t defaultMaxPoolSize = 100;

    std::string user;
    std::string password;
    std::string replicaSet;
    /** (host, port) pairs in the order written. */
    std::vector<std::pair<std::string, std::uint32_t>> instances;
    std::uint32_t minPoolSize = defaultMinPoolSize;
    std::uint32_t maxPoolSize = defaultMaxPoolSize;
    /**
     * "MongoDb/uri": a complete connection string. When set it is used as given and the fields
     * above do not take part in the connection, so that options they cannot express (TLS, auth
     * source, timeouts) stay available.
     */
    std::string uri;

    /**
     * Reads the "MongoDb/..." keys; missing keys keep the defaults. A malformed
     * "MongoDb/instances" port throws std::invalid_argument or std::out_of_range.
     */
    void load(const ZuSettings& settings);

    /**
     * Splits "host:port;host:port" into pairs. Separators inside double quotes do not split,
     * empty entries are skipped, host and port are trimmed and the host is unquoted. The port is
     * read by std::stoi, with its errors.
     */
    static std::vector<std::pair<std::string, std::uint32_t>> parseInstances(
        const std::string& text);
};

}  // namespace kest::cloud::storage::metadatadb::conf
