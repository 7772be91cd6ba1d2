// The JSON reader of every request record, as the API frame calls it on a body or a query.
//
// Checked beyond crashes:
// - the fast path (straight from parser events) and the document reader agree: same outcome, same
//   message, same record;
// - what is accepted is written back as JSON that reads again into the same record.

#include <cstdint>
#include <string>
#include <vector>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/reflect/json.h>

#include "fuzz_check.h"

namespace {

using namespace kest::cloud::storage::metadatadb;
namespace json = kest::reflect::json;

template <typename Record>
void check(std::string_view text)
{
    Record viaDeserialize;
    const auto result = json::deserialize(text, &viaDeserialize);
    Record viaDocument;
    const auto documentResult = json::deserializeDocument(text, &viaDocument);

    FUZZ_CHECK(result.success == documentResult.success, "fast path and document reader disagree");
    FUZZ_CHECK(result.errorDescription == documentResult.errorDescription,
               result.errorDescription + " | " + documentResult.errorDescription);
    if (!result.success)
        return;
    const std::string written = json::serialize(viaDeserialize);
    FUZZ_CHECK(written == json::serialize(viaDocument), written);

    Record reread;
    const auto rereadResult = json::deserialize(written, &reread);
    FUZZ_CHECK(rereadResult.success,
               written + " does not read back: " + rereadResult.errorDescription);
    FUZZ_CHECK(json::serialize(reread) == written, written);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    kest::fuzz::abortOnAssertionFailure();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text = kest::fuzz::asText(data, size);
    check<std::vector<kest::common::metadata::ObjectMetadataPacket>>(text);
    check<DataRequestData>(text);
    check<OptimalInstanceRequest>(text);
    check<ErrorsRequestData>(text);
    return 0;
}
