#include <future>
#include <memory>

#include <gtest/gtest.h>
#include <boost/beast/http/error.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/aio/run_sync.h>
#include <kest/network/http/client/async_http_client.h>
#include <kest/network/http/client/connection_pool.h>

#include "http_test_peers.h"

namespace kest::network::http::client {
namespace {

using namespace std::chrono_literals;
using test::ScriptedPeer;
using test::TestServer;
using test::waitUntil;

struct Outcome
{
    std::error_code error;
    std::unique_ptr<Response> response;
};

/** Runs one exchange and waits for its handler. */
Outcome call(AsyncHttpClient& client, const kest::utils::Url& url, std::string method = "GET")
{
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    client.doRequest(std::move(method), url,
                     [promise](std::error_code error, std::unique_ptr<Response> response) {
                         promise->set_value({error, std::move(response)});
                     });
    if (future.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "No completion for " << url.toString();
        return {std::make_error_code(std::errc::timed_out), nullptr};
    }
    return future.get();
}

std::string okAnswer(std::string_view body, std::string_view extraHeaders = {})
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           std::string(extraHeaders) + "\r\n" + std::string(body);
}

class AsyncHttpClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server.on("echo", [](const RequestContext& context) {
            const Request& request = context.request;
            RequestResult result(StatusCode::ok,
                                 request.method + " " + request.query + " " + request.body,
                                 "text/plain");
            result.headers.emplace_back("X-Seen-Type",
                                        std::string(request.header("Content-Type").value_or("")));
            return result;
        });
        server.on("park", [](const RequestContext&) { return std::optional<RequestResult>(); });
        server.on("big", [](const RequestContext&) {
            return RequestResult(StatusCode::ok, std::string(10'000, 'b'), "text/plain");
        });
    }

    std::size_t idleCount(std::uint16_t port)
    {
        std::size_t count = 0;
        aio::runInThreadSync(&thread, [&]() {
            count = ConnectionPool::of(thread).idleCount("127.0.0.1:" + std::to_string(port));
        });
        return count;
    }

    TestServer server;
    aio::AioThread thread;
};

TEST_F(AsyncHttpClientTest, SendsMethodHeadersQueryAndBodyAndReadsTheWholeAnswer)
{
    server.start();
    AsyncHttpClient client(&thread);
    client.addRequestHeader("X-Custom", "v1");
    Credentials credentials;
    credentials.username = "user";
    credentials.password = "secret";
    client.setCredentials(credentials);

    auto get = call(client, server.url("/echo/x?a=1&b=%2526"));
    ASSERT_FALSE(get.error) << get.error.message();
    ASSERT_TRUE(get.response);
    EXPECT_EQ(get.response->statusCode, StatusCode::ok);
    EXPECT_EQ(get.response->body, "GET a=1&b=%2526 ");
    EXPECT_EQ(get.response->header("content-type"), "text/plain");

    client.setRequestBody(R"({"k":1})", "application/json");
    auto post = call(client, server.url("/echo"), "POST");
    ASSERT_TRUE(post.response);
    EXPECT_EQ(post.response->body, R"(POST  {"k":1})");
    EXPECT_EQ(post.response->header("X-Seen-Type"), "application/json");

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].path, "/echo/x");
    for (const auto& request : requests) {
        EXPECT_TRUE(std::count(request.headers.begin(), request.headers.end(),
                               HttpHeader{"X-Custom", "v1"}));
        EXPECT_TRUE(std::count(request.headers.begin(), request.headers.end(),
                               HttpHeader{"Authorization", "Basic dXNlcjpzZWNyZXQ="}));
    }

    EXPECT_EQ(call(client, server.url("/nothing")).response->statusCode, StatusCode::notFound);
    EXPECT_EQ(call(client, kest::utils::Url("ftp://127.0.0.1:1/")).error,
              std::errc::invalid_argument);

    // A bearer token goes instead of basic credentials.
    credentials.bearerToken = "t0k3n";
    client.setCredentials(credentials);
    call(client, server.url("/echo"));
    const auto headers = server.requests().back().headers;
    EXPECT_TRUE(
        std::count(headers.begin(), headers.end(), HttpHeader{"Authorization", "Bearer t0k3n"}));
}

TEST_F(AsyncHttpClientTest, ChunkedEofDelimitedAndClosingAnswersAreReadAndNotPooledWhenClosing)
{
    ScriptedPeer peer([](ScriptedPeer& peer, int fd, int) {
        // A chunked answer on a kept-alive connection, then one that asks to close.
        if (peer.readRequest(fd).empty())
            return;
        ScriptedPeer::write(fd,
                            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                            "5\r\nhello\r\n7\r\n, world\r\n0\r\n\r\n");
        if (peer.readRequest(fd).empty())
            return;
        ScriptedPeer::write(fd, okAnswer("closing", "Connection: close\r\n"));
        peer.idle(300ms);
    });
    AsyncHttpClient client(&thread);
    auto chunked = call(client, peer.url());
    ASSERT_TRUE(chunked.response) << chunked.error.message();
    EXPECT_EQ(chunked.response->body, "hello, world");
    EXPECT_EQ(idleCount(peer.port()), 1u);

    auto closing = call(client, peer.url());
    ASSERT_TRUE(closing.response) << closing.error.message();
    EXPECT_EQ(closing.response->body, "closing");
    EXPECT_EQ(idleCount(peer.port()), 0u);
    EXPECT_EQ(peer.connections(), 1);

    ScriptedPeer eofDelimited([](ScriptedPeer& peer, int fd, int) {
        if (!peer.readRequest(fd).empty())
            ScriptedPeer::write(fd, "HTTP/1.1 200 OK\r\n\r\nuntil the end");
    });
    auto untilEof = call(client, eofDelimited.url());
    ASSERT_TRUE(untilEof.response) << untilEof.error.message();
    EXPECT_EQ(untilEof.response->body, "until the end");
    EXPECT_EQ(idleCount(eofDelimited.port()), 0u);
}

TEST_F(AsyncHttpClientTest, ABodyOverTheLimitFailsWithoutAResponse)
{
    server.start();
    AsyncHttpClient client(&thread);
    client.setMaxResponseBodySize(9'999);
    const auto over = call(client, server.url("/big"));
    EXPECT_EQ(over.error, std::error_code(make_error_code(boost::beast::http::error::body_limit)));
    EXPECT_FALSE(over.response);

    client.setMaxResponseBodySize(10'000);
    const auto within = call(client, server.url("/big"));
    ASSERT_TRUE(within.response) << within.error.message();
    EXPECT_EQ(within.response->body.size(), 10'000u);
}

TEST_F(AsyncHttpClientTest, EachTimeoutEndsItsPhaseWithTimedOut)
{
    server.start();
    AsyncHttpClient client(&thread);

    client.setResponseReadTimeout(100ms);
    auto started = std::chrono::steady_clock::now();
    const auto noAnswer = call(client, server.url("/park"));
    EXPECT_EQ(noAnswer.error, std::errc::timed_out);
    EXPECT_FALSE(noAnswer.response);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 100ms);
    EXPECT_EQ(idleCount(server.port()), 0u) << "a timed-out connection must not be reused";

    ScriptedPeer trickling([](ScriptedPeer& peer, int fd, int) {
        if (peer.readRequest(fd).empty())
            return;
        ScriptedPeer::write(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly a part");
        peer.idle(5s);
    });
    client.setResponseReadTimeout(5s);
    client.setMessageBodyReadTimeout(100ms);
    const auto partBody = call(client, trickling.url());
    EXPECT_EQ(partBody.error, std::errc::timed_out);
    EXPECT_FALSE(partBody.response);

    ScriptedPeer notReading([](ScriptedPeer& peer, int, int) { peer.idle(5s); });
    client.setSendTimeout(100ms);
    client.setRequestBody(std::string(64 * 1024 * 1024, 'x'), "text/plain");
    started = std::chrono::steady_clock::now();
    const auto stuck = call(client, notReading.url(), "POST");
    EXPECT_EQ(stuck.error, std::errc::timed_out);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 4s);
}

TEST_F(AsyncHttpClientTest, ConnectionsAreReusedAcrossClientObjectsUpToTheCap)
{
    server.start();
    for (int i = 0; i < 20; ++i) {
        AsyncHttpClient client(&thread);
        const auto outcome = call(client, server.url("/echo"));
        ASSERT_TRUE(outcome.response) << outcome.error.message();
    }
    EXPECT_EQ(server.requestCount(), 20u);
    EXPECT_EQ(server.connectionCount(), 1u);

    AsyncHttpClient fresh(&thread);
    fresh.setReuseConnections(false);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(call(fresh, server.url("/echo")).response);
    EXPECT_EQ(server.connectionCount(), 4u);

    // Three exchanges at once need three connections; the pool keeps only two of them.
    ConnectionPool::setMaxIdlePerHost(2);
    std::vector<std::unique_ptr<AsyncHttpClient>> clients;
    std::vector<std::future<Outcome>> outcomes;
    for (int i = 0; i < 3; ++i) {
        AsyncHttpClient* client =
            clients.emplace_back(std::make_unique<AsyncHttpClient>(&thread)).get();
        outcomes.push_back(std::async(
            std::launch::async, [client, this]() { return call(*client, server.url("/park")); }));
    }
    EXPECT_TRUE(waitUntil([&]() { return server.parkedCount() == 3; }));
    server.releaseParked();
    for (auto& outcome : outcomes)
        EXPECT_TRUE(outcome.get().response);
    EXPECT_EQ(idleCount(server.port()), 2u);
    ConnectionPool::setMaxIdlePerHost(ConnectionPool::kDefaultMaxIdlePerHost);
}

TEST_F(AsyncHttpClientTest, AConnectionTheServerClosedWhileIdleIsReplacedWithoutLosingTheRequest)
{
    server.settings.idleTimeout = 100ms;
    server.start();
    AsyncHttpClient client(&thread);
    ASSERT_TRUE(call(client, server.url("/echo")).response);
    EXPECT_EQ(server.requestCount(), 1u);
    // The pool sees the server's close and drops the connection.
    EXPECT_TRUE(waitUntil([&]() { return idleCount(server.port()) == 0; }));
    const auto second = call(client, server.url("/echo"));
    ASSERT_TRUE(second.response) << second.error.message();
    EXPECT_EQ(server.requestCount(), 2u);
    EXPECT_EQ(server.connectionCount(), 2u);
}

TEST_F(AsyncHttpClientTest, ARequestLostOnAReusedConnectionIsSentOnceMoreButNotOnAFreshOne)
{
    // The first connection answers once, then takes the next request and closes unanswered, as
    // a server does that closes an idle connection just as a request arrives.
    ScriptedPeer peer([](ScriptedPeer& peer, int fd, int index) {
        if (peer.readRequest(fd).empty() || index > 0)
            return index > 0 ? ScriptedPeer::write(fd, okAnswer("second")) : void();
        ScriptedPeer::write(fd, okAnswer("first"));
        peer.readRequest(fd);
    });
    AsyncHttpClient client(&thread);
    EXPECT_EQ(call(client, peer.url()).response->body, "first");
    const auto resent = call(client, peer.url());
    ASSERT_TRUE(resent.response) << resent.error.message();
    EXPECT_EQ(resent.response->body, "second");
    EXPECT_EQ(peer.connections(), 2);
    EXPECT_EQ(peer.requests(), 3);

    ScriptedPeer dropping([](ScriptedPeer& peer, int fd, int) { peer.readRequest(fd); });
    const auto lost = call(client, dropping.url());
    EXPECT_TRUE(lost.error);
    EXPECT_FALSE(lost.response);
    peer.idle(100ms);
    EXPECT_EQ(dropping.connections(), 1);
    EXPECT_EQ(dropping.requests(), 1);
}

TEST_F(AsyncHttpClientTest, StoppingCancelsTheExchangeAndItsHandlerNeverRuns)
{
    server.start();
    std::atomic<int> handled{0};
    const auto count = [&handled](std::error_code, std::unique_ptr<Response>) { ++handled; };

    auto stopped = std::make_unique<AsyncHttpClient>(&thread);
    stopped->doGet(server.url("/park"), count);
    ASSERT_TRUE(waitUntil([&]() { return server.parkedCount() == 1; }));
    stopped->pleaseStopSync();

    // Destroyed in flight, right after starting, and while connecting to a name being resolved.
    auto destroyed = std::make_unique<AsyncHttpClient>(&thread);
    destroyed->doGet(server.url("/park"), count);
    ASSERT_TRUE(waitUntil([&]() { return server.parkedCount() == 2; }));
    destroyed.reset();
    // Parked paths only: an answered one may legitimately complete before a descheduled test
    // thread gets to the destructor.
    {
        AsyncHttpClient immediately(&thread);
        immediately.doGet(server.url("/park"), count);
    }
    {
        AsyncHttpClient resolving(&thread);
        resolving.doGet(
            kest::utils::Url("http://localhost:" + std::to_string(server.port()) + "/park"), count);
    }

    // The released answers find no exchange to complete: a whole exchange on the same thread
    // later, none of the stopped ones has called its handler.
    server.releaseParked();
    AsyncHttpClient later(&thread);
    EXPECT_EQ(call(later, server.url("/echo")).response->statusCode, 200);
    EXPECT_EQ(handled.load(), 0);

    // A handler may destroy its own client; the next exchange of a stopped client runs normally.
    auto selfDestroying = std::make_unique<AsyncHttpClient>(&thread);
    std::promise<int> status;
    selfDestroying->doGet(server.url("/echo"), [&](std::error_code, std::unique_ptr<Response> r) {
        selfDestroying.reset();
        status.set_value(r ? r->statusCode : 0);
    });
    EXPECT_EQ(status.get_future().get(), 200);
    EXPECT_EQ(call(*stopped, server.url("/echo")).response->statusCode, StatusCode::ok);
}

}  // namespace
}  // namespace kest::network::http::client
