#include <gtest/gtest.h>

#include <QUrlQuery>
#include <boost/describe/class.hpp>
#include <future>
#include <stdexcept>
#include <thread>

#include <kest/network/http/api/base_api_request_handler.h>
#include <kest/utils/assert.h>

namespace kest::network::http::test {
namespace {

struct PlainInput
{
    bool flag = false;
    int count = 0;
    std::string name;
};
BOOST_DESCRIBE_STRUCT(PlainInput, (), (flag, count, name))

// A record with its own query reader, as the service's request records have.
struct QueryInput
{
    std::string deviceIds;
    int readerCalls = 0;
};
BOOST_DESCRIBE_STRUCT(QueryInput, (), (deviceIds))

bool loadFromUrlQuery(const QUrlQuery& query, QueryInput* input)
{
    if (query.queryItemValue("deviceIds") == "throw")
        throw std::invalid_argument("stoul");
    input->deviceIds = query.queryItemValue("deviceIds").toStdString();
    ++input->readerCalls;
    return true;
}

struct Output
{
    std::string text;
    int number = 0;
};
BOOST_DESCRIBE_STRUCT(Output, (), (text, number))

/** Records what the frame decoded and completes as told. */
template <typename Input>
class Controller : public detail::BaseApiRequestHandler<Input>
{
public:
    std::optional<Input> received;
    ApiRequestResult result;
    std::optional<Output> output;
    bool completeFromOtherThread = false;
    bool completeTwice = false;

    void processRequest(RequestContext, Input input) override
    {
        received = std::move(input);
        auto complete = [this] {
            if (output)
                this->requestCompleted(result, *output);
            else
                this->requestCompleted(result);
        };
        if (completeFromOtherThread) {
            std::thread(complete).join();
        } else {
            complete();
        }
        if (completeTwice)
            this->requestCompleted(ApiRequestResult());
    }
};

struct Response
{
    int calls = 0;
    RequestResult result;
    ApiRequestResult error;
};

template <typename Input>
Response run(Controller<Input>& controller, std::string method, std::string target,
             std::optional<std::string> contentType = std::nullopt, std::string body = {})
{
    Request request;
    request.method = std::move(method);
    request.setTarget(std::move(target));
    if (contentType)
        request.headers.emplace_back("content-type", *contentType);
    request.body = std::move(body);

    Response response;
    // As the dispatcher calls it: through the untyped interface.
    static_cast<AbstractRequestHandler&>(controller)
        .processRequest(RequestContext(std::move(request), SocketAddress{"127.0.0.1", 1}),
                        [&response](RequestResult result) {
                            ++response.calls;
                            response.result = std::move(result);
                        });
    if (response.result.contentType == "application/json")
        response.error.fromJson(response.result.body);
    return response;
}

TEST(ApiFrame, UnsupportedOutputFormatIsNotAcceptableWithTheFourFieldBody)
{
    for (const std::string format : {"ubjson", "xml", "csv", "bogus"}) {
        Controller<PlainInput> controller;
        const auto response = run(controller, "GET", "/x?format=" + format);
        EXPECT_EQ(StatusCode::notAcceptable, response.result.statusCode) << format;
        EXPECT_FALSE(controller.received) << format;
        EXPECT_EQ("Output format " + format + " not supported", response.error.errorText());
    }

    Controller<PlainInput> controller;
    const auto response = run(controller, "POST", "/x?format=ubjson", "application/json", "{}");
    EXPECT_EQ(
        R"({"errorClass":"1","resultCode":"notAcceptable","errorText":"Output format ubjson not supported","errorDetail":"3"})",
        response.result.body);
}

TEST(ApiFrame, PostNeedsASupportedContentType)
{
    Controller<PlainInput> controller;
    auto response = run(controller, "POST", "/x", std::nullopt, R"({"count":1})");
    EXPECT_EQ(StatusCode::notAcceptable, response.result.statusCode);
    EXPECT_EQ(ApiRequestErrorDetail::notAcceptable, response.error.errorDetail());
    EXPECT_EQ("Input format unknown not supported", response.error.errorText());
    EXPECT_FALSE(controller.received);

    Controller<PlainInput> csv;
    response = run(csv, "POST", "/x", "text/csv", "a,b");
    EXPECT_EQ(StatusCode::notAcceptable, response.result.statusCode);
    EXPECT_EQ("Input format text/csv not supported", response.error.errorText());

    Controller<PlainInput> json;
    response = run(json, "POST", "/x", "Application/JSON; charset=utf-8",
                   R"({"flag":"true","count":"7","name":"n"})");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    ASSERT_TRUE(json.received);
    EXPECT_TRUE(json.received->flag);
    EXPECT_EQ(7, json.received->count);

    Controller<PlainInput> form;
    response = run(form, "POST", "/x", "application/x-www-form-urlencoded",
                   "flag=true&count=3&name=a%20b");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    ASSERT_TRUE(form.received);
    EXPECT_EQ(3, form.received->count);
    EXPECT_EQ("a b", form.received->name);
}

TEST(ApiFrame, UndecodableInputIsABadRequestNamingTheTypeAndTheReason)
{
    Controller<PlainInput> controller;
    auto response = run(controller, "POST", "/x", "application/json", R"({"flag":"yes"})");
    EXPECT_EQ(StatusCode::badRequest, response.result.statusCode);
    EXPECT_EQ(ApiRequestErrorClass::badRequest, response.error.errorClass());
    EXPECT_EQ(ApiRequestErrorDetail::deserializationError, response.error.errorDetail());
    const std::string text = response.error.errorText();
    EXPECT_TRUE(text.starts_with("Error deserializing input of type ")) << text;
    EXPECT_NE(std::string::npos, text.find("PlainInput")) << text;
    EXPECT_NE(std::string::npos,
              text.find(R"(Either a bool value or a string value "true" or "false" is expected)"))
        << text;
    EXPECT_FALSE(controller.received);

    Controller<PlainInput> notJson;
    response = run(notJson, "POST", "/x", "application/json", "[1,");
    EXPECT_EQ(StatusCode::badRequest, response.result.statusCode);

    // A query reader that throws is a bad request too, not a crash.
    Controller<QueryInput> throwing;
    response = run(throwing, "GET", "/x?deviceIds=throw");
    EXPECT_EQ(StatusCode::badRequest, response.result.statusCode);
    EXPECT_NE(std::string::npos, response.error.errorText().find("stoul"));
}

TEST(ApiFrame, GetReadsTheQueryWithTheRecordsOwnReaderOrTheUrlEncodedOne)
{
    Controller<QueryInput> withReader;
    run(withReader, "GET", "/x?deviceIds=%7Ba%7D%3B%7Bb%7D&format=json");
    ASSERT_TRUE(withReader.received);
    EXPECT_EQ(1, withReader.received->readerCalls);
    EXPECT_EQ("{a};{b}", withReader.received->deviceIds);
    EXPECT_EQ(SerializationFormat::urlQuery, withReader.inputFormat());

    Controller<PlainInput> withoutReader;
    auto response = run(withoutReader, "GET", "/x?count=5&flag=false");
    ASSERT_TRUE(withoutReader.received);
    EXPECT_EQ(5, withoutReader.received->count);

    Controller<PlainInput> badQuery;
    response = run(badQuery, "GET", "/x?flag=yes");
    EXPECT_EQ(StatusCode::badRequest, response.result.statusCode);
}

TEST(ApiFrame, GetWithAContentTypeReadsTheQueryInThatFormat)
{
    // JSON travels percent-encoded in the query.
    Controller<QueryInput> json;
    auto response = run(json, "GET", "/x?%7B%22deviceIds%22%3A%22a%26b%22%7D", "application/json");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    ASSERT_TRUE(json.received);
    EXPECT_EQ("a&b", json.received->deviceIds);
    EXPECT_EQ(0, json.received->readerCalls);

    // A form is read field by field, not by the record's own reader.
    Controller<QueryInput> form;
    response =
        run(form, "GET", "/x?deviceIds=%7Ba%7D%3B%7Bb%7D", "application/x-www-form-urlencoded");
    ASSERT_TRUE(form.received);
    EXPECT_EQ("{a};{b}", form.received->deviceIds);
    EXPECT_EQ(0, form.received->readerCalls);
    EXPECT_EQ(SerializationFormat::urlencoded, form.inputFormat());

    Controller<QueryInput> notJson;
    response = run(notJson, "GET", "/x?deviceIds=a", "application/json");
    EXPECT_EQ(StatusCode::badRequest, response.result.statusCode);
    EXPECT_FALSE(notJson.received);

    Controller<QueryInput> csv;
    response = run(csv, "GET", "/x?deviceIds=a", "text/csv");
    EXPECT_EQ(StatusCode::notAcceptable, response.result.statusCode);
    EXPECT_EQ("Input format text/csv not supported", response.error.errorText());
}

TEST(ApiFrame, StatusFollowsTheErrorClass)
{
    const std::pair<ApiRequestResult, StatusCode::Value> cases[] = {
        {ApiRequestResult(), StatusCode::ok},
        {{ApiRequestErrorClass::badRequest, "x", "t"}, StatusCode::badRequest},
        {{ApiRequestErrorClass::badRequest, "x", "t", ApiRequestErrorDetail::notAcceptable},
         StatusCode::notAcceptable},
        {{ApiRequestErrorClass::unauthorized, "x", "t"}, StatusCode::forbidden},
        {{ApiRequestErrorClass::logicError, "x", "t"}, StatusCode::notFound},
        {{ApiRequestErrorClass::notFound, "x", "t"}, StatusCode::notFound},
        {{ApiRequestErrorClass::ioError, "x", "t"}, StatusCode::serviceUnavailable},
        {{ApiRequestErrorClass::internalError, "x", "t"}, StatusCode::internalServerError},
    };
    for (const auto& [result, status] : cases) {
        EXPECT_EQ(status, result.calculateHttpStatusCode()) << toString(result);

        Controller<PlainInput> controller;
        controller.result = result;
        controller.output = Output{"out", 1};
        const auto response = run(controller, "GET", "/x");
        EXPECT_EQ(status, response.result.statusCode) << toString(result);
        if (!result.isSuccess()) {
            // Failures carry the error body even when the controller had output.
            EXPECT_EQ(result, response.error);
        }
    }

    const int failuresBefore = kest::utils::assertionFailureCount();
    ApiRequestResult unknown;
    unknown.setErrorClass(static_cast<ApiRequestErrorClass>(42));
    EXPECT_EQ(StatusCode::internalServerError, unknown.calculateHttpStatusCode());
    EXPECT_EQ(failuresBefore + 1, kest::utils::assertionFailureCount());
}

TEST(ApiFrame, OutputIsWrittenInTheNegotiatedFormat)
{
    Controller<PlainInput> json;
    json.output = Output{"a b", 2};
    auto response = run(json, "GET", "/x");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    EXPECT_EQ("application/json", response.result.contentType);
    EXPECT_EQ(R"({"text":"a b","number":2})", response.result.body);

    Controller<PlainInput> form;
    form.output = Output{"a b", 2};
    response = run(form, "GET", "/x?format=urlencoded");
    EXPECT_EQ("application/x-www-form-urlencoded", response.result.contentType);
    const QUrlQuery query(QString::fromStdString(response.result.body));
    EXPECT_EQ("a b", query.queryItemValue("text", QUrl::FullyDecoded).toStdString());
    EXPECT_EQ("2", query.queryItemValue("number").toStdString());

    // Success without output: the status says it all.
    Controller<PlainInput> none;
    response = run(none, "GET", "/x");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    EXPECT_TRUE(response.result.body.empty());

    Controller<PlainInput> head;
    head.output = Output{"a", 1};
    response = run(head, "HEAD", "/x");
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    EXPECT_TRUE(response.result.body.empty());
}

TEST(ApiFrame, ExactlyOneCompletionEvenFromAnotherThread)
{
    Controller<PlainInput> controller;
    controller.completeFromOtherThread = true;
    controller.completeTwice = true;
    controller.output = Output{"x", 1};
    const int failuresBefore = kest::utils::assertionFailureCount();
    const auto response = run(controller, "GET", "/x");
    EXPECT_EQ(1, response.calls);
    EXPECT_EQ(StatusCode::ok, response.result.statusCode);
    EXPECT_EQ(R"({"text":"x","number":1})", response.result.body);
    EXPECT_EQ(failuresBefore + 1, kest::utils::assertionFailureCount());
}

}  // namespace
}  // namespace kest::network::http::test
