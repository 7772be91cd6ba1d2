#include <gtest/gtest.h>

#include <thread>

#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <regex>
#include <set>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/test_launcher.h>
#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/utils/log/logger.h>

#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string mongoUri()
{
    const char* uri = std::getenv("KEST_TEST_MONGODB_URI");
    // The data-distribution storage connects lazily: a start does not need a server.
    return uri && *uri ? uri : "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100";
}

class ServiceTest : public ::testing::Test
{
protected:
    std::vector<std::string> serviceArgs(const std::string& listenOn = "127.0.0.1:0") const
    {
        return {"--http/listenOn=" + listenOn, "--dataDir=" + m_dataDir.path(),
                "--MongoDb/uri=" + mongoUri()};
    }

    static bool start(Launcher* launcher, const std::vector<std::string>& args)
    {
        std::vector<const char*> argv;
        for (const auto& arg : args)
            argv.push_back(arg.c_str());
        return launcher->startService(argv, /*waitUntilStarted*/ true);
    }

    TemporaryDirectory m_dataDir;
};

TEST_F(ServiceTest, StartsOnAnEphemeralPortAndStops)
{
    FakeStoragesGuard fakes;
    Launcher launcher;
    ASSERT_TRUE(start(&launcher, serviceArgs()));

    const auto endpoints = launcher.moduleInstance()->httpEndpoints();
    ASSERT_EQ(1u, endpoints.size());
    EXPECT_NE(0, endpoints[0].port);
    const auto ping = exchange(endpoints[0].port, "POST", "/metadataDb/ping");
    ASSERT_TRUE(ping);
    EXPECT_EQ(200, ping->status);

    launcher.stop();
    EXPECT_EQ(0, launcher.exitCode());
    EXPECT_EQ("dds destroyed", fakes.log.events().back());
}

TEST_F(ServiceTest, StartWithoutEndpointFailsAndReleasesTheStorages)
{
    FakeStoragesGuard fakes;
    std::atomic<bool> logged{false};
    auto& logger = kest::utils::log::Logger::instance();
    const int observer = logger.addObserver([&](auto, const std::string&, const std::string& text) {
        if (text == "No HTTP address to listen")
            logged = true;
    });

    Launcher launcher;
    EXPECT_FALSE(start(&launcher, serviceArgs(/*listenOn*/ "")));
    launcher.stop();
    logger.removeObserver(observer);

    EXPECT_TRUE(logged);
    EXPECT_NE(0, launcher.exitCode().value_or(0));
    EXPECT_EQ((std::vector<std::string>{"dds created", "analytics created", "analytics initialized",
                                        "analytics destroyed", "dds destroyed"}),
              fakes.log.events());
}

kest::common::metadata::ObjectMetadataPacket makePacket(const ZuUuid& deviceId,
                                                        std::int64_t timestampUs,
                                                        const ZuUuid& trackId)
{
    kest::common::metadata::ObjectMetadataPacket packet;
    packet.deviceId = deviceId;
    packet.timestampUs = timestampUs;
    packet.durationUs = 1000;
    packet.streamIndex = kest::common::metadata::StreamIndex::primary;
    kest::common::metadata::ObjectMetadata object;
    object.trackId = trackId;
    object.typeId = "person";
    object.objectMetadataType = kest::common::metadata::ObjectMetadataType::regular;
    object.boundingBox = {0.1, 0.1, 0.2, 0.2};
    packet.objectMetadataList.push_back(object);
    return packet;
}

std::set<ZuUuid> lookupTracks(const std::string& databasePath, const ZuUuid& deviceId)
{
    kest::analytics::db::Settings settings;
    settings.path = QString::fromStdString(databasePath);
    kest::analytics::db::EventsStorage storage;
    EXPECT_TRUE(storage.initialize(settings));
    kest::analytics::db::Filter filter;
    filter.deviceIds = {deviceId};
    std::promise<std::vector<kest::analytics::db::ObjectTrackEx>> promise;
    storage.lookup(filter, [&](auto code, std::vector<kest::analytics::db::ObjectTrackEx> tracks) {
        EXPECT_EQ(kest::analytics::db::ResultCode::ok, code);
        promise.set_value(std::move(tracks));
    });
    std::set<ZuUuid> ids;
    for (const auto& track : promise.get_future().get())
        ids.insert(track.id);
    return ids;
}

// Whatever the analytics storage accepted before a stop is on disk after it: the service
// tears its storage down, which writes out the queue, before it returns.
TEST_F(ServiceTest, StopLosesNothingTheAnalyticsStorageAccepted)
{
    std::atomic<kest::analytics::db::AbstractEventsStorage*> storage{nullptr};
    // The fakes capture this frame: put the real creation functions back however the test ends.
    struct FactoryRestorer
    {
        DdProviderFactory::CreateFunction analytics;
        DataDistribStorageFactory::CreateFunction dds;
        ~FactoryRestorer()
        {
            if (analytics)
                DdProviderFactory::instance().setCreateFunction(std::move(analytics));
            if (dds)
                DataDistribStorageFactory::instance().setCreateFunction(std::move(dds));
        }
    } restorer;
    restorer.analytics = DdProviderFactory::instance().setCreateFunction(
        [&]() -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
            auto created = std::make_unique<kest::analytics::db::EventsStorage>();
            storage = created.get();
            return created;
        });
    EventLog ddsLog;
    restorer.dds = DataDistribStorageFactory::instance().setCreateFunction(
        [&](const conf::MongoConnectionSettings&)
            -> std::unique_ptr<AbstractDataDistributionStorage> {
            return std::make_unique<FakeDataDistributionStorage>(&ddsLog);
        });

    const ZuUuid device = ZuUuid::createUuid();
    std::set<ZuUuid> saved;
    {
        Launcher launcher;
        ASSERT_TRUE(start(&launcher, serviceArgs()));
        ASSERT_TRUE(storage.load()->isReady());
        const std::int64_t nowUs = std::chrono::duration_cast<std::chrono::microseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count();
        for (int i = 0; i < 2000; ++i) {
            const ZuUuid track = ZuUuid::createUuid();
            saved.insert(track);
            storage.load()->save(std::make_shared<kest::common::metadata::ObjectMetadataPacket>(
                makePacket(device, nowUs + i * 1000, track)));
        }
        launcher.stop();
    }

    EXPECT_EQ(saved, lookupTracks(m_dataDir.path() + "/analytics_db", device));
}

/** The path of the service executable: beside this test binary unless the environment says. */
std::string serviceExecutable()
{
    if (const char* path = std::getenv("KEST_METADATA_STORAGE_EXE"))
        return path;
    return (fs::read_symlink("/proc/self/exe").parent_path() / "metadata_storage").string();
}

class ServiceExecutableTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        if (!fs::exists(serviceExecutable()))
            GTEST_SKIP() << "No service executable at " << serviceExecutable();
    }
};

TEST_F(ServiceExecutableTest, ServesUntilSigtermThenExitsCleanly)
{
    ServiceProcess service(serviceExecutable(), serviceArgs());
    ASSERT_TRUE(service.started());
    const auto listening =
        service.waitForLine(std::regex(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})"));
    ASSERT_TRUE(listening) << service.output();
    const auto port = static_cast<std::uint16_t>(std::stoi((*listening)[1].str()));

    const auto ping = exchange(port, "POST", "/metadataDb/ping");
    ASSERT_TRUE(ping);
    EXPECT_EQ(200, ping->status);

    service.signal(SIGTERM);
    const int status = service.wait();
    ASSERT_TRUE(WIFEXITED(status)) << service.output();
    EXPECT_EQ(0, WEXITSTATUS(status)) << service.output();
}

TEST_F(ServiceExecutableTest, FailedStartExitsNonZeroWithTheReason)
{
    ServiceProcess service(serviceExecutable(), serviceArgs(/*listenOn*/ ""));
    ASSERT_TRUE(service.started());
    const int status = service.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_NE(0, WEXITSTATUS(status));
    EXPECT_NE(std::string::npos, service.output().find("No HTTP address to listen"))
        << service.output();
}

TEST_F(ServiceExecutableTest, HelpIsPrinted)
{
    ServiceProcess service(serviceExecutable(), {"-h"});
    ASSERT_TRUE(service.started());
    const int status = service.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_NE(std::string::npos, service.output().find("--configFile")) << service.output();
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
