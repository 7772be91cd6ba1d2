// The "MongoDb/instances" setting's parser.
//
// Checked beyond crashes: the only failures are the two conversion errors that stop the service
// with a message; no more entries come out than there are ";"-separated pieces; every host is
// trimmed and unquoted text of the input.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <kest/cloud/storage/mongo_connection_settings.h>

#include "fuzz_check.h"

using kest::cloud::storage::metadatadb::conf::MongoConnectionSettings;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    kest::fuzz::abortOnAssertionFailure();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(kest::fuzz::asText(data, size));
    std::vector<std::pair<std::string, std::uint32_t>> instances;
    try {
        instances = MongoConnectionSettings::parseInstances(text);
    } catch (const std::invalid_argument&) {
        return 0;
    } catch (const std::out_of_range&) {
        return 0;
    }
    const auto pieces = static_cast<std::size_t>(std::count(text.begin(), text.end(), ';')) + 1;
    FUZZ_CHECK(instances.size() <= pieces, text);
    for (const auto& [host, port] : instances) {
        FUZZ_CHECK(text.find(host) != std::string::npos, host);
        if (host.empty())
            continue;
        FUZZ_CHECK(host.front() != '"' && host.back() != '"', host);
        static constexpr std::string_view kBlanks = " \t\r\n\v\f";
        // Blanks inside quotes stay: only those outside the quotes are trimmed.
        if (text.find('"') == std::string::npos) {
            FUZZ_CHECK(kBlanks.find(host.front()) == std::string_view::npos, host);
            FUZZ_CHECK(kBlanks.find(host.back()) == std::string_view::npos, host);
        }
    }
    return 0;
}
