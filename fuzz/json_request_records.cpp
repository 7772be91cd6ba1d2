// The JSON reader of every request record, as the API frame calls it on a body or a query.
//
// Checked beyond crashes:
// - the fast path (straight from parser events) and the document reader agree: same outcome, same
//   message, same record;
// - what is accepted is written back as JSON that reads again into the same record;
// - every answer is valid UTF-8 JSON: the error body of what is refused, the record written back
//   (as a search answers what it stored) of what is accepted. Packets go through the checks
//   that POST data applies before it stores them.

#include <cstdint>
#include <string>
#include <vector>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/cloud/storage/controller/activity_request_data.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/cloud/storage/controller/value_rules.h>
#include <kest/network/http/api/base_api_request_handler.h>
#include <kest/reflect/json.h>
#include <kest/reflect/utf8.h>

#include "fuzz_check.h"

namespace {

using namespace kest::cloud::storage::metadatadb;
namespace json = kest::reflect::json;

/** What a strict JSON reader (Python's, for one) makes of an answer: it must take it whole. */
void checkValidJson(const std::string& answer)
{
    FUZZ_CHECK(kest::reflect::utf8::isValid(answer), answer);
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag | json::kParseFlags>(answer.data(),
                                                                              answer.size());
    FUZZ_CHECK(!document.HasParseError(), answer);
}

template <typename Record>
void checkAnswer(const kest::reflect::DeserializationResult& result, Record record)
{
    using Frame = kest::network::http::detail::BaseApiRequestHandler<Record>;
    std::string problem = result.success ? std::string() : result.errorDescription;
    if constexpr (std::same_as<Record, std::vector<kest::common::metadata::ObjectMetadataPacket>>) {
        std::size_t untracked = 0;
        if (problem.empty())
            problem = ValueRules::preparePackets(&record, &untracked);
    }
    if (problem.empty())
        checkValidJson(json::serialize(record));
    else
        checkValidJson(Frame::inputError(problem).toJson());
}

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
    checkAnswer(result, viaDocument);
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
    check<ActivityRequestData>(text);
    check<OptimalInstanceRequest>(text);
    check<ErrorsRequestData>(text);
    return 0;
}
