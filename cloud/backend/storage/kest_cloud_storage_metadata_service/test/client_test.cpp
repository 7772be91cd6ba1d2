// api::Client against the service running in-process. Its shared database is scripted: it names
// this very instance as the holder of any data, so a distributed search comes back to it over
// HTTP, and it lists fixed instance loads.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include <kest/cloud/storage/api/client.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/utils/assert.h>

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::ObjectTrackEx;
using kest::network::http::StatusCode;

/** The handler of an asynchronous call, and the future of what it was called with. */
template <typename... Results>
struct AsyncResult
{
    std::promise<std::tuple<Results...>> promise;

    auto handler()
    {
        return [this](Results... results) { promise.set_value({std::move(results)...}); };
    }
    std::tuple<Results...> get()
    {
        auto future = promise.get_future();
        EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
        return future.get();
    }
};

std::vector<ZuUuid> idsOf(const std::vector<ObjectTrackEx>& tracks)
{
    std::vector<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.push_back(track.id);
    return ids;
}

class ClientTest : public ::testing::Test
{
protected:
    std::unique_ptr<api::AbstractClient> makeClient(const std::string& url)
    {
        return api::ClientFactory::instance().create(kest::utils::Url(url));
    }

    ScriptedDistribution m_distribution;
    const ZuUuid m_device = ZuUuid::createUuid();
    const ZuUuid m_person = ZuUuid::createUuid();
    const ZuUuid m_car = ZuUuid::createUuid();
};

TEST_F(ClientTest, EveryOperationAsynchronouslyAndBlocking)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    m_distribution.setAddresses({service.url()});
    m_distribution.setLoads({{"http://h1:1", 0.1, 0.7}, {"http://h2:2", 0.9, 0.2}});
    const auto client = makeClient(service.url());
    ASSERT_TRUE(client);
    const std::int64_t t0 = 1'767'225'600'000;

    AsyncResult<StatusCode::Value> saved;
    client->saveData({packet(m_device, t0, m_person, "person")}, saved.handler());
    EXPECT_EQ(std::get<0>(saved.get()), StatusCode::ok);
    EXPECT_EQ(client->saveDataSync({packet(m_device, t0 + 1'000, m_car, "car", {{"make", "Kia"}})}),
              std::make_tuple(StatusCode::ok));
    service.events().flush();

    // The filter travels whole: order, limit and text are applied by the instance asked.
    DataRequestData request;
    request.internal_lookup = true;
    request.filter.deviceIds = {m_device};
    auto [status, tracks] = client->getDataSync(request);
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), (std::vector{m_car, m_person}));
    request.filter.sortOrder = kest::analytics::db::SortOrder::asc;
    request.filter.maxObjectTracksToSelect = 1;
    std::tie(status, tracks) = client->getDataSync(request);
    EXPECT_EQ(idsOf(tracks), (std::vector{m_person}));
    request.filter.maxObjectTracksToSelect = 0;
    request.filter.freeText = "kia";
    std::tie(status, tracks) = client->getDataSync(request);
    EXPECT_EQ(idsOf(tracks), (std::vector{m_car}));
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(tracks[0].attributes,
              (std::vector<kest::common::metadata::Attribute>{{"make", "Kia"}}));

    // Distributed: the scripted record names this instance, which is asked over HTTP.
    request.internal_lookup = false;
    request.filter.freeText.clear();
    AsyncResult<StatusCode::Value, std::vector<ObjectTrackEx>> found;
    client->getData(request, found.handler());
    std::tie(status, tracks) = found.get();
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), (std::vector{m_person, m_car}));

    OptimalInstanceRequest choice;
    choice.vmsId = ZuUuid::createUuid();
    choice.deviceIds = {m_device};
    EXPECT_EQ(client->getOptimalInstanceSync(choice),
              std::make_tuple(StatusCode::ok, std::string("http://h2:2")));
    AsyncResult<StatusCode::Value, std::string> chosen;
    client->getOptimalInstance(choice, chosen.handler());
    EXPECT_EQ(chosen.get(), std::make_tuple(StatusCode::ok, std::string("http://h2:2")));

    // Save errors: made by a database that refuses writes under the running storage.
    const ZuUuid failing = ZuUuid::createUuid();
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    EXPECT_EQ(client->saveDataSync({packet(failing, 5'000, m_car, "car")}),
              std::make_tuple(StatusCode::ok));
    service.events().flush();
    service.events().runOnWriter([](kest::sql::Database& db) { db.exec("PRAGMA query_only = 0"); });
    const DbErrorData expected{failing, {{5'000, 1}}};
    std::vector<DbErrorData> errors;
    waitFor([&] {
        std::tie(status, errors) = client->getErrorsSync({}, {failing, m_device});
        return !errors.empty();
    });
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(errors, std::vector{expected});
    // A small timestamp still reaches the service, which ignores values of two characters.
    ErrorsRequestData cut;
    cut.timestamp = 7ms;
    AsyncResult<StatusCode::Value, std::vector<DbErrorData>> reported;
    client->getErrors(cut, {failing}, reported.handler());
    EXPECT_EQ(reported.get(), std::make_tuple(StatusCode::ok, std::vector{expected}));
    cut.timestamp = 6'000ms;
    cut.clearData = true;
    EXPECT_EQ(client->getErrorsSync(cut, {failing}),
              std::make_tuple(StatusCode::ok, std::vector<DbErrorData>()));
    cut = {};
    EXPECT_EQ(client->getErrorsSync(cut, {failing}),
              std::make_tuple(StatusCode::ok, std::vector<DbErrorData>()));
}

TEST_F(ClientTest, ErrorPathsAndAnUnreachableService)
{
    const ZuUuid a("{11111111-1111-1111-1111-111111111111}");
    const ZuUuid b("{22222222-2222-2222-2222-222222222222}");
    EXPECT_EQ(api::Client::buildErrorPath({a, b, a}),
              "/metadataDb/v1/dataSaveErrors/11111111-1111-1111-1111-111111111111;"
              "22222222-2222-2222-2222-222222222222;11111111-1111-1111-1111-111111111111");
    EXPECT_EQ(api::Client::buildErrorPath({b}),
              "/metadataDb/v1/dataSaveErrors/22222222-2222-2222-2222-222222222222");
    const int failures = kest::utils::assertionFailureCount();
    EXPECT_EQ(api::Client::buildErrorPath({}), "/metadataDb/v1/dataSaveErrors/");
    EXPECT_EQ(kest::utils::assertionFailureCount(), failures + 1);

    const auto client = makeClient("http://127.0.0.1:1");
    EXPECT_EQ(client->getErrorsSync({}, {a}),
              std::make_tuple(StatusCode::internalServerError, std::vector<DbErrorData>()));
    AsyncResult<StatusCode::Value> saved;
    client->saveData({}, saved.handler());
    EXPECT_EQ(saved.get(), std::make_tuple(StatusCode::internalServerError));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
