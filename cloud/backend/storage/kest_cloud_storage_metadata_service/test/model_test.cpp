#include <gtest/gtest.h>

#include <kest/cloud/storage/model/errors_storage_model.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/settings.h>

#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using Events = std::vector<std::string>;

TEST(Model, CreatesInOrderAndDestroysInReverseWithErrorsModelOutlivingTheAnalyticsStorage)
{
    FakeStoragesGuard fakes;
    conf::Settings settings;
    {
        Model model(settings);
        ASSERT_EQ(fakes.lastEventsStorage, model.getAnalyticsStorage());
        ASSERT_NE(nullptr, model.getDDSModel());
        ASSERT_NE(nullptr, model.getErrorStorageModel());
        EXPECT_TRUE(model.getAnalyticsStorage()->isReady());

        // The storage reports one more failure while stopping; it must land in a live model.
        ErrorsStorageModel* errors = model.getErrorStorageModel();
        model.getAnalyticsStorage()->setOnSaveErrorHandler(
            [errors](kest::sql::DBResult result,
                     std::unordered_map<ZuUuid, ZuTimePeriodList> periods) {
                errors->saveErrors(result, std::move(periods));
            });
        EXPECT_EQ((Events{"dds created", "analytics created", "analytics initialized"}),
                  fakes.log.events());
    }
    EXPECT_EQ((Events{"dds created", "analytics created", "analytics initialized",
                      "analytics destroyed", "dds destroyed"}),
              fakes.log.events());
}

TEST(Model, FailedAnalyticsInitializationStillBuildsTheModel)
{
    FakeStoragesGuard fakes(/*analyticsInitializes*/ false);
    conf::Settings settings;
    Model model(settings);
    ASSERT_NE(nullptr, model.getAnalyticsStorage());
    EXPECT_FALSE(model.getAnalyticsStorage()->isReady());
}

TEST(Model, FailedCreationReleasesWhatWasCreatedAndPropagates)
{
    FakeStoragesGuard fakes;
    fakes.failAnalyticsCreation = true;
    conf::Settings settings;
    EXPECT_THROW(Model model(settings), std::runtime_error);
    EXPECT_EQ((Events{"dds created", "dds destroyed"}), fakes.log.events());

    FakeStoragesGuard noDds;
    noDds.failDdsCreation = true;
    EXPECT_THROW(Model model(settings), std::runtime_error);
    EXPECT_TRUE(noDds.log.events().empty());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
