// HTTPS between the project's own client and server, with certificates made at test time:
// trusted and untrusted peers, host names, client certificates, certificate checks, and the
// listen addresses that serve TLS.

#include <future>
#include <memory>

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/client/async_http_client.h>
#include <kest/network/http/server/builder.h>
#include <kest/network/ssl/tls_errors.h>
#include <kest/utils/zu_settings.h>

#include <kest/network/testing/test_certificates.h>
#include "http_test_peers.h"

namespace kest::network::http::client {
namespace {

using namespace std::chrono_literals;
using network::test::TestCertificates;
using test::TestServer;

struct Outcome
{
    std::error_code error;
    std::unique_ptr<Response> response;

    std::string body() const { return response ? response->body : "(" + error.message() + ")"; }
};

Outcome call(AsyncHttpClient& client, const std::string& url, std::string method = "GET")
{
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    client.doRequest(std::move(method), kest::utils::Url(url),
                     [promise](std::error_code error, std::unique_ptr<Response> response) {
                         promise->set_value({error, std::move(response)});
                     });
    if (future.wait_for(20s) != std::future_status::ready) {
        ADD_FAILURE() << "No completion for " << url;
        return {std::make_error_code(std::errc::timed_out), nullptr};
    }
    return future.get();
}

std::shared_ptr<ssl::ClientContext> context(const std::string& caFile,
                                            const TestCertificates::Pair& certificate = {})
{
    return std::make_shared<ssl::ClientContext>(
        ssl::ClientContext::Options{caFile, certificate.certificate, certificate.key});
}

class TlsTest : public ::testing::Test
{
protected:
    /** A TLS server with the certificate, asking for client certificates of the test CA. */
    void startServer(TestServer& server, const TestCertificates::Pair& certificate)
    {
        server.settings.certificateFile = certificate.certificate;
        server.settings.privateKeyFile = certificate.key;
        server.settings.clientCaFile = certificates.caFile;
        server.settings.tlsEndpoints = server.settings.endpoints;
        server.on("whoami", [](const RequestContext& context) {
            return RequestResult(StatusCode::ok,
                                 std::string(context.secure ? "secure " : "plain ") +
                                     context.clientCertificateName + " " + context.request.body,
                                 "text/plain");
        });
        server.start();
    }

    std::string url(const TestServer& server, const std::string& host = "127.0.0.1")
    {
        return "https://" + host + ":" + std::to_string(server.port()) + "/whoami";
    }

    TestCertificates certificates;
    TestServer server;
    aio::AioThread thread;
};

TEST_F(TlsTest, ExchangesGoOverTlsOnOneKeptConnectionAndTheServerKnowsTheClientCertificate)
{
    startServer(server, certificates.server);

    AsyncHttpClient reader(&thread);
    reader.setTlsContext(context(certificates.caFile, certificates.clientReader));
    EXPECT_EQ(call(reader, url(server)).body(), "secure reader ");
    // Larger than a TLS record, both ways.
    const std::string large(100'000, 'x');
    reader.setRequestBody(large, "text/plain");
    EXPECT_TRUE(call(reader, url(server), "POST").body() == "secure reader " + large);
    reader.setRequestBody({}, {});
    EXPECT_EQ(server.connectionCount(), 1u);

    AsyncHttpClient anonymous(&thread);
    anonymous.setTlsContext(context(certificates.caFile));
    EXPECT_EQ(call(anonymous, url(server, "localhost")).body(), "secure  ");

    // A certificate of a CA the server does not know fails the handshake, and nothing else.
    AsyncHttpClient stranger(&thread);
    stranger.setTlsContext(context(certificates.caFile, certificates.clientUntrusted));
    const auto refused = call(stranger, url(server));
    EXPECT_FALSE(refused.response);
    EXPECT_TRUE(ssl::isTlsError(refused.error)) << refused.error.message();
    EXPECT_EQ(call(reader, url(server)).body(), "secure reader ");
}

TEST_F(TlsTest, AServerThatIsNotTrustedIsRefusedWithTheReason)
{
    startServer(server, certificates.server);
    TestServer untrusted;
    startServer(untrusted, certificates.untrustedServer);
    TestServer ipOnly;
    startServer(ipOnly, certificates.serverOnlyByIp);

    struct Case
    {
        std::shared_ptr<ssl::ClientContext> context;
        std::string url;
        std::string reason;
    };
    const Case cases[] = {
        {ssl::ClientContext::systemDefault(), url(server), "unable to get local issuer"},
        {context(certificates.untrustedCaFile), url(server), "unable to get local issuer"},
        {context(certificates.caFile), url(untrusted), "unable to get local issuer"},
        {context(certificates.caFile), url(ipOnly, "localhost"), "hostname mismatch"},
    };
    for (const auto& [tlsContext, target, reason] : cases) {
        AsyncHttpClient client(&thread);
        client.setTlsContext(tlsContext);
        const auto outcome = call(client, target);
        EXPECT_FALSE(outcome.response) << target;
        EXPECT_EQ(&outcome.error.category(), &ssl::certificateCategory()) << target;
        EXPECT_NE(outcome.error.message().find(reason), std::string::npos)
            << target << ": " << outcome.error.message();
    }
    // What the name and the CA allow still goes through.
    AsyncHttpClient client(&thread);
    client.setTlsContext(context(certificates.caFile));
    EXPECT_EQ(call(client, url(ipOnly)).body(), "secure  ");
}

TEST_F(TlsTest, ACertificateCheckDecidesInsteadOfTheCaStoreAndAgainOnEveryReuse)
{
    startServer(server, certificates.server);
    std::vector<std::string> seenNames;
    std::string seenHost;
    const ssl::CertificateCheck accept = [&](std::span<const std::string> chain,
                                             std::string_view host) {
        // Leaf first: its subject is the server's.
        const auto* der = reinterpret_cast<const unsigned char*>(chain.front().data());
        X509* leaf = d2i_X509(nullptr, &der, static_cast<long>(chain.front().size()));
        char name[256] = {};
        X509_NAME_get_text_by_NID(X509_get_subject_name(leaf), NID_commonName, name, sizeof(name));
        X509_free(leaf);
        seenNames.emplace_back(name);
        seenHost = host;
        return true;
    };

    AsyncHttpClient accepting(&thread);
    accepting.setCertificateCheck(accept);  //< With the system's CAs, which do not know ours.
    EXPECT_EQ(call(accepting, url(server)).body(), "secure  ");
    EXPECT_EQ(seenNames, std::vector<std::string>{"metadata-storage"});
    EXPECT_EQ(seenHost, "127.0.0.1");

    // The kept connection goes to the next client with a check, whose check is asked anew.
    AsyncHttpClient refusing(&thread);
    refusing.setCertificateCheck([](auto, auto) { return false; });
    const auto refused = call(refusing, url(server));
    EXPECT_FALSE(refused.response);
    EXPECT_EQ(refused.error, ssl::certificateRejectedByCheck());
    EXPECT_EQ(call(refusing, url(server)).error, ssl::certificateRejectedByCheck());
    EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(TlsTest, AClientAndAListenerOfDifferentProtocolsFailAndTheListenerGoesOn)
{
    startServer(server, certificates.server);
    TestServer plain;
    plain.on("whoami", [](const RequestContext&) { return RequestResult(StatusCode::ok); });
    plain.start();

    AsyncHttpClient client(&thread);
    client.setTlsContext(context(certificates.caFile));
    const auto tlsToPlain = call(client, url(plain));
    EXPECT_FALSE(tlsToPlain.response);
    EXPECT_TRUE(ssl::isTlsError(tlsToPlain.error)) << tlsToPlain.error.message();

    const auto plainToTls =
        call(client, "http://127.0.0.1:" + std::to_string(server.port()) + "/whoami");
    EXPECT_FALSE(plainToTls.response && plainToTls.response->statusCode == StatusCode::ok);
    EXPECT_EQ(call(client, url(server)).body(), "secure  ");
}

TEST(TlsSettingsTest, AddressesServeTlsByTheirSchemeOrByTheCertificateBeingSet)
{
    const auto load = [](std::map<QString, QString> values) {
        ZuSettings stored;
        for (const auto& [key, value] : values)
            stored.setValue(key, value);
        server::Settings settings;
        settings.load(stored);
        return settings;
    };
    using Addresses = std::vector<SocketAddress>;
    const SocketAddress a{"127.0.0.1", 1}, b{"127.0.0.1", 2};

    auto settings = load({{"http/listenOn", "127.0.0.1:1, https://127.0.0.1:2"},
                          {"http/certificateFile", "c.pem"},
                          {"http/privateKeyFile", "k.pem"}});
    EXPECT_EQ(settings.endpoints, (Addresses{a, b}));
    EXPECT_EQ(settings.tlsEndpoints, (Addresses{a, b}));
    settings = load({{"http/listenOn", "http://127.0.0.1:1,127.0.0.1:2"},
                     {"http/certificateFile", "c.pem"},
                     {"http/privateKeyFile", "k.pem"}});
    EXPECT_EQ(settings.tlsEndpoints, (Addresses{b}));
    settings = load({{"http/listenOn", "127.0.0.1:1"}});
    EXPECT_TRUE(settings.tlsEndpoints.empty());

    const std::pair<std::map<QString, QString>, std::string> refused[] = {
        {{{"http/listenOn", "https://127.0.0.1:2"}}, "needs http/certificateFile"},
        {{{"http/certificateFile", "c.pem"}}, "needs both"},
        {{{"http/clientCaFile", "ca.pem"}}, "http/certificateFile and http/privateKeyFile"},
    };
    for (const auto& [values, text] : refused) {
        try {
            load(values);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
    }
}

TEST(TlsSettingsTest, AServerWithACertificateItCannotUseIsNotBuilt)
{
    TestCertificates certificates;
    server::rest::MessageDispatcher dispatcher;
    const auto build = [&](std::string certificate, std::string key, std::string clientCa = {}) {
        server::Settings settings;
        settings.endpoints = settings.tlsEndpoints = {SocketAddress{"127.0.0.1", 0}};
        settings.certificateFile = std::move(certificate);
        settings.privateKeyFile = std::move(key);
        settings.clientCaFile = std::move(clientCa);
        try {
            server::Builder::buildOrThrow(settings, nullptr, &dispatcher);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("built");
    };
    EXPECT_EQ(build(certificates.server.certificate, certificates.server.key), "built");
    const std::string missing = certificates.dir() + "/missing.pem";
    EXPECT_EQ(build(missing, certificates.server.key),
              "Cannot use the certificate file " + missing + ": No such file or directory");
    EXPECT_NE(build(certificates.server.certificate, certificates.clientReader.key)
                  .find("Cannot use the private key file " + certificates.clientReader.key),
              std::string::npos);
    EXPECT_NE(build(certificates.server.key, certificates.server.key).find("certificate file"),
              std::string::npos);
    EXPECT_NE(build(certificates.server.certificate, certificates.server.key, missing)
                  .find("client CA file"),
              std::string::npos);
}

}  // namespace
}  // namespace kest::network::http::client
