#include <QUrlQuery>
#include <future>
#include <memory>

#include <gtest/gtest.h>
#include <boost/describe/class.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/aio/run_sync.h>
#include <kest/network/http/api/base_api_request_handler.h>
#include <kest/network/http/default_api_result_code_descriptor.h>
#include <kest/network/http/generic_api_client.h>
#include <kest/utils/assert.h>

#include "http_test_peers.h"

namespace kest::network::http {

struct Item
{
    std::string name;
    int number = 0;

    friend bool operator==(const Item&, const Item&) = default;
};
BOOST_DESCRIBE_STRUCT(Item, (), (name, number))

/** A record that travels in the URL query, read the way the service reads queries. */
struct Search
{
    std::string text;
    std::string other;

    friend bool operator==(const Search&, const Search&) = default;
};
BOOST_DESCRIBE_STRUCT(Search, (), (text, other))

bool loadFromUrlQuery(const QUrlQuery& query, Search* search)
{
    search->text = query.queryItemValue("text", QUrl::FullyDecoded).toStdString();
    search->other = query.queryItemValue("other", QUrl::FullyDecoded).toStdString();
    return true;
}

namespace {

using namespace std::chrono_literals;
using Client = GenericApiClient<DefaultApiResultCodeDescriptor>;
using test::TestServer;
using test::waitUntil;

/** As records write text values: what splits or escapes a query is escaped twice. */
QString escapedTwice(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (std::string_view("%&=+#;").find(c) == std::string_view::npos) {
            result += c;
            continue;
        }
        static constexpr char kHex[] = "0123456789ABCDEF";
        result += "%25";
        result += kHex[static_cast<unsigned char>(c) >> 4];
        result += kHex[c & 0xF];
    }
    return QString::fromStdString(result);
}

/** Answers with the record it was given. */
class SearchEcho : public detail::BaseApiRequestHandler<Search>
{
public:
    void processRequest(RequestContext, Search input) override
    {
        requestCompleted(ApiRequestResult(), input);
    }
};

RequestResult json(StatusCode::Value status, std::string body)
{
    return RequestResult(status, std::move(body), "application/json");
}

/** Counts handler calls and keeps the last result. */
template <typename Output>
struct Calls
{
    std::atomic<int> count{0};
    std::promise<std::tuple<StatusCode::Value, Output>> first;

    Client::Handler<Output> handler()
    {
        return [this](StatusCode::Value status, Output output) {
            if (count++ == 0)
                first.set_value({status, std::move(output)});
        };
    }
    std::tuple<StatusCode::Value, Output> wait()
    {
        auto future = first.get_future();
        EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
        return future.get();
    }
};

class GenericApiClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server.dispatcher.registerRequestProcessor(
            "/api/search", []() { return std::make_unique<SearchEcho>(); }, "GET");
        server.on("items", [](const RequestContext&) {
            return json(StatusCode::ok, R"([{"name":"a","number":1},{"name":"b"}])");
        });
        server.on("notJson", [](const RequestContext&) {
            return RequestResult(StatusCode::ok, "<html>", "text/html");
        });
        server.on("wrongShape",
                  [](const RequestContext&) { return json(StatusCode::ok, R"({"name":1})"); });
        server.on("missing", [](const RequestContext&) {
            return json(StatusCode::notFound, R"([{"name":"not for the caller"}])");
        });
        server.on("host", [](const RequestContext&) { return json(StatusCode::ok, "\"h:7001\""); });
        server.on("unavailable", [](const RequestContext&) {
            return json(
                StatusCode::serviceUnavailable,
                ApiRequestResult(ApiRequestErrorClass::ioError, "ioError", "busy").toJson());
        });
        server.on("flaky", [this](const RequestContext&) {
            return ++flakyCalls == 1 ? json(StatusCode::serviceUnavailable, "")
                                     : json(StatusCode::ok, R"([{"name":"late"}])");
        });
        server.on("echo",
                  [](const RequestContext&) { return RequestResult(StatusCode::noContent); });
        server.on("park", [](const RequestContext&) { return std::optional<RequestResult>(); });
        server.start();
    }

    std::unique_ptr<Client> makeClient(kest::utils::Url url = {})
    {
        return std::make_unique<Client>(url.isValid() ? url : server.url(),
                                        ssl::kDefaultCertificateCheck, &thread);
    }

    std::atomic<int> flakyCalls{0};
    TestServer server;
    aio::AioThread thread;
};

TEST_F(GenericApiClientTest, AnUnreachableServerGives500OnceWithEmptyOutput)
{
    std::uint16_t closedPort = 0;
    {
        test::ScriptedPeer probe([](test::ScriptedPeer&, int, int) {});
        closedPort = probe.port();
    }
    auto client = makeClient(kest::utils::Url("http://127.0.0.1:" + std::to_string(closedPort)));
    Calls<std::vector<Item>> calls;
    client->makeAsyncCallWithRetries<std::vector<Item>>("GET", "/items", {}, 1, calls.handler());
    EXPECT_EQ(calls.wait(), std::make_tuple(StatusCode::internalServerError, std::vector<Item>()));

    EXPECT_EQ(client->makeSyncCallInternal<std::vector<Item>>("GET", "/items", {}),
              std::make_tuple(StatusCode::internalServerError, std::vector<Item>()));
    // A whole call later on the same thread, the first has still been answered once.
    EXPECT_EQ(calls.count.load(), 1);
}

TEST_F(GenericApiClientTest, AttemptsRepeatWhileThePredicateRefusesUpToTheLimit)
{
    auto client = makeClient();
    client->setRetryPredicate(
        [](StatusCode::Value status) { return status != StatusCode::serviceUnavailable; });
    client->setAttemptLimit(3);

    Calls<std::vector<Item>> calls;
    client->makeAsyncCallWithRetries<std::vector<Item>>("GET", "/unavailable", {}, 1,
                                                        calls.handler());
    EXPECT_EQ(calls.wait(), std::make_tuple(StatusCode::serviceUnavailable, std::vector<Item>()));
    EXPECT_EQ(server.requestCount(), 3u);

    // A repeat that succeeds ends the attempts; the input record is sent again each time.
    const auto [status, items] =
        client->makeSyncCallInternal<std::vector<Item>>("POST", "/flaky", {}, Item{"in", 2});
    EXPECT_EQ(calls.count.load(), 1) << "the refused call was answered again";
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(items, (std::vector<Item>{Item{"late", 0}}));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(requests[3].body, R"({"name":"in","number":2})");
    EXPECT_EQ(requests[4].body, requests[3].body);

    // Without a predicate the limit alone repeats nothing.
    client->setRetryPredicate(std::nullopt);
    EXPECT_EQ(std::get<0>(client->makeSyncCallInternal<void>("GET", "/unavailable", {})),
              StatusCode::serviceUnavailable);
    EXPECT_EQ(server.requestCount(), 6u);
}

TEST_F(GenericApiClientTest, OutputIsDecodedOnlyFromA2xxJsonAnswer)
{
    auto client = makeClient();
    EXPECT_EQ(client->makeSyncCallInternal<std::vector<Item>>("GET", "/items", {}),
              std::make_tuple(StatusCode::ok, std::vector<Item>{{"a", 1}, {"b", 0}}));
    EXPECT_EQ(client->makeSyncCallInternal<std::vector<Item>>("GET", "/notJson", {}),
              std::make_tuple(StatusCode::ok, std::vector<Item>()));
    EXPECT_EQ(client->makeSyncCallInternal<Item>("GET", "/wrongShape", {}),
              std::make_tuple(StatusCode::ok, Item()));
    EXPECT_EQ(client->makeSyncCallInternal<std::vector<Item>>("GET", "/missing", {}),
              std::make_tuple(StatusCode::notFound, std::vector<Item>()));
    EXPECT_EQ(client->makeSyncCallInternal<std::string>("GET", "/host", {}),
              std::make_tuple(StatusCode::ok, std::string("h:7001")));

    // An input record travels as JSON; a call without output reports the status alone.
    EXPECT_EQ(client->makeSyncCallInternal<void>("POST", "/echo", {}, Item{"n", 5}),
              std::make_tuple(StatusCode::noContent));
    const auto posted = server.requests().back();
    EXPECT_EQ(posted.body, R"({"name":"n","number":5})");
    EXPECT_TRUE(std::count(posted.headers.begin(), posted.headers.end(),
                           HttpHeader{"Content-Type", "application/json"}));
}

TEST_F(GenericApiClientTest, QueryTextSurvivesTheServicesDecodingUnderABasePath)
{
    auto client = makeClient(server.url("/api/"));
    const Search search{"50%41 a+b&c=d#e;f ü/?\"x\" %%25", "plain text"};
    QUrlQuery query;
    query.addQueryItem("text", escapedTwice(search.text));
    query.addQueryItem("other", escapedTwice(search.other));
    EXPECT_EQ(client->makeSyncCallInternal<Search>("GET", "search", query),
              std::make_tuple(StatusCode::ok, search));
}

TEST_F(GenericApiClientTest, StoppingCancelsCallsInFlightAndNoHandlerRunsAfterwards)
{
    auto client = makeClient();
    std::atomic<int> handled{0};
    for (int i = 0; i < 4; ++i) {
        client->makeAsyncCallWithRetries<std::vector<Item>>(
            "GET", "/park", {}, 1, [&handled](StatusCode::Value, std::vector<Item>) { ++handled; });
    }
    auto blocked = std::async(std::launch::async, [&client]() {
        return client->makeSyncCallInternal<void>("GET", "/park", {});
    });
    ASSERT_TRUE(waitUntil([&]() { return server.parkedCount() == 5; }));

    client->pleaseStopSync();
    EXPECT_EQ(blocked.get(), std::make_tuple(StatusCode::internalServerError));
    server.releaseParked();
    // The released answers find no call to complete: a whole call later on the same thread, no
    // handler of the stopped client has run.
    EXPECT_EQ(std::get<0>(makeClient()->makeSyncCallInternal<void>("GET", "/items", {})),
              StatusCode::ok);
    EXPECT_EQ(handled.load(), 0);

    // Calls started while another thread stops the client; the last stop catches the late ones.
    auto racing = makeClient();
    auto starter = std::async(std::launch::async, [&]() {
        for (int i = 0; i < 20; ++i) {
            racing->makeAsyncCallWithRetries<void>("GET", "/park", {}, 1,
                                                   [&handled](StatusCode::Value) { ++handled; });
        }
    });
    racing->pleaseStopSync();
    starter.get();
    // Destroyed on its own thread, which stops it there.
    std::promise<void> gone;
    thread.post([&]() {
        racing.reset();
        gone.set_value();
    });
    gone.get_future().get();
    server.releaseParked();
    EXPECT_EQ(std::get<0>(makeClient()->makeSyncCallInternal<void>("GET", "/items", {})),
              StatusCode::ok);
    EXPECT_EQ(handled.load(), 0);
}

TEST_F(GenericApiClientTest, RequestTimeoutThreadBindingAndMisuse)
{
    aio::AioThread other;  //< Outlives the client that moves to it.
    auto client = makeClient();
    client->setRequestTimeout(100ms);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(client->makeSyncCallInternal<void>("GET", "/park", {}),
              std::make_tuple(StatusCode::internalServerError));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);

    client->bindToAioThread(&other);
    std::promise<bool> onOther;
    client->makeAsyncCallWithRetries<void>("GET", "/echo", {}, 1, [&](StatusCode::Value) {
        onOther.set_value(aio::AioThread::current() == &other);
    });
    EXPECT_TRUE(onOther.get_future().get());

    // A blocking call on the client's own thread could never complete: refused at once.
    const int failures = kest::utils::assertionFailureCount();
    std::tuple<StatusCode::Value> result;
    aio::runInThreadSync(
        &other, [&]() { result = client->makeSyncCallInternal<void>("GET", "/echo", {}); });
    EXPECT_EQ(result, std::make_tuple(StatusCode::internalServerError));
    EXPECT_EQ(kest::utils::assertionFailureCount(), failures + 1);
    client->pleaseStopSync();
}

}  // namespace
}  // namespace kest::network::http
