// What the data-address recorder asks of MongoDB, against the stand-in: appends that report their
// outcome, the read of an instance's own spans, and the replacement of spans by value.

#include <gtest/gtest.h>

#include <future>

#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>

#include "log_capture.h"
#include "mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace std::chrono_literals;
using AppendResult = AbstractDataDistributionStorage::AppendResult;

template <typename Result>
Result answer(std::promise<Result>& promise)
{
    auto future = promise.get_future();
    if (future.wait_for(20s) != std::future_status::ready) {
        ADD_FAILURE() << "no answer from the storage";
        return {};
    }
    return future.get();
}

struct StoredSpan
{
    std::int64_t fromMs = 0;
    std::int64_t tillMs = 0;
    std::string node;

    friend bool operator==(const StoredSpan&, const StoredSpan&) = default;
};

class MongoSpanWritesTest : public MongoTest
{
protected:
    void SetUp() override
    {
        MongoTest::SetUp();
        if (IsSkipped())
            return;
        m_storage.emplace(m_uri);
    }

    AppendResult append(const std::vector<DataInfo>& data, const std::string& node)
    {
        std::promise<AppendResult> promise;
        m_storage->appendDataAddresses(data, node,
                                       [&](AppendResult result) { promise.set_value(result); });
        return answer(promise);
    }

    std::pair<bool, std::vector<DataInfo>> read(const std::string& node,
                                                const std::vector<std::string>& devices = {})
    {
        std::promise<std::pair<bool, std::vector<DataInfo>>> promise;
        m_storage->getDataAddresses(node, devices, [&](bool ok, std::vector<DataInfo> spans) {
            promise.set_value({ok, std::move(spans)});
        });
        return answer(promise);
    }

    bool replace(const std::string& device, const std::string& node,
                 const std::vector<ZuTimePeriod>& add, const std::vector<ZuTimePeriod>& remove)
    {
        std::promise<bool> promise;
        m_storage->replaceDataAddresses(device, node, add, remove,
                                        [&](bool ok) { promise.set_value(ok); });
        return answer(promise);
    }

    std::vector<StoredSpan> document(const std::string& device)
    {
        const auto client = m_storage->getClient();
        mongo::Document filter;
        filter.appendString("DeviceId", device);
        auto cursor = client.collection("metadataStorage", "dataDistribution").find(filter);
        std::vector<StoredSpan> spans;
        while (const auto found = cursor.next()) {
            for (const auto& span : found->getDocumentArray("StorageInfo")) {
                spans.push_back({span.getDateTimeMs("TimeFrom"), span.getDateTimeMs("TimesTill"),
                                 span.getString("Node")});
            }
        }
        return spans;
    }

    std::uint64_t failures(const std::string& operation) const
    {
        for (const auto& [name, count] : m_storage->operationFailures()) {
            if (name == operation)
                return count;
        }
        return 0;
    }

    std::optional<MongoDataDistributionStorage> m_storage;
};

// The read returns this node's spans of every device, and only them, as stored.
TEST_F(MongoSpanWritesTest, AppendedSpansOfANodeReadBack)
{
    const std::string first = uniqueName("dev"), second = uniqueName("dev");
    const std::string node = uniqueName("http://node"), other = uniqueName("http://other");
    const std::vector<DataInfo> spans{{first, ZuTimePeriod(1'000, 10)},
                                      {second, ZuTimePeriod(2'000, 20)},
                                      {first, ZuTimePeriod(3'000, 30)}};
    EXPECT_TRUE(append(spans, node).failed.empty());
    EXPECT_TRUE(append({{first, ZuTimePeriod(1'000, 10)}}, other).failed.empty());

    auto [ok, read] = this->read(node);
    ASSERT_TRUE(ok);
    std::ranges::stable_sort(read, {}, &DataInfo::deviceId);
    auto expected = spans;
    std::ranges::stable_sort(expected, {}, &DataInfo::deviceId);
    EXPECT_EQ(read, expected);
    EXPECT_EQ(this->read(uniqueName("http://nobody")),
              std::make_pair(true, std::vector<DataInfo>()));

    // Named devices are read by their ids, and still only this node's spans of them.
    auto [namedOk, named] = this->read(node, {second, uniqueName("dev")});
    ASSERT_TRUE(namedOk);
    EXPECT_EQ(named, std::vector<DataInfo>{spans[1]});
}

// The new span is stored before the old ones go; they go by value, every copy, and only this
// node's; another node's equal span stays.
TEST_F(MongoSpanWritesTest, ReplacementAppendsThenRemovesEveryCopyOfThisNodesSpans)
{
    const std::string device = uniqueName("dev");
    const std::string node = uniqueName("http://node"), other = uniqueName("http://other");
    const ZuTimePeriod a(1'000, 100), b(5'000, 100),
        merged = ZuTimePeriod::fromInterval(1'000, 5'100);
    ASSERT_TRUE(append({{device, a}, {device, a}, {device, b}}, node).failed.empty());
    ASSERT_TRUE(append({{device, a}}, other).failed.empty());

    EXPECT_TRUE(replace(device, node, {merged}, {a, b}));
    EXPECT_EQ(document(device),
              (std::vector<StoredSpan>{{1'000, 1'100, other}, {1'000, 5'100, node}}));

    // Removal alone, and of what is gone already.
    EXPECT_TRUE(replace(device, node, {}, {merged, b}));
    EXPECT_EQ(document(device), (std::vector<StoredSpan>{{1'000, 1'100, other}}));

    // Nothing is created for a device without a document, and nothing removed.
    const std::string unknown = uniqueName("dev");
    EXPECT_FALSE(replace(unknown, node, {merged}, {a}));
    EXPECT_TRUE(document(unknown).empty());
}

// A span whose document the server refuses fails with the spans after it; the failure is counted
// and logged with the spans, and the write says that the server refused it.
TEST_F(MongoSpanWritesTest, ARefusedDocumentFailsItsSpanAndThoseAfterIt)
{
    const std::string broken = uniqueName("dev"), after = uniqueName("dev");
    const std::string node = uniqueName("http://node");
    {
        const auto client = m_storage->getClient();
        mongo::Document filter;
        filter.appendString("DeviceId", broken);
        mongo::Document fields;
        fields.appendString("StorageInfo", "not a list");
        mongo::Document update;
        update.appendDocument("$set", fields);
        client.collection("metadataStorage", "dataDistribution").updateOne(filter, update, true);
    }
    test::LogCapture log;
    const std::uint64_t before = failures("data_address_save");
    const auto result =
        append({{broken, ZuTimePeriod(1'000, 10)}, {after, ZuTimePeriod(1'000, 10)}}, node);
    EXPECT_TRUE(result.firstRefused);
    ASSERT_FALSE(result.failed.empty());
    EXPECT_EQ(result.failed.front().deviceId, broken);
    EXPECT_EQ(failures("data_address_save"), before + 1);
    EXPECT_TRUE(log.contains("exception while saving data( { deviceId: " + broken));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
