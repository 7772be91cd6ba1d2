#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <kest/cloud/storage/model/errors_storage_model.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/settings.h>
#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/view/view.h>

#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

std::unique_ptr<conf::Settings> loadSettings(std::vector<std::string> args)
{
    args.insert(args.begin(), "metadata_storage");
    std::vector<const char*> argv;
    for (const auto& arg : args)
        argv.push_back(arg.c_str());
    auto settings = std::make_unique<conf::Settings>();
    settings->load(static_cast<int>(argv.size()), argv.data());
    return settings;
}

class ViewTest : public ::testing::Test
{
protected:
    void start(std::vector<std::string> args = {"--http/listenOn=127.0.0.1:0"})
    {
        m_settings = loadSettings(std::move(args));
        m_model = std::make_unique<Model>(*m_settings);
        m_view = std::make_unique<View>(*m_settings, *m_model);
        m_view->start();
        ASSERT_EQ(1u, m_view->httpEndpoints().size());
        m_port = m_view->httpEndpoints().front().port;
    }

    std::string runtimeErrorOfConstruction(std::vector<std::string> args)
    {
        m_settings = loadSettings(std::move(args));
        m_model = std::make_unique<Model>(*m_settings);
        try {
            View view(*m_settings, *m_model);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "no exception";
    }

    FakeStoragesGuard m_fakes;
    std::unique_ptr<conf::Settings> m_settings;
    std::unique_ptr<Model> m_model;
    std::unique_ptr<View> m_view;
    std::uint16_t m_port = 0;
};

TEST_F(ViewTest, ListensOnTheRealPortAndAnswersPingOnPostOnly)
{
    start();
    EXPECT_NE(0, m_port);

    auto response = exchange(m_port, "POST", View::kPingPath);
    ASSERT_TRUE(response);
    EXPECT_EQ(200, response->status);
    EXPECT_TRUE(response->body.empty());

    response = exchange(m_port, "POST", View::kPingPath, "any body", "text/plain");
    ASSERT_TRUE(response);
    EXPECT_EQ(200, response->status);

    response = exchange(m_port, "GET", View::kPingPath);
    ASSERT_TRUE(response);
    EXPECT_EQ(404, response->status);
}

TEST_F(ViewTest, PingRoutesOnThePathAsSentAndFramingIsChecked)
{
    start();
    const std::string port = std::to_string(m_port);
    const auto status = [this](const std::string& raw) {
        const auto response = exchangeRaw(m_port, raw);
        return response ? response->status : 0;
    };
    // An encoded "/" is no path separator: this is no ping.
    EXPECT_EQ(404,
              status("POST /metadataDb%2fping HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"));
    EXPECT_EQ(200, status("POST http://127.0.0.1:" + port +
                          "/metadataDb/ping HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"));

    // The bytes after a request with doubtful framing are never taken for another request.
    const auto smuggled = exchangeRaw(
        m_port,
        "POST /metadataDb/ping HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked, identity\r\n"
        "\r\n0\r\n\r\nPOST /metadataDb/ping HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(smuggled);
    EXPECT_EQ(400, smuggled->status);
    EXPECT_EQ(std::string::npos, smuggled->body.find("HTTP/1.1 200"));
}

TEST_F(ViewTest, OversizedRequestIsRefusedAndTheServerKeepsServing)
{
    start({"--http/listenOn=127.0.0.1:0", "--http/maxBodyBytes=1024"});

    const auto response =
        exchange(m_port, "POST", View::kPingPath, std::string(64 * 1024, 'x'), "text/plain");
    ASSERT_TRUE(response);
    EXPECT_GE(response->status, 400);
    EXPECT_LT(response->status, 500);

    const auto ping = exchange(m_port, "POST", View::kPingPath);
    ASSERT_TRUE(ping);
    EXPECT_EQ(200, ping->status);
}

TEST_F(ViewTest, SaveErrorReportsReachTheErrorsModel)
{
    start();
    ASSERT_TRUE(m_fakes.lastEventsStorage->hasSaveErrorHandler());
    const ZuUuid device = ZuUuid::createUuid();
    m_fakes.lastEventsStorage->reportSaveError(kest::sql::DBResult::full,
                                               {{device, {{1000, 500}}}});

    const auto errors = m_model->getErrorStorageModel()->getErrors({device}, {}, 10);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ((ZuTimePeriodList{{1000, 500}}), errors[0].timePeriod);
}

TEST_F(ViewTest, NoEndpointIsAConstructionFailure)
{
    EXPECT_EQ("No HTTP address to listen", runtimeErrorOfConstruction({"--http/listenOn="}));
}

TEST_F(ViewTest, TakenPortIsABindFailureNamingTheAddress)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, ::listen(fd, 1));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string endpoint = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    const std::string error = runtimeErrorOfConstruction({"--http/listenOn=" + endpoint});
    ::close(fd);
    EXPECT_TRUE(error.starts_with("Cannot bind to address(es) { " + endpoint + " }. ")) << error;
    EXPECT_GT(error.size(), ("Cannot bind to address(es) { " + endpoint + " }. ").size());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
