#include <gtest/gtest.h>

#include <stdexcept>

#include <kest/cloud/storage/dds_connetion_settings.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/utils/zu_settings.h>

namespace kest::cloud::storage::metadatadb {
namespace {

using conf::MongoConnectionSettings;
using Instances = std::vector<std::pair<std::string, std::uint32_t>>;

conf::DDSConnetionSettings load(std::initializer_list<std::pair<const char*, const char*>> values)
{
    ZuSettings store;
    for (const auto& [key, value] : values)
        store.setValue(key, QString::fromUtf8(value));
    conf::DDSConnetionSettings settings;
    settings.load(store);
    return settings;
}

TEST(MongoConnectionSettingsTest, InstancesAreTrimmedUnquotedAndEmptyEntriesSkipped)
{
    const auto settings =
        load({{"MongoDb/instances", ";; a : 27017;;\"b;c:1\":27018 ; c:27019x;"}});
    EXPECT_EQ(settings.instances, (Instances{{"a", 27017}, {"b;c:1", 27018}, {"c", 27019}}));

    EXPECT_TRUE(load({{"MongoDb/instances", ""}}).instances.empty());
    EXPECT_TRUE(load({}).instances.empty());
}

TEST(MongoConnectionSettingsTest, MalformedPortStopsLoading)
{
    // A blank entry is not an empty one: it is an entry without a port.
    for (const char* bad : {"a:27017;bare", "a:", "a: x1", "\"a:1\"", "a:1; ;b:2", "a:1;\t"})
        EXPECT_THROW(load({{"MongoDb/instances", bad}}), std::invalid_argument) << bad;
    EXPECT_THROW(load({{"MongoDb/instances", "a:99999999999"}}), std::out_of_range);
    // A sign is read as std::stoi reads it.
    EXPECT_EQ(load({{"MongoDb/instances", "a:+5"}}).instances, (Instances{{"a", 5}}));
}

TEST(MongoConnectionSettingsTest, TextKeysAndPoolSizes)
{
    auto settings = load({});
    EXPECT_EQ(settings.minPoolSize, 0u);
    EXPECT_EQ(settings.maxPoolSize, 100u);
    EXPECT_EQ(settings.user, "");
    EXPECT_EQ(settings.uri, "");

    settings = load({{"MongoDb/user", "ü"},
                     {"MongoDb/password", "p@ss"},
                     {"MongoDb/replicaSet", "rs0"},
                     {"MongoDb/minPoolSize", "3"},
                     {"MongoDb/maxPoolSize", "many"},
                     {"MongoDb/uri", "mongodb://x/"}});
    EXPECT_EQ(settings.user, "\xc3\xbc");
    EXPECT_EQ(settings.password, "p@ss");
    EXPECT_EQ(settings.replicaSet, "rs0");
    EXPECT_EQ(settings.minPoolSize, 3u);
    EXPECT_EQ(settings.maxPoolSize, 0u);
    EXPECT_EQ(settings.uri, "mongodb://x/");
}

TEST(MongoConnectionSettingsTest, UriIsBuiltFromTheSeparateKeys)
{
    MongoConnectionSettings settings;
    settings.user = "u";
    settings.password = "p";
    settings.instances = {{"a", 27017}, {"b", 27018}};
    settings.replicaSet = "rs0";
    settings.maxPoolSize = 10;
    settings.minPoolSize = 1;
    EXPECT_EQ(MongoDataDistributionStorage::buildUri(settings),
              "mongodb://u:p@a:27017,b:27018/?replicaSet=rs0&maxPoolSize=10&minPoolSize=1");

    EXPECT_EQ(MongoDataDistributionStorage::buildUri(load({})),
              "mongodb://:@/?replicaSet=&maxPoolSize=100&minPoolSize=0");
}

std::string constructionError(const MongoConnectionSettings& settings)
{
    try {
        MongoDataDistributionStorage storage(settings);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return {};
}

TEST(MongoConnectionSettingsTest, RejectedUriNamesTheSetting)
{
    // The built URI always has an empty replica set name, which the driver refuses.
    auto settings = load({{"MongoDb/instances", "a:1"}, {"MongoDb/user", "u"}});
    std::string error = constructionError(settings);
    EXPECT_NE(error.find("MongoDb/instances"), std::string::npos) << error;
    EXPECT_NE(error.find("replicaset"), std::string::npos) << error;

    settings.uri = "mongodb://";
    error = constructionError(settings);
    EXPECT_NE(error.find("MongoDb/uri"), std::string::npos) << error;
    EXPECT_EQ(error.find("MongoDb/instances"), std::string::npos) << error;

    // A valid override wins over the broken separate keys; nothing connects until first use.
    settings.uri = "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100";
    EXPECT_EQ(constructionError(settings), "");
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
