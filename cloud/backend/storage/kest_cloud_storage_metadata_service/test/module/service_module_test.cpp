// The service as a loadable module: what the generic host sees of it, and the host itself.

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/utils/service_module.h>

namespace kest::cloud::storage::metadatadb::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOpenApi = ":/docs/api/v1/openapi.json";

std::string loadError(const std::string& path)
{
    try {
        kest::utils::ServiceModule module(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return {};
}

TEST(ServiceModuleTest, ApiDocumentsAreRegisteredWhileTheModuleIsLoaded)
{
    EXPECT_FALSE(QFile::exists(kOpenApi));
    {
        kest::utils::ServiceModule module(KEST_SERVICE_MODULE_PATH);
        QFile document(kOpenApi);
        ASSERT_TRUE(document.open(QIODevice::ReadOnly));
        const auto json = QJsonDocument::fromJson(document.readAll());
        EXPECT_EQ(json.object()["info"].toObject()["title"].toString(),
                  "Cloud metadata storage API");
    }
    EXPECT_FALSE(QFile::exists(kOpenApi));
}

TEST(ServiceModuleTest, LoadFailuresNameTheModuleAndTheReason)
{
    const std::string missing = "/no/such/libmodule.so";
    std::string error = loadError(missing);
    EXPECT_NE(error.find("Cannot load service module '" + missing + "'"), std::string::npos)
        << error;
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;

    error = loadError(KEST_NOT_A_MODULE_PATH);
    EXPECT_NE(error.find(std::string(KEST_NOT_A_MODULE_PATH) + "' is not a service module"),
              std::string::npos)
        << error;
    EXPECT_NE(error.find("kestCreateService"), std::string::npos) << error;
}

class ServiceHostTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "service_host_test.XXXXXX").string();
        m_dataDir = ::mkdtemp(pattern.data());
    }
    void TearDown() override { fs::remove_all(m_dataDir); }

    fs::path m_dataDir;
};

TEST_F(ServiceHostTest, RunsTheModuleUntilSigterm)
{
    ServiceProcess host(
        KEST_SERVICE_HOST_PATH,
        {KEST_SERVICE_MODULE_PATH, "--http/listenOn=127.0.0.1:0", "--dataDir=" + m_dataDir.string(),
         "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"});
    ASSERT_TRUE(host.started());
    const auto listening =
        host.waitForLine(std::regex(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})"));
    ASSERT_TRUE(listening) << host.output();
    const auto port = static_cast<std::uint16_t>(std::stoi((*listening)[1].str()));

    const auto ping = exchange(port, "POST", "/metadataDb/ping");
    ASSERT_TRUE(ping);
    EXPECT_EQ(200, ping->status);

    host.signal(SIGTERM);
    const int status = host.wait();
    ASSERT_TRUE(WIFEXITED(status)) << host.output();
    EXPECT_EQ(0, WEXITSTATUS(status)) << host.output();
}

TEST_F(ServiceHostTest, ModulesThatCannotRunGiveTheirMessageAndNonZeroExit)
{
    for (const std::string module : {"/no/such/libmodule.so", KEST_NOT_A_MODULE_PATH}) {
        ServiceProcess host(KEST_SERVICE_HOST_PATH, {module, "--http/listenOn=127.0.0.1:0"});
        ASSERT_TRUE(host.started());
        const int status = host.wait();
        ASSERT_TRUE(WIFEXITED(status)) << host.output();
        EXPECT_NE(0, WEXITSTATUS(status)) << host.output();
        EXPECT_NE(host.output().find(module), std::string::npos) << host.output();
    }

    ServiceProcess usage(KEST_SERVICE_HOST_PATH, {});
    ASSERT_TRUE(usage.started());
    const int status = usage.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
    EXPECT_NE(usage.output().find("Usage:"), std::string::npos) << usage.output();
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
