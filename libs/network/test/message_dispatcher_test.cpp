#include <gtest/gtest.h>

#include <kest/network/http/server/request_metrics.h>
#include <kest/network/http/server/rest/message_dispatcher.h>
#include <kest/utils/log/logger.h>

namespace kest::network::http::server::rest {
namespace {

/** Answers with its own tag and the path parameters it got, so a test sees which route ran. */
class TaggedHandler : public AbstractRequestHandler
{
public:
    explicit TaggedHandler(std::string tag) : m_tag(std::move(tag)) {}

    void processRequest(RequestContext context,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        std::string body = m_tag;
        for (const auto& [name, value] : context.requestPathParams.items())
            body += " " + name + "=" + value;
        completionHandler(
            RequestResult(StatusCode::ok, body + " path=" + context.request.path, ""));
    }

private:
    std::string m_tag;
};

RequestHandlerFactory tagged(std::string tag)
{
    return [tag]() { return std::make_unique<TaggedHandler>(tag); };
}

class MessageDispatcherTest : public ::testing::Test
{
protected:
    /** Dispatches and returns the answer: status and body. */
    std::pair<int, std::string> call(std::string method, std::string target)
    {
        Request request;
        request.method = std::move(method);
        request.setTarget(std::move(target));
        std::pair<int, std::string> answer{-1, ""};
        int calls = 0;
        auto handler = dispatcher.dispatchRequest(
            RequestContext(std::move(request), SocketAddress{"127.0.0.1", 1}),
            [&](RequestResult result) {
                ++calls;
                answer = {result.statusCode, result.body};
            });
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(handler != nullptr, answer.first != StatusCode::notFound);
        return answer;
    }

    MessageDispatcher dispatcher;
};

TEST_F(MessageDispatcherTest, TemplateCompilesToAnchoredPosixPatternWithNamesInOrder)
{
    EXPECT_EQ(PathMatcher::templateToPattern("/a/{x}/b/{y-z_1}"), "^/a/\\([^/]*\\)/b/\\([^/]*\\)$");
    EXPECT_EQ(PathMatcher::parameterNames("/a/{x}/b/{y-z_1}"),
              (std::vector<std::string>{"x", "y-z_1"}));
    EXPECT_TRUE(PathMatcher::parameterNames("/plain").empty());
}

TEST_F(MessageDispatcherTest, PathParameterIsOneSegmentPossiblyEmpty)
{
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/metadataDb/v1/dataSaveErrors/{deviceIds}",
                                                    tagged("errors"), "GET"));
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/{a},{b}?x=1").second,
              "errors deviceIds={a},{b} path=/metadataDb/v1/dataSaveErrors/{a},{b}");
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/").second,
              "errors deviceIds= path=/metadataDb/v1/dataSaveErrors/");
    // Routes match the path as sent; the parameter is decoded after, so that an encoded "/"
    // neither splits the segment nor joins two into a route.
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/a%20b;%7Bc%7D").second,
              "errors deviceIds=a b;{c} path=/metadataDb/v1/dataSaveErrors/a%20b;%7Bc%7D");
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/a%2Fb").second,
              "errors deviceIds=a/b path=/metadataDb/v1/dataSaveErrors/a%2Fb");
    EXPECT_EQ(call("GET", "/metadataDb/v1%2FdataSaveErrors/a").first, StatusCode::notFound);
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors%2fa").first, StatusCode::notFound);
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/a/b").first, StatusCode::notFound);
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors").first, StatusCode::notFound);
    EXPECT_EQ(call("GET", "/prefix/metadataDb/v1/dataSaveErrors/a").first, StatusCode::notFound);
    // A decoded NUL must not cut the path short for the matcher.
    EXPECT_EQ(call("GET", "/metadataDb/v1/dataSaveErrors/a%00/junk").first, StatusCode::notFound);
}

TEST_F(MessageDispatcherTest, DuplicateIsRefusedPerMethodOnly)
{
    EXPECT_TRUE(dispatcher.registerRequestProcessor("/metadataDb/v1/data", tagged("save"), "POST"));
    EXPECT_FALSE(
        dispatcher.registerRequestProcessor("/metadataDb/v1/data", tagged("again"), "POST"));
    EXPECT_FALSE(
        dispatcher.registerRequestProcessor("/metadataDb/v1/data", tagged("again"), "post"));
    EXPECT_TRUE(
        dispatcher.registerRequestProcessor("/metadataDb/v1/data", tagged("search"), "GET"));
    EXPECT_EQ(call("POST", "/metadataDb/v1/data").second, "save path=/metadataDb/v1/data");
    EXPECT_EQ(call("GET", "/metadataDb/v1/data").second, "search path=/metadataDb/v1/data");
}

TEST_F(MessageDispatcherTest, OwnMethodFirstThenAnyMethodCaseRules)
{
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/x/{id}", tagged("any")));
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/x/{id}", tagged("post"), "POST"));
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/y", tagged("ping"), "POST"));
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/w", tagged("any-w")));

    EXPECT_EQ(call("post", "/x/1").second, "post id=1 path=/x/1");
    EXPECT_EQ(call("DELETE", "/x/2").second, "any id=2 path=/x/2");
    // POST has routes, but none for this path: the any-method routes are still tried.
    EXPECT_EQ(call("POST", "/w").second, "any-w path=/w");
    EXPECT_EQ(call("GET", "/y").first, StatusCode::notFound);
    EXPECT_EQ(call("POST", "/Y").first, StatusCode::notFound);
    EXPECT_EQ(call("POST", "/X/1").first, StatusCode::notFound);
}

TEST_F(MessageDispatcherTest, LongestRewritePrefixWinsAndIsLogged)
{
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/new/{rest}", tagged("short"), "GET"));
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/newer/{rest}", tagged("long"), "GET"));
    dispatcher.addModRewriteRule("/old/", "/new/");
    dispatcher.addModRewriteRule("/old/deep/", "/newer/");

    std::vector<std::string> lines;
    auto& logger = kest::utils::log::Logger::instance();
    const int observer = logger.addObserver(
        [&](auto, const std::string&, const std::string& message) { lines.push_back(message); });
    EXPECT_EQ(call("GET", "/old/deep/a").second, "long rest=a path=/newer/a");
    EXPECT_EQ(call("GET", "/old/b").second, "short rest=b path=/new/b");
    EXPECT_EQ(call("GET", "/new/c").second, "short rest=c path=/new/c");
    logger.removeObserver(observer);

    EXPECT_NE(std::find(lines.begin(), lines.end(), "Rewriting url '/old/deep/a' to '/newer/a'"),
              lines.end());
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.starts_with("Rewriting url"); }),
              2);
}

TEST_F(MessageDispatcherTest, FactoryReturningNothingIsNotFound)
{
    ASSERT_TRUE(dispatcher.registerRequestProcessor(
        "/z", []() { return nullptr; }, "GET"));
    EXPECT_EQ(call("GET", "/z").first, StatusCode::notFound);
}

TEST(RequestTest, HeaderLookupIgnoresCaseAndTargetSplits)
{
    Request request;
    request.headers = {{"Content-Type", "application/json"}, {"X-A", "1"}};
    EXPECT_TRUE(request.setTarget("/a%2Fb/c?format=json&x=%20"));
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_FALSE(request.header("Content-Length"));
    EXPECT_EQ(request.path, "/a%2Fb/c");
    EXPECT_EQ(request.query, "format=json&x=%20");

    EXPECT_TRUE(request.setTarget("HTTP://host:80/p/%7Bq%7D?r"));
    EXPECT_EQ(request.path, "/p/%7Bq%7D");
    EXPECT_EQ(request.query, "r");
    EXPECT_TRUE(request.setTarget("https://host"));
    EXPECT_EQ(request.path, "/");
    EXPECT_TRUE(request.query.empty());
    for (const char* refused : {"host:80", "mailto:a@b", "http:/p", "p"}) {
        EXPECT_FALSE(request.setTarget(refused)) << refused;
        EXPECT_TRUE(request.path.empty()) << refused;
    }
    EXPECT_EQ(Request::percentDecode("%4"), "%4");
    EXPECT_EQ(Request::percentDecode("%zz%41"), "%zzA");
}

/** Keeps its completion handler for the test to call after the handler is gone. */
class HeldHandler : public AbstractRequestHandler
{
public:
    explicit HeldHandler(kest::utils::MoveOnlyFunc<void(RequestResult)>* held) : m_held(held) {}

    void processRequest(RequestContext,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        *m_held = std::move(completionHandler);
    }

private:
    kest::utils::MoveOnlyFunc<void(RequestResult)>* m_held;
};

TEST(MessageDispatcherMetricsTest, RequestsCountUnderTheirRouteTemplateOrAsUnmatchedByMethod)
{
    kest::utils::metrics::Registry registry;
    RequestMetrics metrics(registry, "t_");
    MessageDispatcher dispatcher;
    dispatcher.setRequestMetrics(&metrics);
    kest::utils::MoveOnlyFunc<void(RequestResult)> held;
    ASSERT_TRUE(dispatcher.registerRequestProcessor("/a/{id}", tagged("a"), "get"));
    ASSERT_TRUE(dispatcher.registerRequestProcessor(
        "/held", [&held]() { return std::make_unique<HeldHandler>(&held); }, "POST"));

    int answered = 0;
    const auto call = [&](std::string method, std::string target) {
        Request request;
        request.method = std::move(method);
        request.setTarget(std::move(target));
        return dispatcher.dispatchRequest(
            RequestContext(std::move(request), SocketAddress{"127.0.0.1", 1}),
            [&answered](RequestResult) { ++answered; });
    };
    call("GET", "/a/1");
    call("GET", "/a/2?x=1");
    call("get", "/missing");
    call("GET", "/missing/too");
    call("BREW", "/a/1");  //< Any method name may arrive: all the odd ones share one series.
    call("WHATEVER", "/");
    // The handler is gone before it answers; the answer still counts, with its own status.
    call("POST", "/held").reset();
    held(RequestResult(StatusCode::serviceUnavailable));
    EXPECT_EQ(answered, 7);

    const std::string text = registry.exposition();
    for (const std::string line :
         {"t_http_requests_total{route=\"/a/{id}\",method=\"GET\",status=\"200\"} 2\n",
          "t_http_requests_total{route=\"/held\",method=\"POST\",status=\"503\"} 1\n",
          "t_http_requests_total{route=\"unmatched\",method=\"GET\",status=\"404\"} 2\n",
          "t_http_requests_total{route=\"unmatched\",method=\"other\",status=\"404\"} 2\n",
          "t_http_request_duration_seconds_count{route=\"/a/{id}\",method=\"GET\"} 2\n",
          "t_http_request_duration_seconds_count{route=\"/held\",method=\"POST\"} 1\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    // No raw paths, and no series for statuses never answered.
    EXPECT_EQ(text.find("/a/1"), std::string::npos) << text;
    EXPECT_EQ(text.find("status=\"500\""), std::string::npos) << text;
}

}  // namespace
}  // namespace kest::network::http::server::rest
