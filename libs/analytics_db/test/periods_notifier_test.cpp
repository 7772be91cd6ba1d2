#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kest/analytics_db/periods_notifier.h>
#include <kest/utils/log/log.h>

namespace kest::analytics::db::test {

// A report that no handler ever takes is still written down when the notifier stops.
TEST(PeriodsNotifier, ReportsWithoutAHandlerAreLoggedAtStop)
{
    std::vector<std::string> warnings;
    auto& logger = utils::log::Logger::instance();
    const int id = logger.addObserver(
        [&](utils::log::Level level, const std::string&, const std::string& message) {
            if (level == utils::log::Level::warning)
                warnings.push_back(message);
        });
    {
        PeriodsNotifier notifier;
        notifier.report(sql::DBResult::full, {{ZuUuid::createUuid(), ZuTimePeriodList{{5, 1}}}});
    }
    logger.removeObserver(id);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_TRUE(warnings[0].starts_with("Unreported save error full for { {")) << warnings[0];
    EXPECT_NE(warnings[0].find("(startTimeMs: 5, durationMs: 1)"), std::string::npos);
}

}  // namespace kest::analytics::db::test
