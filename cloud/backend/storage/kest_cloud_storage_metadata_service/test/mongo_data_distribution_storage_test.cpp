#include <gtest/gtest.h>

#include <cmath>
#include <future>

#include <kest/cloud/storage/model/data_distrib_storage_factory.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/utils/to_text.h>

namespace kest::cloud::storage::metadatadb {
namespace {

TEST(InstanseLoadTest, EqualityIsPlainDoubleComparison)
{
    const InstanseLoad a{"h1", 0.5, 2.0};
    EXPECT_EQ(a, (InstanseLoad{"h1", 0.5, 2.0}));
    EXPECT_NE(a, (InstanseLoad{"h2", 0.5, 2.0}));
    EXPECT_NE(a, (InstanseLoad{"h1", 0.5, 2.5}));
    EXPECT_NE(a, (InstanseLoad{"h1", 0.25, 2.0}));

    const InstanseLoad nanShort{"h1", std::nan(""), 2.0};
    const InstanseLoad nanLong{"h1", 0.5, std::nan("")};
    EXPECT_FALSE(nanShort == nanShort);
    EXPECT_FALSE(nanLong == nanLong);
}

TEST(DataInfoTest, TextForm)
{
    const std::vector<DataInfo> items{{"dev1", ZuTimePeriod(1000, 2000)}};
    EXPECT_EQ(kest::utils::toText(items),
              "{ deviceId: dev1, time period: " + toString(ZuTimePeriod(1000, 2000)) + " }");
}

class FakeStorage : public AbstractDataDistributionStorage
{
public:
    explicit FakeStorage(std::string tag) : tag(std::move(tag)) {}
    std::string tag;

    void getStorageInfo(const std::vector<std::string>&, const ZuTimePeriod&,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)>) override
    {}
    void saveDataAddress(const std::vector<DataInfo>&, const std::string&,
                         MoveOnlyFunc<void(std::vector<DataInfo>)>) override
    {}
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)>) override {}
    void saveInstanceLoad(const InstanseLoad&) override {}
    void getDeviceInstancesMapping(std::chrono::system_clock::time_point,
                                   MoveOnlyFunc<void(bool, DeviceMapping)>) override
    {}
    void saveInstanceLoadSync(const InstanseLoad&) override {}
};

TEST(DataDistribStorageFactoryTest, CreateFunctionCanBeReplacedAndRestored)
{
    auto& factory = DataDistribStorageFactory::instance();
    EXPECT_EQ(&factory, &DataDistribStorageFactory::instance());

    conf::MongoConnectionSettings settings;
    settings.user = "seen";
    auto previous = factory.setCreateFunction([](const conf::MongoConnectionSettings& s) {
        return std::unique_ptr<AbstractDataDistributionStorage>(
            std::make_unique<FakeStorage>(s.user));
    });
    auto storage = factory.create(settings);
    ASSERT_NE(dynamic_cast<FakeStorage*>(storage.get()), nullptr);
    EXPECT_EQ(static_cast<FakeStorage*>(storage.get())->tag, "seen");

    factory.setCreateFunction(std::move(previous));
    settings.uri = "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100";
    storage = factory.create(settings);
    EXPECT_NE(dynamic_cast<MongoDataDistributionStorage*>(storage.get()), nullptr);
}

TEST(MongoDataDistributionStorageTest, FieldNamesAreTheStoredOnes)
{
    EXPECT_EQ(MongoDataDistributionStorage::kTimeTill, "TimesTill");
    EXPECT_EQ(MongoDataDistributionStorage::kMappingCollection, "DeviceIdsToInstancesMapping");
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
