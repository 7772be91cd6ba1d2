// The metrics page scraped after real traffic: every figure an operator watches moves as the
// requests went, and the page reads as the Prometheus text format.

#include <gtest/gtest.h>

#include <cmath>

#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>

#include <map>
#include <regex>
#include <set>
#include <thread>

#include "fake_peers.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;

/** The samples of a scrape by series ("name{labels}" as written); fails the test on bad lines. */
class Scrape
{
public:
    explicit Scrape(const std::string& text)
    {
        static const std::regex kHelp(R"(# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) .*)");
        static const std::regex kType(
            R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|histogram))");
        static const std::regex kSample(
            R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\[\\"n])*")"
            R"((?:,[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\[\\"n])*")*\})? ([^ ]+))");
        EXPECT_TRUE(!text.empty() && text.back() == '\n');
        std::string family;
        std::string type;
        std::size_t start = 0;
        while (start < text.size()) {
            const std::size_t end = text.find('\n', start);
            const std::string line = text.substr(start, end - start);
            start = end + 1;
            std::smatch match;
            if (std::regex_match(line, match, kHelp)) {
                EXPECT_TRUE(m_families.insert(match[1]).second) << "family twice: " << line;
                family = match[1];
            } else if (std::regex_match(line, match, kType)) {
                EXPECT_EQ(match[1], family) << line;
                type = match[2];
            } else if (std::regex_match(line, match, kSample)) {
                const std::string name = match[1];
                const std::string base =
                    type == "histogram"
                        ? std::regex_replace(name, std::regex("_(bucket|sum|count)$"), "")
                        : name;
                EXPECT_EQ(base, family) << "sample outside its family: " << line;
                double value = 0;
                try {
                    value = match[3] == "+Inf" ? INFINITY : std::stod(match[3]);
                } catch (...) {
                    ADD_FAILURE() << "not a number: " << line;
                }
                EXPECT_TRUE(m_samples.emplace(name + std::string(match[2]), value).second)
                    << "series twice: " << line;
            } else {
                ADD_FAILURE() << "not a line of the text format: '" << line << "'";
            }
        }
    }

    /** The sample's value; -1 when it is missing. */
    double operator[](const std::string& series) const
    {
        const auto it = m_samples.find(series);
        return it == m_samples.end() ? -1 : it->second;
    }
    bool hasFamily(const std::string& name) const { return m_families.contains(name); }

    /** Buckets of each histogram series grow and end at the count. */
    void expectConsistentHistogram(const std::string& name, const std::string& labels) const
    {
        double previous = 0;
        int buckets = 0;
        for (const auto& [series, value] : m_samples) {
            if (series.starts_with(name + "_bucket{" + labels + ",le=")) {
                ++buckets;
                // Lexical order is not bound order: only the +Inf bucket is checked against all.
                previous = std::max(previous, value);
            }
        }
        EXPECT_GT(buckets, 1) << name << labels;
        EXPECT_EQ((*this)[name + "_bucket{" + labels + ",le=\"+Inf\"}"], previous);
        EXPECT_EQ((*this)[name + "_count{" + labels + "}"], previous);
    }

private:
    std::set<std::string> m_families;
    std::map<std::string, double> m_samples;
};

std::string request(const std::string& route, const std::string& method, int status)
{
    return "metadatadb_http_requests_total{route=\"" + route + "\",method=\"" + method +
           "\",status=\"" + std::to_string(status) + "\"}";
}

TEST(MetricsEndpointTest, CountsMoveWithTrafficAndThePageReadsAsTheTextFormat)
{
    ScriptedDistribution distribution;
    RunningService service(kUnreachableMongo, {"--cluster/peerTimeoutMs=500"});
    ASSERT_TRUE(service.started());

    const ZuUuid device = ZuUuid::createUuid();
    const std::int64_t t0 = 1'767'225'600'000;
    ASSERT_EQ(service.post({packet(device, t0, ZuUuid::createUuid(), "person"),
                            packet(device, t0 + 1000, ZuUuid::createUuid(), "car"),
                            packet(device, t0 + 2000, ZuUuid::createUuid(), "car")}),
              200);
    DataRequestData search;
    search.filter.deviceIds = {device};
    search.internal_lookup = true;
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(service.get(dataTarget(search))->status, 200);

    // One distributed search that asks this instance, one that fails mid-answer and one that
    // never answers.
    DyingPeer dying(0ms);
    SilentPeer silent;
    distribution.setAddresses({service.url(), dying.url(), silent.url()});
    search.internal_lookup = false;
    const auto distributed = service.get(dataTarget(search));
    ASSERT_EQ(distributed->status, 200);
    ASSERT_EQ(service.get("/metadataDb/v1/dataSaveErrors/;")->status, 200);
    ASSERT_EQ(service.get("/metadataDb/v1/nowhere")->status, 404);
    ASSERT_EQ(service.get("/metadataDb/ping")->status, 404);  //< Ping stays POST only.

    const auto response = service.get("/metadataDb/metrics");
    ASSERT_TRUE(response);
    ASSERT_EQ(response->status, 200);
    std::string head = response->head;
    for (char& c : head)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_NE(head.find("content-type: text/plain; version=0.0.4"), std::string::npos) << head;
    const Scrape scrape(response->body);

    EXPECT_EQ(scrape[request("/metadataDb/v1/data", "POST", 200)], 1);
    // Two internal lookups from the test and one from the distributed search to this instance.
    EXPECT_EQ(scrape[request("/metadataDb/v1/data", "GET", 200)], 4);
    EXPECT_EQ(scrape[request("/metadataDb/v1/dataSaveErrors/{deviceIds}", "GET", 200)], 1);
    EXPECT_EQ(scrape[request("unmatched", "GET", 404)], 2);
    scrape.expectConsistentHistogram("metadatadb_http_request_duration_seconds",
                                     "route=\"/metadataDb/v1/data\",method=\"GET\"");
    EXPECT_EQ(scrape["metadatadb_http_request_duration_seconds_count{route=\"/metadataDb/v1/data\","
                     "method=\"GET\"}"],
              4);

    EXPECT_EQ(scrape["metadatadb_packets_accepted_total"], 3);
    EXPECT_EQ(scrape["metadatadb_packets_committed_total"], 3);
    EXPECT_EQ(scrape["metadatadb_packets_failed_total"], 0);
    EXPECT_EQ(scrape["metadatadb_write_queue_packets"], 0);
    EXPECT_EQ(scrape["metadatadb_storage_ready"], 1);
    EXPECT_GT(scrape["metadatadb_write_queue_max_packets"], 0);

    EXPECT_EQ(scrape["metadatadb_lookups_total{kind=\"internal\"}"], 3);
    EXPECT_EQ(scrape["metadatadb_lookups_total{kind=\"distributed\"}"], 1);
    scrape.expectConsistentHistogram("metadatadb_lookup_duration_seconds", "kind=\"distributed\"");
    // The distributed search waited out the silent peer.
    EXPECT_GE(scrape["metadatadb_lookup_duration_seconds_sum{kind=\"distributed\"}"], 0.5);
    EXPECT_EQ(scrape["metadatadb_fanout_peer_requests_total"], 3);
    EXPECT_EQ(scrape["metadatadb_fanout_peer_failures_total"], 1);
    EXPECT_EQ(scrape["metadatadb_fanout_peer_timeouts_total"], 1);

    EXPECT_EQ(scrape["metadatadb_save_error_devices"], 0);
    EXPECT_EQ(scrape["metadatadb_save_error_periods"], 0);
    EXPECT_GE(scrape["metadatadb_http_open_connections"], 1);  //< The scrape's own.
    EXPECT_GT(scrape["process_resident_memory_bytes"], 1 << 20);
    // The scripted storage counts no failures; the family stays, empty.
    EXPECT_TRUE(scrape.hasFamily("metadatadb_mongodb_operation_failures_total"));
}

TEST(MetricsEndpointTest, MongoDbFailuresCountByOperation)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    DataRequestData search;
    search.filter.deviceIds = {ZuUuid::createUuid()};
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(service.get(dataTarget(search))->status, 500);

    const Scrape scrape(service.get("/metadataDb/metrics")->body);
    EXPECT_EQ(scrape["metadatadb_mongodb_operation_failures_total{operation=\"node_lookup\"}"], 2);
    EXPECT_EQ(scrape["metadatadb_mongodb_operation_failures_total{operation=\"load_save\"}"], 0);
    EXPECT_EQ(scrape["metadatadb_lookups_total{kind=\"distributed\"}"], 2);
    EXPECT_EQ(scrape[request("/metadataDb/v1/data", "GET", 500)], 2);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
