#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

#include <kest/utils/assert.h>
#include <kest/utils/metrics/process_statistics.h>
#include <kest/utils/metrics/registry.h>

namespace kest::utils::metrics {
namespace {

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        result.push_back(text.substr(start, end - start));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return result;
}

TEST(MetricsHistogramTest, ABoundTakesItsOwnValueAndCountsAreCumulative)
{
    Histogram histogram({0.1, 1, 10});
    for (const double value : {0.05, 0.1, 0.5, 1.0, 100.0, 100.0})
        histogram.observe(value);
    histogram.observe(std::nan(""));  //< Ignored: it would spoil the sum for good.

    const auto snapshot = histogram.snapshot();
    EXPECT_EQ(snapshot.cumulativeCounts, (std::vector<std::uint64_t>{2, 4, 4, 6}));
    EXPECT_EQ(snapshot.count(), 6u);
    EXPECT_DOUBLE_EQ(snapshot.sum, 201.65);

    Histogram latency(Histogram::latencyBounds());
    latency.observe(std::chrono::milliseconds(3));
    EXPECT_EQ(latency.snapshot().cumulativeCounts[1], 0u);  //< 2.5 ms
    EXPECT_EQ(latency.snapshot().cumulativeCounts[2], 1u);  //< 5 ms
}

TEST(MetricsTextWriterTest, WritesFamiliesWithEscapedTextsAndHistogramSeries)
{
    TextWriter writer;
    writer.beginFamily("requests_total", "Requests \\ by\nroute", MetricType::counter);
    writer.sample({{"route", "/a/\"{id}\"\\x\ny"}}, std::uint64_t{18446744073709551615u});
    writer.sample({}, 0.5);
    Histogram histogram({0.25, 1});
    histogram.observe(0.5);
    writer.beginFamily("latency_seconds", "Latency", MetricType::histogram);
    writer.histogram({{"route", "r"}}, histogram.snapshot());

    EXPECT_EQ(lines(writer.text()),
              (std::vector<std::string>{
                  "# HELP requests_total Requests \\\\ by\\nroute",
                  "# TYPE requests_total counter",
                  "requests_total{route=\"/a/\\\"{id}\\\"\\\\x\\ny\"} 18446744073709551615",
                  "requests_total 0.5",
                  "# HELP latency_seconds Latency",
                  "# TYPE latency_seconds histogram",
                  "latency_seconds_bucket{route=\"r\",le=\"0.25\"} 0",
                  "latency_seconds_bucket{route=\"r\",le=\"1\"} 1",
                  "latency_seconds_bucket{route=\"r\",le=\"+Inf\"} 1",
                  "latency_seconds_sum{route=\"r\"} 0.5",
                  "latency_seconds_count{route=\"r\"} 1",
              }));

    EXPECT_EQ(TextWriter::formatValue(0.1), "0.1");
    EXPECT_EQ(TextWriter::formatValue(1e21), "1e+21");
    EXPECT_EQ(TextWriter::formatValue(200000.0), "200000");
    EXPECT_EQ(TextWriter::formatValue(-3.0), "-3");
    EXPECT_EQ(TextWriter::formatValue(-INFINITY), "-Inf");
    EXPECT_EQ(TextWriter::formatValue(NAN), "NaN");
    EXPECT_TRUE(TextWriter::isValidMetricName("a:b_c9"));
    EXPECT_FALSE(TextWriter::isValidMetricName("9a"));
    EXPECT_FALSE(TextWriter::isValidLabelName("a:b"));
    EXPECT_FALSE(TextWriter::isValidMetricName(""));
}

TEST(MetricsRegistryTest, SeriesOfOneFamilyComeTogetherAndRemovedSourcesDisappear)
{
    Registry registry;
    Counter& internal = registry.counter("lookups_total", "Lookups", {{"kind", "internal"}});
    registry.gauge("queue", "Queue", []() { return 3.0; }).reset();
    Counter& distributed = registry.counter("lookups_total", "Lookups", {{"kind", "distributed"}});
    EXPECT_EQ(&registry.counter("lookups_total", "Lookups", {{"kind", "internal"}}), &internal);
    internal.add(2);
    distributed.add();
    double depth = 7;
    auto gauge = registry.gauge("depth", "Depth", [&depth]() { return depth; });
    auto moved = std::move(gauge);

    EXPECT_EQ(lines(registry.exposition()), (std::vector<std::string>{
                                                "# HELP lookups_total Lookups",
                                                "# TYPE lookups_total counter",
                                                "lookups_total{kind=\"internal\"} 2",
                                                "lookups_total{kind=\"distributed\"} 1",
                                                "# HELP depth Depth",
                                                "# TYPE depth gauge",
                                                "depth 7",
                                            }));

    // Once reset, the source is never called again, even if what it read is gone.
    moved.reset();
    EXPECT_EQ(registry.exposition().find("depth"), std::string::npos);

    // One name of two types would make the output unreadable: refused as a programming error.
    const int failures = assertionFailureCount();
    registry.histogram("lookups_total", "Lookups", {1.0}).observe(0.5);
    EXPECT_EQ(assertionFailureCount(), failures + 1);
    EXPECT_EQ(registry.exposition().find("lookups_total_bucket"), std::string::npos);
}

// Run under TSan: updates race with scrapes and with each other, and nothing is lost.
TEST(MetricsRegistryTest, ConcurrentUpdatesAreAllCountedWhileScraped)
{
    Registry registry;
    Counter& counter = registry.counter("events_total", "Events");
    Histogram& histogram = registry.histogram("latency_seconds", "Latency", {0.5});
    constexpr int kThreads = 4;
    constexpr int kEach = 20'000;
    std::atomic<bool> done{false};
    std::thread scraper([&]() {
        while (!done.load())
            EXPECT_NE(registry.exposition().find("events_total"), std::string::npos);
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t]() {
            Registration gauge =
                registry.gauge("thread_gauge", "Per thread", [t]() { return double(t); },
                               {{"thread", std::to_string(t)}});
            for (int i = 0; i < kEach; ++i) {
                counter.add();
                histogram.observe(i % 2 ? 0.25 : 1.0);
            }
        });
    }
    for (auto& writer : writers)
        writer.join();
    done = true;
    scraper.join();

    EXPECT_EQ(counter.value(), std::uint64_t{kThreads * kEach});
    const auto snapshot = histogram.snapshot();
    EXPECT_EQ(snapshot.cumulativeCounts,
              (std::vector<std::uint64_t>{kThreads * kEach / 2, kThreads * kEach}));
    EXPECT_DOUBLE_EQ(snapshot.sum, kThreads * kEach / 2 * 1.25);
    EXPECT_EQ(registry.exposition().find("thread_gauge"), std::string::npos);
}

TEST(MetricsProcessStatisticsTest, ResidentMemoryGrowsWithTouchedMemory)
{
    const auto before = ProcessStatistics::residentMemoryBytes();
    ASSERT_TRUE(before);
    std::vector<char> block(64 << 20, 1);
    const auto after = ProcessStatistics::residentMemoryBytes();
    ASSERT_TRUE(after);
    EXPECT_GT(*after, *before + (32u << 20));
    EXPECT_EQ(block[block.size() / 2], 1);
}

}  // namespace
}  // namespace kest::utils::metrics
