// The service's routes over HTTP, against the service running in-process with the real analytics
// database and, where a test needs one, the MongoDB stand-in.

#include <gtest/gtest.h>

#include <time.h>
#include <unistd.h>

#include <QUrl>
#include <QUrlQuery>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/model/db_error_data.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/test_launcher.h>
#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/testing/keep_alive_connection.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/network/http/api/api_request_result.h>
#include <kest/reflect/json.h>
#include <kest/reflect/urlencoded.h>

#include "log_capture.h"
#include "mongo_test_fixture.h"
#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb {

void PrintTo(const DbErrorData& data, std::ostream* out)
{
    *out << toString(data);
}

namespace test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::EventsStorage;
using kest::analytics::db::ObjectTrackEx;
using kest::common::metadata::Attribute;
using kest::common::metadata::ObjectMetadata;
using kest::common::metadata::ObjectMetadataPacket;
using kest::network::http::ApiRequestResult;

std::vector<ZuUuid> trackIds(const std::optional<HttpResponse>& response)
{
    std::vector<ZuUuid> ids;
    if (!response || response->status != 200) {
        ADD_FAILURE() << "status " << (response ? response->status : 0)
                      << (response ? " " + response->body : std::string());
        return ids;
    }
    std::vector<ObjectTrackEx> tracks;
    const auto result = kest::reflect::json::deserialize(response->body, &tracks);
    EXPECT_TRUE(result.success) << result.errorDescription << ": " << response->body;
    for (const auto& track : tracks)
        ids.push_back(track.id);
    return ids;
}

std::string percentEncoded(const std::string& text)
{
    return QUrl::toPercentEncoding(QString::fromStdString(text)).toStdString();
}

ApiRequestResult errorOf(const std::optional<HttpResponse>& response)
{
    ApiRequestResult result;
    EXPECT_TRUE(response && result.fromJson(response->body))
        << (response ? response->body : "no response");
    return result;
}

class ApiTest : public ::testing::Test
{
protected:
    const ZuUuid m_device = ZuUuid::createUuid();
    const ZuUuid m_person = ZuUuid::createUuid();
    const ZuUuid m_car = ZuUuid::createUuid();
};

TEST_F(ApiTest, SavedPacketsAreFoundByInternalLookupsInEveryInputForm)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const std::int64_t t0 = 1'767'225'600'000;
    ASSERT_EQ(200, service.post({packet(m_device, t0, m_person, "person", {{"color", "red"}}),
                                 packet(m_device, t0 + 10'000, m_car, "car",
                                        {{"color", "blue"}, {"make", "Toyota"}})}));

    DataRequestData request;
    request.internal_lookup = true;
    request.filter.deviceIds = {m_device};
    EXPECT_EQ((std::vector{m_car, m_person}), trackIds(service.get(dataTarget(request))));

    auto sorted = request;
    sorted.filter.sortOrder = kest::analytics::db::SortOrder::asc;
    EXPECT_EQ((std::vector{m_person, m_car}), trackIds(service.get(dataTarget(sorted))));
    sorted.filter.maxObjectTracksToSelect = 1;
    EXPECT_EQ((std::vector{m_person}), trackIds(service.get(dataTarget(sorted))));

    auto byTime = request;
    byTime.filter.timePeriod = ZuTimePeriod(t0 + 5'000, 60'000);
    EXPECT_EQ((std::vector{m_car}), trackIds(service.get(dataTarget(byTime))));

    auto byText = request;
    byText.filter.freeText = "toyota";
    EXPECT_EQ((std::vector{m_car}), trackIds(service.get(dataTarget(byText))));
    byText.filter.freeText = "red";
    byText.filter.timePeriod = ZuTimePeriod(t0, 1'000);
    EXPECT_EQ((std::vector{m_person}), trackIds(service.get(dataTarget(byText))));

    // The same search as a JSON object, and as a form with the filter JSON-encoded in it.
    const std::string json = kest::reflect::json::serialize(byText);
    EXPECT_EQ(
        (std::vector{m_person}),
        trackIds(service.get("/metadataDb/v1/data?" + percentEncoded(json), "application/json")));
    EXPECT_EQ(
        (std::vector{m_person}),
        trackIds(service.get("/metadataDb/v1/data?" + kest::reflect::urlencoded::serialize(byText),
                             "application/x-www-form-urlencoded")));

    // Another device's search finds nothing, as an empty list.
    auto other = request;
    other.filter.deviceIds = {ZuUuid::createUuid()};
    const auto empty = service.get(dataTarget(other));
    ASSERT_TRUE(empty);
    EXPECT_EQ(200, empty->status);
    EXPECT_EQ("[]", empty->body);
    EXPECT_TRUE(empty->hasJsonContentType());
}

TEST_F(ApiTest, BadRequestsGetTheirStatusesAndTexts)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const auto post = [&](const std::string& body, const std::string& contentType) {
        return exchange(service.port(), "POST", "/metadataDb/v1/data", body, contentType);
    };
    const std::string packetsType =
        "Error deserializing input of type std::vector<kest::common::metadata::"
        "ObjectMetadataPacket>: ";

    struct Case
    {
        std::optional<HttpResponse> response;
        int status;
        std::string text;
    };
    const Case cases[] = {
        {post(R"({"deviceId":"x"})", "application/json"), 400, packetsType + "Array is expected"},
        {post(R"("packets")", "application/json"), 400,
         packetsType + "Either an object or an array is expected as a json object"},
        {post(R"([{"objectMetadataList":{}}])", "application/json"), 400,
         packetsType + "[0].objectMetadataList: Array is expected"},
        {post("[{", "application/json"), 400,
         packetsType + "Exception during json deserialization: "},
        {post("[]", ""), 406, "Input format unknown not supported"},
        {post("[]", "text/csv"), 406, "Input format text/csv not supported"},
        {service.get("/metadataDb/v1/data?internal_lookup=1&format=ubjson"), 406,
         "Output format ubjson not supported"},
        {service.get("/metadataDb/v1/data?internal_lookup=1", "text/plain"), 406,
         "Input format text/plain not supported"},
        {service.get("/metadataDb/v1/data?internal_lookup=1&deviceIds=camera-1"), 400,
         "Error deserializing input of type kest::cloud::storage::metadatadb::DataRequestData: "},
        {service.get("/metadataDb/v1/data?internal_lookup=1", "application/json"), 400,
         "Error deserializing input of type kest::cloud::storage::metadatadb::DataRequestData: "},
        {service.get("/metadataDb/v1/data?" + percentEncoded(R"({"filter":[]})"),
                     "application/json"),
         400, "filter: Object value expected"},
        {service.get("/metadataDb/v1/optimalInstance?vmsId=" + m_device.toSimpleStdString()), 400,
         "Error deserializing input of type kest::cloud::storage::metadatadb::"
         "OptimalInstanceRequest: "},
        {service.get("/metadataDb/v1/dataSaveErrors/;?timestamp=abc"), 400,
         "Invalid URL query: timestamp: 'abc' does not start with a number of milliseconds"},
        {service.get("/metadataDb/v1/dataSaveErrors/;?timestamp=99999999999999999999999"), 400,
         "Invalid URL query: timestamp: '99999999999999999999999' does not start with"},
    };
    for (const auto& [response, status, text] : cases) {
        ASSERT_TRUE(response) << text;
        EXPECT_EQ(status, response->status) << response->body;
        const auto error = errorOf(response);
        EXPECT_NE(std::string::npos, error.errorText().find(text)) << response->body;
        EXPECT_EQ(kest::network::http::ApiRequestErrorClass::badRequest, error.errorClass());
        EXPECT_EQ(status == 406 ? kest::network::http::ApiRequestErrorDetail::notAcceptable
                                : kest::network::http::ApiRequestErrorDetail::deserializationError,
                  error.errorDetail());
        EXPECT_TRUE(response->hasJsonContentType());
    }

    // Nothing of that disturbed the service.
    EXPECT_EQ(200, service.post({packet(m_device, 1'000'000, m_person, "person")}));
}

TEST_F(ApiTest, StorageNotReadyAnswers500WithoutTouchingIt)
{
    FakeStoragesGuard fakes(/*analyticsInitializes*/ false);
    TemporaryDirectory dir;
    Launcher launcher;
    const std::string dataDir = "--dataDir=" + dir.path();
    ASSERT_TRUE(launcher.startService({"--http/listenOn=127.0.0.1:0", dataDir.c_str()}));
    const auto port = launcher.moduleInstance()->httpEndpoints().front().port;
    LogCapture log;

    const auto save =
        exchange(port, "POST", "/metadataDb/v1/data",
                 kest::reflect::json::serialize(std::vector{packet(m_device, 1, m_person, "person"),
                                                            packet(m_device, 2, m_car, "car")}),
                 "application/json");
    ASSERT_TRUE(save);
    EXPECT_EQ(500, save->status);
    EXPECT_EQ("", save->body);
    EXPECT_TRUE(log.containsLine("procsessing save data request with deviceId: { " +
                                 toString(m_device) + " }"));

    const auto none = exchange(port, "POST", "/metadataDb/v1/data", "[]", "application/json");
    ASSERT_TRUE(none);
    EXPECT_EQ(500, none->status);
    EXPECT_TRUE(log.containsLine("procsessing save data request with deviceId: none"));

    const auto lookup = exchange(port, "GET", "/metadataDb/v1/data?internal_lookup=1");
    ASSERT_TRUE(lookup);
    EXPECT_EQ(500, lookup->status);
    EXPECT_EQ("", lookup->body);
    EXPECT_EQ(3, log.count("analytics db in bad state"));
}

// With analyticsDb/ackAfterCommit a save is answered once its packets are committed, however
// long the commit waits, and 500 when the commit fails.
TEST_F(ApiTest, SavesAreAnsweredOnceCommittedWhenAskedTo)
{
    RunningService service(kUnreachableMongo, {"--analyticsDb/ackAfterCommit=true",
                                               "--analyticsDb/maxCommitDelayMs=60000"});
    ASSERT_TRUE(service.started());
    auto& events = service.events();
    std::promise<void> blocked, release;
    auto released = release.get_future();
    events.runOnWriter([&](kest::sql::Database&) {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();

    auto answer = std::async(std::launch::async, [&] {
        return service.post(
            {packet(m_device, 1'000, m_person, "person"), packet(m_device, 2'000, m_car, "car")},
            /*commit*/ false);
    });
    waitFor([&] { return events.statistics().queuedPackets >= 2; });
    ASSERT_EQ(events.statistics().queuedPackets, 2u);
    // The writer is held: nothing is committed, so nothing is answered.
    EXPECT_EQ(answer.wait_for(0s), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(200, answer.get());
    EXPECT_EQ(events.statistics().packetsCommitted, 2u);

    events.runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    EXPECT_EQ(500, service.post({packet(m_device, 3'000, ZuUuid::createUuid(), "car")}, false));
    events.runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 0"); });
    EXPECT_EQ(200, service.post({packet(m_device, 4'000, ZuUuid::createUuid(), "car")}, false));
}

// Without MongoDB the distribution record cannot be read: a distributed search and the choice
// of an instance both fail, each with its own log line.
TEST_F(ApiTest, UnreachableDistributionRecordFailsSearchesAndInstanceChoice)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    LogCapture log;

    DataRequestData request;
    request.filter.deviceIds = {m_device};
    const auto search = service.get(dataTarget(request));
    ASSERT_TRUE(search);
    EXPECT_EQ(500, search->status);
    EXPECT_TRUE(log.contains("can't get remote instances addresses for requst with filter {"));
    EXPECT_TRUE(log.contains(toString(m_device)));

    const auto vms = ZuUuid::createUuid();
    const auto choice =
        service.get("/metadataDb/v1/optimalInstance?VmsId=" + vms.toSimpleStdString() +
                    "&deviceIds=" + m_device.toSimpleStdString());
    ASSERT_TRUE(choice);
    EXPECT_EQ(500, choice->status);
    EXPECT_EQ("", choice->body);
    EXPECT_TRUE(log.containsLine("optimal instance request with params: vmsId: " + toString(vms) +
                                 "deviceIds: " + toString(m_device) + " failed"));
}

/** Save errors caused by making the analytics database refuse writes under the running storage. */
void failSaves(RunningService& service, const std::vector<ObjectMetadataPacket>& packets)
{
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    EXPECT_EQ(200, service.post(packets));
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 0"); });
}

std::vector<DbErrorData> saveErrors(RunningService& service, const std::string& target)
{
    const auto response = service.get("/metadataDb/v1/dataSaveErrors/" + target);
    std::vector<DbErrorData> errors;
    if (!response || response->status != 200) {
        ADD_FAILURE() << target << ": " << (response ? response->body : "no response");
        return errors;
    }
    EXPECT_TRUE(kest::reflect::json::deserialize(response->body, &errors).success)
        << response->body;
    return errors;
}

/** Waits until the reports have reached the errors history (they travel on a thread). */
std::vector<DbErrorData> waitForSaveErrors(RunningService& service, std::size_t devices)
{
    std::vector<DbErrorData> errors;
    waitFor([&] { return (errors = saveErrors(service, ";")).size() >= devices; });
    return errors;
}

TEST_F(ApiTest, DatabaseFaultsShowUpAsSaveErrorsAndArePrunedOnRequest)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const ZuUuid other = ZuUuid::createUuid();
    failSaves(service, {packet(m_device, 1'000'000, m_person, "person"),
                        packet(m_device, 1'000'050, m_person, "person"),
                        packet(other, 3'000'000, m_car, "car")});

    // Each device's failed periods, the device whose failures ended first coming first.
    const DbErrorData device{m_device, {{1'000'000, 1}, {1'000'050, 1}}};
    const DbErrorData second{other, {{3'000'000, 1}}};
    ASSERT_EQ((std::vector{device, second}), waitForSaveErrors(service, 2));
    EXPECT_EQ((std::vector{second}), saveErrors(service, toString(other)));
    EXPECT_EQ((std::vector{device, second}),
              saveErrors(service, m_device.toSimpleStdString() + ";" + toString(other)));
    EXPECT_EQ((std::vector{device}), saveErrors(service, ";?count=1"));
    EXPECT_EQ((std::vector{device, second}), saveErrors(service, ";?count="));
    // A timestamp cuts the report but not the history; two characters are no timestamp.
    EXPECT_EQ((std::vector{DbErrorData{m_device, {{1'000'050, 1}}}, second}),
              saveErrors(service, ";?timestamp=1000010"));
    EXPECT_EQ((std::vector{device, second}), saveErrors(service, ";?timestamp=99"));
    // Neither a flag without a timestamp nor any word but "true" prunes.
    EXPECT_EQ((std::vector{device, second}), saveErrors(service, ";?clearData=true"));
    EXPECT_EQ((std::vector{second}), saveErrors(service, ";?clearData=TRUE&timestamp=2000000"));
    EXPECT_EQ((std::vector{device, second}), saveErrors(service, ";"));

    // Pruning forgets the device whose failures all ended before the timestamp.
    EXPECT_EQ((std::vector{second}), saveErrors(service, "?clearData=true&timestamp=2000000"));
    EXPECT_EQ((std::vector{second}), saveErrors(service, ";"));

    // The storage writes again once the fault is gone.
    EXPECT_EQ(200, service.post({packet(m_device, 4'000'000, m_car, "car")}));
    DataRequestData request;
    request.internal_lookup = true;
    request.filter.deviceIds = {m_device};
    EXPECT_EQ((std::vector{m_car}), trackIds(service.get(dataTarget(request))));
}

// A clear that names some devices while the history holds others never returns, and holds the
// history's lock meanwhile. The storage's writer must go on regardless: only the thread that
// delivers save errors may wait for that lock. The spinning request can never be ended, so the
// scenario runs in a child process that exits on its own.
void runWriterGoesOnWhileAClearSpins()
{
    const auto check = [](bool ok, const char* what) {
        if (!ok) {
            std::fprintf(stderr, "failed: %s\n", what);
            std::fflush(stderr);
            ::_exit(1);
        }
    };
    const auto within = [&](std::chrono::seconds limit, auto function, const char* what) {
        auto done = std::async(std::launch::async, std::move(function));
        check(done.wait_for(limit) == std::future_status::ready, what);
        return done.get();
    };

    LogCapture log;
    RunningService service(kUnreachableMongo, {"--http/ioThreads=4"});
    check(service.started(), "service start");
    const ZuUuid a = ZuUuid::createUuid();
    const ZuUuid b = ZuUuid::createUuid();
    failSaves(service, {packet(a, 1'000'000, ZuUuid::createUuid(), "person"),
                        packet(b, 2'000'000, ZuUuid::createUuid(), "person")});
    check(waitForSaveErrors(service, 2).size() == 2, "save errors of both devices");

    // Accepted one after another, the three connections are served by different I/O threads.
    KeepAliveConnection clear(service.port());
    KeepAliveConnection saves(service.port());
    KeepAliveConnection searches(service.port());
    check(clear.connected() && saves.connected() && searches.connected(), "connections");
    // Served once before the clear starts, so that each is accepted by then: the thread that
    // accepts may be the one the clear takes.
    for (KeepAliveConnection* connection : {&clear, &saves, &searches}) {
        const auto ping = connection->request("POST", "/metadataDb/ping");
        check(ping && ping->status == 200, "ping on each connection");
    }
    check(clear.send("GET", "/metadataDb/v1/dataSaveErrors/" + toString(a) +
                                "?clearData=true&timestamp=1500"),
          "clear request sent");
    const auto spinLine =
        "Processing get errors request with params: timestamp: 1500 clearData: "
        "true, deviceIds: { " +
        toString(a) + " }";
    check(waitFor([&] { return log.containsLine(spinLine); }), "clear request started");
    // The clear spins holding the lock, and nothing else runs meanwhile: once the process has
    // used a fifth of a second of CPU time since, the clear is surely spinning.
    const auto cpuTime = [] {
        timespec used{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    };
    const auto started = cpuTime();
    check(waitFor([&] { return cpuTime() - started >= 200ms; }), "clear spinning");

    // Another failure: its report now waits for the lock, and the writer does not.
    const ZuUuid c = ZuUuid::createUuid();
    const ZuUuid track = ZuUuid::createUuid();
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    const auto failed = within(
        30s,
        [&] {
            return saves.request("POST", "/metadataDb/v1/data",
                                 kest::reflect::json::serialize(std::vector{
                                     packet(c, 5'000'000, ZuUuid::createUuid(), "car")}),
                                 "application/json");
        },
        "save during the fault");
    check(failed && failed->status == 200, "save during the fault answered 200");
    within(
        30s, [&] { service.events().flush(); }, "failed batch finished");
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 0"); });

    const auto saved = within(
        30s,
        [&] {
            return saves.request(
                "POST", "/metadataDb/v1/data",
                kest::reflect::json::serialize(std::vector{packet(c, 6'000'000, track, "car")}),
                "application/json");
        },
        "save after the fault");
    check(saved && saved->status == 200, "save after the fault answered 200");
    within(
        30s, [&] { service.events().flush(); }, "writer committed while the clear spins");

    DataRequestData request;
    request.internal_lookup = true;
    request.filter.deviceIds = {c};
    const auto found = within(
        30s, [&] { return searches.request("GET", dataTarget(request)); }, "search");
    check(found && found->status == 200 && found->body.find(toString(track)) != std::string::npos,
          "the committed track is found");
    check(!clear.readable(), "the clear is still unanswered");
    std::fprintf(stderr, "writer kept committing\n");
    std::fflush(stderr);
    ::_exit(0);
}

TEST(ApiDeathTest, WriterGoesOnWhileAClearSpins)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWriterGoesOnWhileAClearSpins(), ::testing::ExitedWithCode(0),
                "writer kept committing");
}

class ApiMongoTest : public MongoTest
{
protected:
    void SetUp() override
    {
        MongoTest::SetUp();
        if (!IsSkipped())
            m_storage.emplace(m_uri);
    }

    const ZuUuid m_device = ZuUuid::createUuid();
    std::optional<MongoDataDistributionStorage> m_storage;
};

TEST_F(ApiMongoTest, DistributedSearchAsksEveryInstanceTheDistributionRecordNames)
{
    RunningService service(m_uri);
    ASSERT_TRUE(service.started());
    const std::int64_t t0 = 1'767'225'600'000;
    const ZuUuid track = ZuUuid::createUuid();
    ASSERT_EQ(200, service.post({packet(m_device, t0 + 1'000, track, "person")}));
    LogCapture log;

    // No instance has recorded data of the device: nobody to ask. A word as the flag reads as 0,
    // so this is a distributed search too, although the local storage holds the track.
    DataRequestData request;
    request.filter.deviceIds = {m_device};
    request.filter.timePeriod = ZuTimePeriod(t0, 3'600'000);
    for (const auto& target :
         {dataTarget(request),
          "/metadataDb/v1/data?internal_lookup=true&deviceIds=" + m_device.toSimpleStdString()}) {
        const auto response = service.get(target);
        ASSERT_TRUE(response);
        EXPECT_EQ(200, response->status) << target;
        EXPECT_EQ("[]", response->body) << target;
    }

    // An instance that cannot be reached counts as a failed reply, not as a failed search.
    const auto save = [&](const std::string& node) {
        m_storage->saveDataAddressSync({{toString(m_device), ZuTimePeriod(t0, 3'600'000)}}, node,
                                       [](std::vector<DataInfo>) {});
    };
    save("http://127.0.0.1:1");
    auto response = service.get(dataTarget(request));
    ASSERT_TRUE(response);
    EXPECT_EQ(200, response->status);
    EXPECT_EQ("[]", response->body);
    EXPECT_EQ(1, log.count("errors occured during fetching data from other nodes"));

    // This instance itself, recorded twice, is asked twice over HTTP, as any other.
    save(service.url());
    save(service.url());
    EXPECT_EQ((std::vector{track, track}), trackIds(service.get(dataTarget(request))));
    EXPECT_EQ(2, log.count("errors occured during fetching data from other nodes"));

    // A period that only touches the recorded spans selects none of them.
    request.filter.timePeriod = ZuTimePeriod(t0 + 3'600'000, 1'000);
    response = service.get(dataTarget(request));
    ASSERT_TRUE(response);
    EXPECT_EQ(200, response->status);
    EXPECT_EQ("[]", response->body);
}

}  // namespace
}  // namespace test
}  // namespace kest::cloud::storage::metadatadb
