// gzip on the wire: which Accept-Encoding values take it, the codec's limits, the server's
// choice to compress, and the client's decoding.

#include <future>
#include <memory>

#include <gtest/gtest.h>
#include <boost/beast/http/error.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/client/async_http_client.h>
#include <kest/network/http/gzip.h>

#include "http_test_peers.h"

namespace kest::network::http {
namespace {

using namespace std::chrono_literals;
using client::AsyncHttpClient;
using client::Response;
using test::ScriptedPeer;
using test::TestServer;

struct Outcome
{
    std::error_code error;
    std::unique_ptr<Response> response;
};

Outcome call(AsyncHttpClient& client, const kest::utils::Url& url)
{
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    client.doRequest("GET", url,
                     [promise](std::error_code error, std::unique_ptr<Response> response) {
                         promise->set_value({error, std::move(response)});
                     });
    if (future.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "No completion for " << url.toString();
        return {std::make_error_code(std::errc::timed_out), nullptr};
    }
    return future.get();
}

/** The raw answer of the server to a GET with these extra header lines, read whole. */
std::string rawGet(std::uint16_t port, const std::string& target, const std::string& headers)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return {};
    }
    ScriptedPeer::write(
        fd, "GET " + target + " HTTP/1.1\r\nHost: h\r\nConnection: close\r\n" + headers + "\r\n");
    std::string answer;
    char buffer[16384];
    for (;;) {
        pollfd item{fd, POLLIN, 0};
        if (::poll(&item, 1, 10'000) <= 0)
            break;
        const ssize_t got = ::recv(fd, buffer, sizeof(buffer), 0);
        if (got <= 0)
            break;
        answer.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return answer;
}

std::string textOf(std::size_t size)
{
    std::string text;
    for (std::size_t i = 0; text.size() < size; ++i)
        text += R"({"id":")" + std::to_string(i * 7919) + R"(","objectTypeId":"person"},)";
    text.resize(size);
    return text;
}

TEST(GzipTest, AcceptEncodingTakesGzipByNameOrWildcardUnlessItsQualityIsZero)
{
    const std::pair<const char*, bool> cases[] = {
        {"gzip", true},
        {"GZip", true},
        {"deflate, gzip;q=0.5", true},
        {"x-gzip", true},
        {"*", true},
        {"br;q=1.0, *;q=0.1", true},
        {"", false},
        {"identity", false},
        {"deflate, br", false},
        {"gzip;q=0", false},
        {"gzip; q=0.000", false},
        {"*, gzip;q=0", false},
        {"*;q=0", false},
        {"gzip;q=bad", false},
    };
    for (const auto& [value, accepted] : cases)
        EXPECT_EQ(Gzip::isAccepted(value), accepted) << value;
}

TEST(GzipTest, ItDecodesWhatItEncodesAndRefusesWhatIsCutShortCorruptOrTooLarge)
{
    const std::string text = textOf(200'000);
    const auto packed = Gzip::compress(text);
    ASSERT_TRUE(packed);
    EXPECT_LT(packed->size(), text.size() / 4);
    std::string out;
    EXPECT_EQ(Gzip::decompress(*packed, text.size(), &out), Gzip::DecodeResult::ok);
    EXPECT_TRUE(out == text);

    // Members one after the other make one body.
    EXPECT_EQ(Gzip::decompress(*packed + *Gzip::compress("tail"), 1 << 20, &out),
              Gzip::DecodeResult::ok);
    EXPECT_TRUE(out == text + "tail");

    EXPECT_EQ(Gzip::decompress(packed->substr(0, packed->size() / 2), 1 << 20, &out),
              Gzip::DecodeResult::corrupt);
    std::string flipped = *packed;
    flipped[flipped.size() / 2] ^= 0x55;
    EXPECT_EQ(Gzip::decompress(flipped, 1 << 20, &out), Gzip::DecodeResult::corrupt);
    EXPECT_EQ(Gzip::decompress("not gzip at all", 1 << 20, &out), Gzip::DecodeResult::corrupt);
    EXPECT_EQ(Gzip::decompress(*packed + "junk", 1 << 20, &out), Gzip::DecodeResult::corrupt);

    // A bomb: a few KiB that would be 20 MB. Stopped at the limit, not after.
    const auto bomb = Gzip::compress(std::string(20'000'000, '\0'), 9);
    ASSERT_LT(bomb->size(), 50'000u);
    EXPECT_EQ(Gzip::decompress(*bomb, 1'000'000, &out), Gzip::DecodeResult::tooLarge);
    EXPECT_LE(out.size(), 1'000'001u);
    EXPECT_EQ(Gzip::decompress(*Gzip::compress(text), text.size() - 1, &out),
              Gzip::DecodeResult::tooLarge);
}

TEST(GzipTest, TheServerCompressesLargeAnswersForClientsThatTakeGzipAndTheClientDecodesThem)
{
    TestServer server;
    const std::string large = textOf(50'000);
    server.on("large", [&](const RequestContext&) {
        return RequestResult(StatusCode::ok, large, "application/json");
    });
    server.on("small", [](const RequestContext&) {
        return RequestResult(StatusCode::ok, std::string(1024, 's'), "text/plain");
    });
    server.on("coded", [&](const RequestContext&) {
        RequestResult result(StatusCode::ok, large, "application/octet-stream");
        result.headers.emplace_back("Content-Encoding", "br");
        return result;
    });
    server.start();

    const auto compressed = rawGet(server.port(), "/large", "Accept-Encoding: gzip\r\n");
    EXPECT_NE(compressed.find("Content-Encoding: gzip\r\n"), std::string::npos);
    EXPECT_NE(compressed.find("Vary: Accept-Encoding\r\n"), std::string::npos);
    EXPECT_LT(compressed.size(), large.size() / 4);
    std::string decoded;
    ASSERT_EQ(
        Gzip::decompress(compressed.substr(compressed.find("\r\n\r\n") + 4), 1 << 20, &decoded),
        Gzip::DecodeResult::ok);
    EXPECT_TRUE(decoded == large);

    for (const auto& [target, headers] : std::vector<std::pair<std::string, std::string>>{
             {"/large", ""},
             {"/large", "Accept-Encoding: gzip;q=0, deflate\r\n"},
             {"/small", "Accept-Encoding: gzip\r\n"},
             {"/coded", "Accept-Encoding: gzip\r\n"}}) {
        const auto plain = rawGet(server.port(), target, headers);
        EXPECT_EQ(plain.find("Content-Encoding: gzip"), std::string::npos) << target << headers;
        EXPECT_TRUE(plain.ends_with(target == "/small" ? std::string(1024, 's') : large))
            << target << headers;
    }

    // The client asks for gzip and hands over the body as it was before coding.
    aio::AioThread thread;
    AsyncHttpClient client(&thread);
    const auto outcome = call(client, server.url("/large"));
    ASSERT_TRUE(outcome.response) << outcome.error.message();
    EXPECT_TRUE(outcome.response->body == large);
    EXPECT_FALSE(outcome.response->header("Content-Encoding"));
    EXPECT_FALSE(outcome.response->header("Content-Length"));
    const auto headers = server.requests().back().headers;
    EXPECT_EQ(std::count(headers.begin(), headers.end(), HttpHeader{"Accept-Encoding", "gzip"}), 1);

    // One that chose its own Accept-Encoding gets the body as it came.
    AsyncHttpClient raw(&thread);
    raw.addRequestHeader("Accept-Encoding", "gzip");
    const auto coded = call(raw, server.url("/large"));
    ASSERT_TRUE(coded.response);
    EXPECT_EQ(coded.response->header("Content-Encoding"), "gzip");
    EXPECT_LT(coded.response->body.size(), large.size() / 4);
}

TEST(GzipTest, TheClientRefusesACompressedAnswerThatDoesNotDecodeOrOutgrowsTheBodyLimit)
{
    const std::string bomb = *Gzip::compress(std::string(20'000'000, 'z'), 9);
    ScriptedPeer peer([&](ScriptedPeer& peer, int fd, int index) {
        const std::string body = index == 0 ? bomb : std::string("\x1f\x8b broken", 9);
        if (!peer.readRequest(fd).empty()) {
            ScriptedPeer::write(fd,
                                "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                                    std::to_string(body.size()) + "\r\n\r\n" + body);
        }
    });
    aio::AioThread thread;
    AsyncHttpClient client(&thread);
    client.setReuseConnections(false);
    client.setMaxResponseBodySize(1'000'000);
    const auto tooLarge = call(client, peer.url());
    EXPECT_FALSE(tooLarge.response);
    EXPECT_EQ(tooLarge.error,
              std::error_code(boost::system::error_code(boost::beast::http::error::body_limit)));
    const auto corrupt = call(client, peer.url());
    EXPECT_FALSE(corrupt.response);
    EXPECT_EQ(corrupt.error, AsyncHttpClient::badContentEncoding());
}

}  // namespace
}  // namespace kest::network::http
