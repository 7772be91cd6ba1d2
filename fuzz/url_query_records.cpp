// The URL-query readers of the request records (the search with its filter, the activity count,
// the instance choice, the save-error query), fed the query text as the API frame hands it to them:
// percent-decoded once and split by QUrlQuery.
//
// Checked beyond crashes: what a reader accepts, the record's writer writes as a query (as the
// client library sends it) that the reader takes back to the same record; what the frame answers
// to the query, read with the readers that say what is wrong, is valid UTF-8 JSON.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <QString>
#include <QUrl>
#include <QUrlQuery>

#include <kest/cloud/storage/controller/activity_request_data.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/network/http/api/base_api_request_handler.h>
#include <kest/network/http/request.h>
#include <kest/reflect/json.h>
#include <kest/reflect/utf8.h>

#include "fuzz_check.h"

namespace {

using namespace kest::cloud::storage::metadatadb;
using kest::network::http::Request;

/** What the frame makes of a request's query string before a record's reader sees it. */
QUrlQuery receivedQuery(std::string_view text)
{
    return QUrlQuery(QString::fromStdString(Request::percentDecode(text)));
}

/** The query string a client puts on the wire for `query`. */
std::string wireText(const QUrlQuery& query)
{
    return query.query(QUrl::FullyEncoded).toStdString();
}

/** The frame's answer to the query as a request of `Record`: an error body or the record. */
template <typename Record>
void checkAnswer(std::string_view text)
{
    Record record;
    const auto result = kest::network::http::detail::readUrlQuery(text, &record);
    const std::string answer =
        result.success ? kest::reflect::json::serialize(record)
                       : kest::network::http::detail::BaseApiRequestHandler<Record>::inputError(
                             result.errorDescription)
                             .toJson();
    FUZZ_CHECK(kest::reflect::utf8::isValid(answer), answer);
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(answer.data(), answer.size());
    FUZZ_CHECK(!document.HasParseError(), answer);
}

void checkDataRequest(std::string_view text)
{
    DataRequestData request;
    if (!loadFromUrlQuery(receivedQuery(text), &request))
        return;
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    DataRequestData reread;
    FUZZ_CHECK(loadFromUrlQuery(receivedQuery(wireText(written)), &reread), wireText(written));
    FUZZ_CHECK(reread == request, wireText(written) + " reads as " +
                                      kest::reflect::json::serialize(reread) + ", not " +
                                      kest::reflect::json::serialize(request));
}

void checkActivityRequest(std::string_view text)
{
    ActivityRequestData request;
    if (!loadFromUrlQuery(receivedQuery(text), &request))
        return;
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    ActivityRequestData reread;
    FUZZ_CHECK(loadFromUrlQuery(receivedQuery(wireText(written)), &reread), wireText(written));
    FUZZ_CHECK(reread == request, wireText(written) + " reads as " +
                                      kest::reflect::json::serialize(reread) + ", not " +
                                      kest::reflect::json::serialize(request));
}

void checkOptimalInstanceRequest(std::string_view text)
{
    OptimalInstanceRequest request;
    if (!loadFromUrlQuery(receivedQuery(text), &request))
        return;
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    OptimalInstanceRequest reread;
    FUZZ_CHECK(loadFromUrlQuery(receivedQuery(wireText(written)), &reread), wireText(written));
    // The reader lists repeated items last first, so a written list comes back reversed.
    std::reverse(reread.deviceIds.begin(), reread.deviceIds.end());
    FUZZ_CHECK(reread == request, wireText(written));
}

void checkErrorsRequest(std::string_view text)
{
    ErrorsRequestData request;
    try {
        loadFromUrlQuery(receivedQuery(text), &request);
    } catch (const std::invalid_argument&) {
        return;  //< The frame answers 400 with the conversion's message.
    } catch (const std::out_of_range&) {
        return;
    }
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    ErrorsRequestData reread;
    loadFromUrlQuery(receivedQuery(wireText(written)), &reread);
    FUZZ_CHECK(reread == request,
               wireText(written) + " reads as " + toString(reread) + ", not " + toString(request));
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
    checkDataRequest(text);
    checkActivityRequest(text);
    checkOptimalInstanceRequest(text);
    checkErrorsRequest(text);
    checkAnswer<DataRequestData>(text);
    checkAnswer<ActivityRequestData>(text);
    checkAnswer<OptimalInstanceRequest>(text);
    checkAnswer<ErrorsRequestData>(text);
    return 0;
}
