// The instance choice against the shared database's "HostsLoad", which it reads whole.

#include <gtest/gtest.h>

#include <rapidjson/document.h>
#include <thread>

#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/reflect/json.h>

#include "../log_capture.h"
#include "../mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;

class OptimalInstanceTest : public MongoTest
{
protected:
    mongo::Collection collection(const std::string& name)
    {
        m_client.emplace(m_storage->getClient());
        return m_client->collection("metadataStorage", name);
    }

    void SetUp() override
    {
        MongoTest::SetUp();
        if (!IsSkipped())
            m_storage.emplace(m_uri);
    }

    const ZuUuid m_device = ZuUuid::createUuid();
    std::optional<MongoDataDistributionStorage> m_storage;
    std::optional<mongo::PooledClient> m_client;
};

TEST_F(OptimalInstanceTest, OptimalInstanceIsTheFirstOfTheLeastLoadedHosts)
{
    auto hostsLoad = collection("HostsLoad");
    hostsLoad.deleteMany(mongo::Document());
    RunningService service(m_uri);
    ASSERT_TRUE(service.started());
    const std::string target = "/metadataDb/v1/optimalInstance?VmsId=" + toString(m_device);
    const auto chosenHost = [&]() -> std::string {
        const auto response = service.get(target);
        if (!response)
            return "no response";
        if (response->status != 200)
            return std::to_string(response->status) + response->body;
        EXPECT_TRUE(response->hasJsonContentType());
        // A bare JSON string: not a document the record reader takes, so parse it first.
        rapidjson::Document document;
        document.Parse(response->body.c_str());
        std::string host;
        EXPECT_TRUE(kest::reflect::json::deserializeValue(document, &host).success)
            << response->body;
        return host;
    };
    LogCapture log;

    EXPECT_EQ("500", chosenHost());
    EXPECT_TRUE(log.containsLine(
        "optimal instance request with params: vmsId: " + toString(m_device) + " failed"));

    m_storage->saveInstanceLoadSync({"http://h1:1", 0.1, 0.7});
    m_storage->saveInstanceLoadSync({"http://h2:2", 0.9, 0.2});
    m_storage->saveInstanceLoadSync({"http://h3:3", 0.1, 0.2});
    const std::string unchanged = "possible problems while saving load metrics to MongoDB";
    EXPECT_EQ(0, log.count(unchanged));
    EXPECT_EQ("http://h2:2", chosenHost());
    const auto response = service.get(target);
    ASSERT_TRUE(response);
    EXPECT_EQ("\"http://h2:2\"", response->body);

    // Figures equal to the stored ones modify nothing, which the save reports.
    m_storage->saveInstanceLoadSync({"http://h2:2", 0.9, 0.2});
    EXPECT_EQ(1, log.count(unchanged));
    m_storage->saveInstanceLoadSync({"http://h3:3", 0.1, 0.1});
    EXPECT_EQ(1, log.count(unchanged));
    EXPECT_EQ("http://h3:3", chosenHost());

    m_storage->saveInstanceLoad({"http://h4:4", 0.0, 0.05});
    std::string host;
    waitFor([&] { return (host = chosenHost()) == "http://h4:4"; });
    EXPECT_EQ("http://h4:4", host);

    // One record of the wrong shape spoils the whole choice.
    mongo::Document filter;
    filter.appendString("Host", "http://bad:1");
    mongo::Document fields;
    fields.appendString("LongLoadMetric", "low").appendDouble("ShortLoadMetric", 0);
    mongo::Document update;
    update.appendDocument("$set", fields);
    hostsLoad.updateOne(filter, update, /*upsert*/ true);
    EXPECT_EQ("500", chosenHost());
    EXPECT_TRUE(log.containsLine("instances load metrics lookup failed"));

    hostsLoad.deleteMany(mongo::Document());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
