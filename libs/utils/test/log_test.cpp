#include <gtest/gtest.h>

#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>
#include <kest/utils/log/rate_limiter.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

namespace kest::utils::log::test {

using namespace std::chrono_literals;

TEST(RateLimiter, BurstOfIdenticalLinesIsCutShortOncePerWindow)
{
    RateLimiter limiter(3, 1000ms);
    const auto t0 = std::chrono::steady_clock::time_point{} + 1h;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(limiter.check("same", t0), RateLimiter::Verdict::write);
    EXPECT_EQ(limiter.check("same", t0 + 1ms), RateLimiter::Verdict::writeTooMany);
    EXPECT_EQ(limiter.check("same", t0 + 2ms), RateLimiter::Verdict::drop);
    // Other lines are not affected by the burst.
    EXPECT_EQ(limiter.check("other", t0 + 2ms), RateLimiter::Verdict::write);
    // A new window lets the line through again.
    EXPECT_EQ(limiter.check("same", t0 + 1001ms), RateLimiter::Verdict::write);
}

TEST(RateLimiter, FloodOfDistinctLinesDoesNotResetARepeatingOne)
{
    // Under a flood of one-off lines (every client's address differs) a line that repeats, such
    // as a failing accept, must still be cut short after its burst.
    RateLimiter limiter(3, 1000ms);
    const auto t0 = std::chrono::steady_clock::time_point{} + 1h;
    int written = 0;
    for (int i = 0; i < 100; ++i) {
        const auto now = t0 + std::chrono::milliseconds(i);
        if (limiter.check("accept failed", now) != RateLimiter::Verdict::drop)
            ++written;
        for (int j = 0; j < 100; ++j)
            limiter.check("client " + std::to_string(i * 100 + j), now);
    }
    EXPECT_EQ(written, 4);
}

TEST(Logger, WritesToFileWithLevelFilterAndTooManyLine)
{
    const std::string path = ::testing::TempDir() + "/kest_log_test.log";
    std::remove(path.c_str());
    Settings settings;
    settings.loggers = {LoggerSettings{Level::warning, path}};
    Logger::instance().configure(settings);

    KEST_INFO("tag", "not written %1", 1);
    for (int i = 0; i < 15; ++i)
        KEST_ERROR("tag", "Accept has failed: %1", "boom");
    KEST_WARNING("tag", "last");
    Logger::instance().configure(Settings{});

    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    const std::string log = text.str();
    EXPECT_EQ(log.find("not written"), std::string::npos);
    std::size_t written = 0;
    for (auto pos = log.find("tag: Accept has failed: boom"); pos != std::string::npos;
         pos = log.find("tag: Accept has failed: boom", pos + 1)) {
        ++written;
    }
    EXPECT_EQ(written, RateLimiter::kDefaultMaxPerWindow + 1);
    EXPECT_NE(log.find("TOO MANY SIMILAR MESSAGES: tag: Accept has failed: boom"),
              std::string::npos);
    EXPECT_NE(log.find("last"), std::string::npos);
}

TEST(Logger, OneRecordIsOneLineWhateverItsText)
{
    const std::string path = ::testing::TempDir() + "/kest_log_escape_test.log";
    std::remove(path.c_str());
    Settings settings;
    settings.loggers = {LoggerSettings{Level::info, path}};
    Logger::instance().configure(settings);
    KEST_INFO("tag\n", "No handler for GET /x\r\n2026-01-01 00:00:00.000 1 error   forged%1",
              "\x1b[2J\t\x7f\xc2\x85\xe2\x80\xa8 é ok");
    Logger::instance().configure(Settings{});

    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(
        lines[0].ends_with("tag\\n: No handler for GET /x\\r\\n2026-01-01 00:00:00.000 1 error   "
                           "forged\\x1b[2J\\t\\x7f\\u0085\\u2028 é ok"))
        << lines[0];
    EXPECT_EQ(Logger::escapeControlCharacters("plain é text"), "plain é text");
}

TEST(Logger, ObserversSeeEveryLevelAndTagsNameTheObject)
{
    struct Widget
    {
    } widget;
    std::vector<std::string> seen;
    const int id = Logger::instance().addObserver(
        [&](Level level, const std::string& tag, const std::string& message) {
            seen.push_back(std::string(toString(level)) + "|" + tag + "|" + message);
        });
    KEST_VERBOSE(&widget, "value %1", 42);
    Logger::instance().removeObserver(id);
    KEST_VERBOSE(&widget, "after removal");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_NE(seen[0].find("verbose|"), std::string::npos);
    EXPECT_NE(seen[0].find("Widget(0x"), std::string::npos);
    EXPECT_NE(seen[0].find("|value 42"), std::string::npos);
}

TEST(Assert, LogsTheFixedFormatAndCounts)
{
    std::string message;
    const int id = Logger::instance().addObserver(
        [&](Level, const std::string&, const std::string& text) { message = text; });
    const int before = assertionFailureCount();
    const bool ok = KEST_ASSERT(1 + 1 == 3, "arithmetic");
    Logger::instance().removeObserver(id);
    EXPECT_FALSE(ok);
    EXPECT_EQ(assertionFailureCount(), before + 1);
    EXPECT_TRUE(message.starts_with("ASSERTION FAILED: ")) << message;
    EXPECT_NE(message.find("(1 + 1 == 3) arithmetic"), std::string::npos) << message;
}

TEST(Level, ParsesNamesAndNumbers)
{
    EXPECT_EQ(levelFromString("VERBOSE"), Level::verbose);
    EXPECT_EQ(levelFromString("2"), Level::error);
    EXPECT_EQ(levelFromString("loud"), std::nullopt);
}

}  // namespace kest::utils::log::test
