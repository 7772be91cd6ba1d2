// The service over HTTPS and with credentials: the client library and distributed searches
// against TLS instances, bearer tokens and client certificates on every route, the open ping,
// refusals in the metrics, a brute-force client, a reload of the tokens on SIGHUP, and no token
// in any log line.

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <fstream>
#include <mutex>

#include <kest/cloud/storage/api/client.h>
#include <kest/cloud/storage/testing/keep_alive_connection.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/network/http/server/token_table.h>
#include <kest/network/ssl/tls_errors.h>
#include <kest/network/testing/test_certificates.h>

#include "log_capture.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using kest::analytics::db::ObjectTrackEx;
using kest::network::http::StatusCode;
using kest::network::http::server::TokenTable;
using kest::network::test::TestCertificates;

const std::string kIngest = "ingest-5b1d0c";
const std::string kReader = "reader-e2a947";
const std::string kOps = "ops-77f0aa";
const std::string kPeer = "peer-0c93b1";
const std::string kStranger = "stranger-4242";

/** Every token of the tests, with the routes of its name. */
std::string tokensText()
{
    return "ingest " + TokenTable::credentialOf(kIngest) + " POST /metadataDb/v1/data\n" +
           "reader " + TokenTable::credentialOf(kReader) + " GET /metadataDb/v1/*\n" + "ops " +
           TokenTable::credentialOf(kOps) + " GET /metadataDb/metrics POST /metadataDb/ping\n" +
           "peer " + TokenTable::credentialOf(kPeer) + " GET /metadataDb/v1/data\n" +
           // What instances that present their certificate may do.
           "metadata-storage - GET /metadataDb/v1/data\n";
}

std::string authorization(const std::string& token)
{
    return token.empty() ? "" : "Authorization: Bearer " + token + "\r\n";
}

std::optional<HttpResponse> call(std::uint16_t port, const std::string& method,
                                 const std::string& target, const std::string& token,
                                 const std::string& body = {})
{
    return exchangeRaw(
        port, method + " " + target + " HTTP/1.1\r\nHost: h\r\n" + authorization(token) +
                  (body.empty() ? "" : "Content-Type: application/json\r\n") + "Content-Length: " +
                  std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
}

int statusOf(const std::optional<HttpResponse>& response)
{
    return response ? response->status : 0;
}

std::vector<ZuUuid> idsOf(std::vector<ObjectTrackEx> tracks)
{
    std::vector<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.push_back(track.id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

class SecureServiceTest : public ::testing::Test
{
protected:
    SecureServiceTest() { std::ofstream(m_tokensFile) << tokensText(); }
    ~SecureServiceTest() override { std::remove(m_tokensFile.c_str()); }

    std::vector<std::string> tlsArgs() const
    {
        return {"--http/certificateFile=" + certificates.server.certificate,
                "--http/privateKeyFile=" + certificates.server.key};
    }

    static std::string httpsUrl(const RunningService& service)
    {
        return "https://127.0.0.1:" + std::to_string(service.port());
    }

    /** A client of the service at `url`, trusting the test CA, with the token if any. */
    std::unique_ptr<api::Client> client(const std::string& url, const std::string& token = {},
                                        const TestCertificates::Pair& certificate = {})
    {
        auto result = std::make_unique<api::Client>(kest::utils::Url(url));
        result->setTlsContext(std::make_shared<kest::network::ssl::ClientContext>(
            kest::network::ssl::ClientContext::Options{certificates.caFile, certificate.certificate,
                                                       certificate.key}));
        kest::network::http::client::Credentials credentials;
        credentials.bearerToken = token;
        result->setCredentials(credentials);
        return result;
    }

    DataRequestData search(bool internal)
    {
        DataRequestData request;
        request.internal_lookup = internal;
        request.filter.deviceIds = {m_device};
        return request;
    }

    TestCertificates certificates;
    ScriptedDistribution m_distribution;
    const std::string m_tokensFile =
        "/tmp/kest_service_tokens_" + std::to_string(::getpid()) + ".txt";
    const ZuUuid m_device = ZuUuid::createUuid();
    const std::int64_t m_t0 = 1'767'225'600'000;
};

TEST_F(SecureServiceTest, TheClientLibraryWorksWithATlsInstanceThatTrustsItsCertificates)
{
    auto args = tlsArgs();
    args.push_back("--http/clientCaFile=" + certificates.caFile);
    args.push_back("--http/tokensFile=" + m_tokensFile);
    args.push_back("--cluster/peerCaFile=" + certificates.caFile);
    RunningService service(kUnreachableMongo, args);
    ASSERT_TRUE(service.started());

    // 60 tracks make an answer large enough to travel gzip-compressed.
    std::vector<kest::common::metadata::ObjectMetadataPacket> packets;
    for (int i = 0; i < 60; ++i)
        packets.push_back(packet(m_device, m_t0 + i, ZuUuid::createUuid(), "person",
                                 {{"color", "red"}, {"note", std::string(40, 'n')}}));
    EXPECT_EQ(client(httpsUrl(service), kIngest)->saveDataSync(packets),
              std::make_tuple(StatusCode::ok));
    service.events().flush();

    auto [status, tracks] = client(httpsUrl(service), kReader)->getDataSync(search(true));
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(tracks.size(), 60u);

    // The certificate's name counts as a token's: "reader" may read, and nothing else.
    const auto reader = client(httpsUrl(service), {}, certificates.clientReader);
    EXPECT_EQ(std::get<0>(reader->getDataSync(search(true))), StatusCode::ok);
    EXPECT_EQ(reader->saveDataSync(packets), std::make_tuple(StatusCode::forbidden));
    EXPECT_EQ(std::get<0>(client(httpsUrl(service))->getDataSync(search(true))),
              StatusCode::unauthorized);
    // A large upload without credentials is refused on its head, and the answer still arrives
    // whole while the rest of the body is thrown away.
    std::vector<kest::common::metadata::ObjectMetadataPacket> many;
    for (int i = 0; i < 100; ++i)
        many.insert(many.end(), packets.begin(), packets.end());
    EXPECT_EQ(client(httpsUrl(service))->saveDataSync(many),
              std::make_tuple(StatusCode::unauthorized));

    // The instance asks itself over https, presenting its own certificate, named
    // "metadata-storage" in the tokens file.
    m_distribution.setAddresses({httpsUrl(service)});
    std::tie(status, tracks) = client(httpsUrl(service), kReader)->getDataSync(search(false));
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(tracks.size(), 60u);

    // A client that does not trust the test CA learns why it got no answer.
    api::Client untrusting{kest::utils::Url(httpsUrl(service))};
    std::mutex mutex;
    std::error_code error;
    untrusting.setExchangeObserver([&](const kest::network::http::ApiExchangeReport& report) {
        std::lock_guard lock(mutex);
        error = report.error;
    });
    EXPECT_EQ(std::get<0>(untrusting.getDataSync(search(true))), StatusCode::internalServerError);
    std::lock_guard lock(mutex);
    EXPECT_EQ(&error.category(), &kest::network::ssl::certificateCategory()) << error.message();
}

TEST_F(SecureServiceTest, ADistributedSearchAsksTlsInstancesWithThePeerTokenOfTheAskingOne)
{
    LogCapture logs;
    std::vector<std::unique_ptr<RunningService>> instances;
    for (const std::string& peerToken : {kPeer, kPeer, kStranger}) {
        auto args = tlsArgs();
        args.insert(args.end(),
                    {"--http/tokensFile=" + m_tokensFile, "--cluster/peerToken=" + peerToken,
                     "--cluster/peerCaFile=" + certificates.caFile, "--cluster/peerTimeoutMs=5000",
                     "--log/level=verbose"});
        instances.push_back(std::make_unique<RunningService>(kUnreachableMongo, args));
        ASSERT_TRUE(instances.back()->started());
    }
    std::vector<std::string> urls;
    std::vector<ZuUuid> tracks;
    for (auto& instance : instances) {
        urls.push_back(httpsUrl(*instance));
        tracks.push_back(ZuUuid::createUuid());
        ASSERT_EQ(client(urls.back(), kIngest)
                      ->saveDataSync({packet(m_device, m_t0, tracks.back(), "car")}),
                  std::make_tuple(StatusCode::ok));
        instance->events().flush();
    }
    m_distribution.setAddresses(urls);
    std::sort(tracks.begin(), tracks.end());

    const auto [status, found] = client(urls[0], kReader)->getDataSync(search(false));
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(found), tracks);

    // The third one's peer token is no one's: every instance it asks refuses it, itself too.
    const auto [strangerStatus, none] = client(urls[2], kReader)->getDataSync(search(false));
    EXPECT_EQ(strangerStatus, StatusCode::ok);
    EXPECT_TRUE(none.empty());
    // No token, and no Authorization header, in any line of any level.
    for (const auto& token : {kIngest, kReader, kPeer, kStranger})
        EXPECT_FALSE(logs.contains(token)) << token;
    EXPECT_FALSE(logs.contains("Bearer "));
    EXPECT_FALSE(logs.contains("Authorization"));
    EXPECT_GT(logs.count("errors occured during fetching data from other nodes"), 0);
}

TEST_F(SecureServiceTest, TokensGuardEveryRouteAndThePingStaysOpenUnlessAsked)
{
    LogCapture logs;
    RunningService service(kUnreachableMongo,
                           {"--http/tokensFile=" + m_tokensFile, "--log/level=verbose"});
    ASSERT_TRUE(service.started());
    const std::string data = "/metadataDb/v1/data?internal_lookup=1";
    const std::string errors = "/metadataDb/v1/dataSaveErrors/;";
    struct Case
    {
        std::string method;
        std::string target;
        std::string token;
        int status;
    };
    const Case cases[] = {
        {"POST", "/metadataDb/ping", "", 200},
        {"POST", "/metadataDb/ping", kStranger, 200},
        {"GET", data, "", 401},
        {"GET", data, kStranger, 401},
        {"GET", data, kReader, 200},
        {"GET", data, kIngest, 403},
        {"GET", errors, "", 401},
        {"GET", errors, kReader, 200},
        {"GET", "/metadataDb/v1/optimalInstance", kOps, 403},
        {"GET", "/metadataDb/metrics", "", 401},
        {"GET", "/metadataDb/metrics", kReader, 403},
        // Unknown paths are refused like known ones: a caller without credentials learns
        // nothing of the routes.
        {"GET", "/metadataDb/v1/nothing", "", 401},
        {"GET", "/metadataDb/v1/nothing", kReader, 404},
        {"DELETE", "/metadataDb/v1/data", kReader, 403},
    };
    for (const auto& [method, target, token, status] : cases)
        EXPECT_EQ(statusOf(call(service.port(), method, target, token)), status)
            << method << " " << target << " " << token;

    const auto refused = call(service.port(), "GET", data, "");
    ASSERT_TRUE(refused);
    EXPECT_NE(refused->head.find("\r\nWWW-Authenticate: Bearer"), std::string::npos);
    EXPECT_TRUE(refused->hasJsonContentType());
    EXPECT_NE(refused->body.find(R"("errorClass":"2")"), std::string::npos) << refused->body;

    const auto metrics = call(service.port(), "GET", "/metadataDb/metrics", kOps);
    ASSERT_EQ(statusOf(metrics), 200);
    EXPECT_NE(metrics->body.find(R"(metadatadb_http_refused_requests_total{status="401"} 6)"),
              std::string::npos)
        << metrics->body;
    EXPECT_NE(metrics->body.find(R"(metadatadb_http_refused_requests_total{status="403"} 4)"),
              std::string::npos);

    // Without credentials a body is refused as soon as its head is in: the service does not read
    // (nor hold) 50 MB of it first.
    KeepAliveConnection upload(service.port());
    ASSERT_TRUE(
        upload.sendRaw("POST /metadataDb/v1/data HTTP/1.1\r\nHost: h\r\n"
                       "Content-Type: application/json\r\nContent-Length: 50000000\r\n\r\n[" +
                       std::string(10'000, ' ')));
    const auto early = upload.receive();
    ASSERT_TRUE(early);
    EXPECT_EQ(early->status, 401);
    EXPECT_NE(early->head.find("Connection: close"), std::string::npos);

    RunningService strict(kUnreachableMongo,
                          {"--http/tokensFile=" + m_tokensFile, "--http/authenticatePing=true"});
    ASSERT_TRUE(strict.started());
    EXPECT_EQ(statusOf(call(strict.port(), "POST", "/metadataDb/ping", "")), 401);
    EXPECT_EQ(statusOf(call(strict.port(), "POST", "/metadataDb/ping", kReader)), 403);
    EXPECT_EQ(statusOf(call(strict.port(), "POST", "/metadataDb/ping", kOps)), 200);

    for (const auto& token : {kIngest, kReader, kOps, kStranger})
        EXPECT_FALSE(logs.contains(token)) << token;
    EXPECT_FALSE(logs.contains("Authorization"));
}

TEST_F(SecureServiceTest, TenThousandWrongTokensInARowAreAllRefusedAndTheServiceGoesOn)
{
    RunningService service(kUnreachableMongo, {"--http/tokensFile=" + m_tokensFile});
    ASSERT_TRUE(service.started());
    KeepAliveConnection connection(service.port());
    ASSERT_TRUE(connection.connected());

    // Sent 100 at a time on one connection, the way a guessing client would.
    constexpr int kAttempts = 10'000;
    constexpr int kBatch = 100;
    int refused = 0;
    for (int sent = 0; sent < kAttempts; sent += kBatch) {
        std::string batch;
        for (int i = sent; i < sent + kBatch; ++i) {
            batch += "GET /metadataDb/v1/data HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer guess-" +
                     std::to_string(i) + "\r\n\r\n";
        }
        ASSERT_TRUE(connection.sendRaw(batch));
        for (int i = 0; i < kBatch; ++i) {
            const auto answer = connection.receive();
            ASSERT_TRUE(answer);
            refused += answer->status == 401 ? 1 : 0;
        }
    }
    EXPECT_EQ(refused, kAttempts);
    EXPECT_EQ(statusOf(call(service.port(), "POST", "/metadataDb/ping", "")), 200);
    EXPECT_EQ(
        statusOf(call(service.port(), "GET", "/metadataDb/v1/data?internal_lookup=1", kReader)),
        200);
}

TEST_F(SecureServiceTest, SighupReadsTheTokensFileAgainAndABrokenFileKeepsTheTokensInUse)
{
    const std::uint16_t port = freeLoopbackPort();
    TemporaryDirectory dir;
    std::ofstream(m_tokensFile, std::ios::trunc)
        << "reader " << TokenTable::credentialOf(kReader) << " GET /metadataDb/v1/*\n";
    ServiceProcess process(
        KEST_METADATA_STORAGE_PATH,
        {"--http/listenOn=127.0.0.1:" + std::to_string(port), "--dataDir=" + dir.path(),
         "--MongoDb/uri=" + kUnreachableMongo, "--http/tokensFile=" + m_tokensFile});
    ASSERT_TRUE(process.waitForLine(std::regex("HTTP server is listening")));
    const std::string target = "/metadataDb/v1/dataSaveErrors/;";
    EXPECT_EQ(statusOf(call(port, "GET", target, kReader)), 200);
    EXPECT_EQ(statusOf(call(port, "GET", target, kOps)), 401);

    // Rotation: the reader gets a new token, the old one goes.
    std::ofstream(m_tokensFile, std::ios::trunc)
        << "reader " << TokenTable::credentialOf(kOps) << " GET /metadataDb/v1/*\n";
    process.signal(SIGHUP);
    ASSERT_TRUE(
        process.waitForLine(std::regex("Read 1 token\\(s\\) of 1 name\\(s\\) from .* again")));
    EXPECT_EQ(statusOf(call(port, "GET", target, kOps)), 200);
    EXPECT_EQ(statusOf(call(port, "GET", target, kReader)), 401);

    std::ofstream(m_tokensFile, std::ios::trunc) << "reader GET /metadataDb/v1/*\n";
    process.signal(SIGHUP);
    const auto refusal =
        process.waitForLine(std::regex("is not valid: line 1: .*the tokens read "
                                       "before stay in use"));
    ASSERT_TRUE(refusal);
    EXPECT_EQ(statusOf(call(port, "GET", target, kOps)), 200);

    process.signal(SIGTERM);
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << process.output();
    EXPECT_EQ(process.output().find(kOps), std::string::npos);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
