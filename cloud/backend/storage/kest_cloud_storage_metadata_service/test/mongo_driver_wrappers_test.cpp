#include <atomic>
#include <future>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <kest/cloud/storage/model/mongo/client_pool.h>
#include <kest/cloud/storage/model/mongo/error.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>

#include <kest/utils/log/logger.h>

#include "mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace mongo;
using Storage = MongoDataDistributionStorage;

TEST(MongoDocumentTest, TypedReadersRefuseOtherTypes)
{
    Document element;
    element.appendDateTime("when", 1234).appendString("name", "n").appendBool("ok", true);
    Document doc;
    doc.appendString("s", "text")
        .appendDouble("d", 1.5)
        .appendInt64("i", 7)
        .appendDocumentArray("arr", {element, element})
        .appendStringArray("ids", {"a", "b"});

    const DocumentView view = doc.view();
    EXPECT_EQ(view.getString("s"), "text");
    EXPECT_EQ(view.getDouble("d"), 1.5);
    EXPECT_EQ(view.getNumber("i"), 7);
    const auto array = view.getDocumentArray("arr");
    ASSERT_EQ(array.size(), 2u);
    EXPECT_EQ(array[1].getDateTimeMs("when"), 1234);
    EXPECT_EQ(array[1].getBool("ok"), true);

    EXPECT_THROW(view.getDouble("i"), Error);  // an integer is not a double
    EXPECT_THROW(view.getString("d"), Error);
    EXPECT_THROW(view.getString("missing"), Error);
    EXPECT_THROW(view.getDocumentArray("ids"), Error);  // strings, not documents
    EXPECT_THROW(array[0].getDateTimeMs("name"), Error);

    Document copy = doc;
    Document moved = std::move(doc);
    EXPECT_EQ(copy.toJson(), moved.toJson());
    EXPECT_EQ(doc.toJson(), "{ }");
}

class MongoWrappersTest : public MongoTest
{};

TEST_F(MongoWrappersTest, DriverLinesGoToTheLogAndEndingSessionsIsNoWarning)
{
    using kest::utils::log::Level;
    std::mutex mutex;
    std::vector<std::pair<Level, std::string>> lines;
    auto& logger = kest::utils::log::Logger::instance();
    const int observer =
        logger.addObserver([&](Level level, const std::string& tag, const std::string& message) {
            std::lock_guard lock(mutex);
            if (tag == "mongoc")
                lines.emplace_back(level, message);
        });
    {
        // The driver warns that pools ignore minPoolSize: a warning it writes for sure.
        const Uri uri(m_uri + (m_uri.find('?') == std::string::npos ? "?" : "&") + "minPoolSize=1");
        ClientPool pool(uri);
        PooledClient client = pool.pop();
        // A query runs in a session, which destroying the pool ends; the stand-in refuses that.
        Cursor cursor = client.collection("metadataStorage", uniqueName("sessions")).find({});
        while (cursor.next()) {
        }
    }
    logger.removeObserver(observer);

    std::lock_guard lock(mutex);
    bool warned = false;
    for (const auto& [level, message] : lines) {
        if (message.find("minpoolsize is deprecated") != std::string::npos)
            warned = level == Level::warning;
        if (message.find("endSessions") != std::string::npos) {
            EXPECT_EQ(Level::debug, level) << message;
        }
    }
    std::string all;
    for (const auto& [level, message] : lines)
        all += std::to_string(static_cast<int>(level)) + " " + message + "\n";
    EXPECT_TRUE(warned) << all;
}

TEST_F(MongoWrappersTest, PoolHandsOutClientsConcurrently)
{
    const Uri uri(m_uri);
    ClientPool pool(uri);
    constexpr int kThreads = 6;
    // Every thread holds its client until all have one: they are out of the pool at once.
    std::latch allHold(kThreads);
    std::vector<std::future<std::string>> results;
    for (int i = 0; i < kThreads; ++i) {
        results.push_back(std::async(std::launch::async, [&] {
            PooledClient client = pool.pop();
            allHold.arrive_and_wait();
            // Each thread really talks to the server through its own client.
            Document ping;
            ping.appendInt64("ping", 1);
            bson_error_t error{};
            const bool ok = mongoc_client_command_simple(client.get(), "admin", ping.get(), nullptr,
                                                         nullptr, &error);
            return ok ? std::to_string(reinterpret_cast<std::uintptr_t>(client.get()))
                      : std::string("error: ") + error.message;
        }));
    }
    std::set<std::string> clients;
    for (auto& result : results) {
        const std::string client = result.get();
        EXPECT_EQ(client.find("error"), std::string::npos) << client;
        clients.insert(client);
    }
    EXPECT_EQ(clients.size(), static_cast<std::size_t>(kThreads));
}

TEST_F(MongoWrappersTest, UpsertPushRoundTrip)
{
    Storage storage(m_uri);
    const std::string device = uniqueName("device");
    const std::string node = uniqueName("node");

    const auto span = [&](std::int64_t from, std::int64_t till) {
        Document info;
        info.appendDateTime(Storage::kTimeFrom, from)
            .appendDateTime(Storage::kTimeTill, till)
            .appendString(Storage::kNode, node);
        Document push;
        push.appendDocument(Storage::kStorageInfo, info);
        Document update;
        update.appendDocument("$push", push);
        return update;
    };
    const auto filterOf = [](const std::string& id) {
        Document filter;
        filter.appendString(Storage::kDeviceId, id);
        return filter;
    };
    const std::string otherDevice = uniqueName("device");

    PooledClient client = storage.getClient();
    Collection collection =
        client.collection(storage.dbName(), Storage::kDataDistributionCollection);
    // The in-memory stand-in stalls, and stays stalled, on a $push to an existing document, so
    // every push here creates its document; a real server takes both.
    BulkWrite bulk = collection.createBulkWrite();
    bulk.updateOne(filterOf(device), span(1000, 2000), /*upsert*/ true);
    bulk.updateOne(filterOf(otherDevice), span(5000, 6000), /*upsert*/ true);
    const auto result = bulk.execute();
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->upserted, 2);
    EXPECT_EQ(result->modified, 0);

    Document inFilter;
    Document in;
    in.appendStringArray("$in", {device, uniqueName("absent")});
    inFilter.appendDocument(Storage::kDeviceId, in);
    Cursor cursor = collection.find(inFilter);
    int documents = 0;
    while (auto doc = cursor.next()) {
        ++documents;
        EXPECT_EQ(doc->getString(Storage::kDeviceId), device);
        const auto spans = doc->getDocumentArray(Storage::kStorageInfo);
        ASSERT_EQ(spans.size(), 1u);
        EXPECT_EQ(spans[0].getDateTimeMs(Storage::kTimeFrom), 1000);
        EXPECT_EQ(spans[0].getDateTimeMs(Storage::kTimeTill), 2000);
        EXPECT_EQ(spans[0].getString(Storage::kNode), node);
        EXPECT_THROW(spans[0].getDouble(Storage::kTimeFrom), Error);
    }
    EXPECT_EQ(documents, 1);
}

TEST_F(MongoWrappersTest, SingleUpdateAndFailures)
{
    Storage storage(m_uri);
    PooledClient client = storage.getClient();
    // A collection of its own: records in "HostsLoad" take part in every instance choice.
    Collection collection = client.collection(storage.dbName(), uniqueName("updates"));
    const std::string host = uniqueName("host");

    Document filter;
    filter.appendString(Storage::kHost, host);
    Document fields;
    fields.appendString(Storage::kHost, host).appendDouble(Storage::kLongLoadMetric, 0.5);
    Document update;
    update.appendDocument("$set", fields);
    auto result = collection.updateOne(filter, update, /*upsert*/ true);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->upserted, 1);
    result = collection.updateOne(filter, update, /*upsert*/ true);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->upserted + result->modified, 0);  // the same figures change nothing

    EXPECT_THROW(collection.createBulkWrite().execute(), Error);  // empty bulk write
    BulkWrite bulk = collection.createBulkWrite();
    EXPECT_THROW(bulk.updateOne(filter, fields, true), Error);  // no update operator
}

TEST_F(MongoWrappersTest, UnreachableServerFailsQuicklyWithDriverText)
{
    const Uri uri("mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=200&connectTimeoutMS=200");
    ClientPool pool(uri);
    PooledClient client = pool.pop();
    Collection collection = client.collection("metadataStorage", "dataDistribution");
    Cursor cursor = collection.find(Document());
    try {
        cursor.next();
        FAIL() << "no error";
    } catch (const Error& e) {
        EXPECT_NE(std::string(e.what()), "");
    }
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
