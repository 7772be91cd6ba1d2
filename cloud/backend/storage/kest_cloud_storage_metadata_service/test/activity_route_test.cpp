// The activity routes: counts from this instance's storage in every request form and as a
// picture, the requests that are refused and what the refusal names, and distributed counts
// summed over instances played by fake clients.

#include <gtest/gtest.h>

#include <QUrl>
#include <QXmlStreamReader>
#include <regex>

#include <kest/analytics_db/activity_histogram.h>
#include <kest/cloud/storage/api/client.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/view/activity_chart.h>
#include <kest/utils/assert.h>

#include "log_capture.h"
#include "scripted_peers.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::ActivityHistogram;
using kest::analytics::db::ActivityQuery;
using kest::network::http::StatusCode;

constexpr std::int64_t kMinute = 60'000;
// 2026-01-01 00:00 UTC, the README's day.
constexpr std::int64_t kT0 = 1'767'225'600'000;
const std::string kFailedReply = "errors occured during fetching data from other nodes";

std::string activityTarget(const ActivityRequestData& request, const char* path = "/activity")
{
    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    return std::string("/metadataDb/v1") + path + "?" +
           query.toString(QUrl::FullyEncoded).toStdString();
}

ActivityRequestData minutes(std::int64_t count, bool heatmap = false)
{
    ActivityRequestData request;
    request.filter.timePeriod = ZuTimePeriod(kT0, count * kMinute);
    request.bucketMs = kMinute;
    request.heatmap = heatmap;
    return request;
}

std::vector<std::int64_t> totals(const kest::analytics::db::Activity& activity)
{
    std::vector<std::int64_t> result;
    for (const auto& bucket : activity.buckets)
        result.push_back(bucket.tracks);
    return result;
}

ActivityAnswer answerOf(const std::optional<HttpResponse>& response)
{
    ActivityAnswer answer;
    EXPECT_TRUE(response && response->status == 200)
        << (response ? response->head + response->body : "no response");
    if (response) {
        const auto result = kest::reflect::json::deserialize(response->body, &answer);
        EXPECT_TRUE(result.success) << result.errorDescription;
    }
    return answer;
}

/** Whether `svg` is well-formed XML, and how many elements have the class. */
int elementsOfClass(const std::string& svg, const std::string& className)
{
    QXmlStreamReader xml(QString::fromStdString(svg));
    int count = 0;
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement &&
            xml.attributes().value("class") == QString::fromStdString(className)) {
            ++count;
        }
    }
    EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    return count;
}

class ActivityRouteTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_service.started());
        const ZuUuid other = ZuUuid::createUuid();
        // A person in minute 0, a car from minute 0 into minute 1, a car of another camera at
        // 2:30; all in the same box.
        ASSERT_EQ(
            m_service.post({packet(m_device, kT0, ZuUuid::createUuid(), "person"),
                            packet(m_device, kT0 + 10'000, m_car, "car", {{"make", "Toyota"}}),
                            packet(m_device, kT0 + 70'000, m_car, "car"),
                            packet(other, kT0 + 150'000, ZuUuid::createUuid(), "car")}),
            200);
    }

    RunningService m_service{kUnreachableMongo};
    const ZuUuid m_device = ZuUuid::createUuid();
    const ZuUuid m_car = ZuUuid::createUuid();
};

TEST_F(ActivityRouteTest, InternalCountsInEveryFormAndAsAPicture)
{
    ActivityRequestData request = minutes(3, /*heatmap*/ true);
    request.internal_lookup = true;
    const ActivityAnswer answer = answerOf(m_service.get(activityTarget(request)));
    EXPECT_EQ(answer.bucketMs, kMinute);
    EXPECT_EQ(totals(answer), (std::vector<std::int64_t>{2, 1, 1}));
    ASSERT_EQ(answer.buckets.size(), 3u);
    EXPECT_EQ(answer.buckets[1].startTimeMs, kT0 + kMinute);
    EXPECT_EQ(answer.buckets[0].byType,
              (std::map<std::string, std::int64_t>{{"car", 1}, {"person", 1}}));
    ASSERT_TRUE(answer.heatmap);
    ASSERT_EQ(answer.heatmap->cells.size(), 256u);
    // The box 0.1,0.2 0.3x0.4 covers columns 1 to 6 of rows 3 to 9: cell (2, 4) has all three.
    EXPECT_EQ(answer.heatmap->cells[4 * 16 + 2], 3);
    EXPECT_EQ(answer.heatmap->cells[0], 0);
    EXPECT_FALSE(answer.instancesAsked) << "an internal count asks no instance";

    // Narrowed by the filter; the limit does not apply to counts.
    ActivityRequestData narrowed = request;
    narrowed.filter.freeText = "toyo";
    narrowed.filter.maxObjectTracksToSelect = 1;
    narrowed.heatmap = false;
    const ActivityAnswer toyota = answerOf(m_service.get(activityTarget(narrowed)));
    EXPECT_EQ(totals(toyota), (std::vector<std::int64_t>{1, 1, 0}));
    EXPECT_FALSE(toyota.heatmap);

    // The same request as a JSON record, as a form, and through the client library.
    const std::string json = kest::reflect::json::serialize(request);
    const auto asJson =
        m_service.get("/metadataDb/v1/activity?" +
                          QUrl::toPercentEncoding(QString::fromStdString(json)).toStdString(),
                      "application/json");
    EXPECT_EQ(answerOf(asJson), answer);
    const std::string form =
        "filter=" +
        QUrl::toPercentEncoding(
            QString::fromStdString(kest::reflect::json::serialize(request.filter)))
            .toStdString() +
        "&internal_lookup=true&bucketMs=60000&heatmap=true";
    EXPECT_EQ(answerOf(m_service.get("/metadataDb/v1/activity?" + form,
                                     "application/x-www-form-urlencoded")),
              answer);
    api::Client client(kest::utils::Url(m_service.url()));
    const auto [status, viaClient] = client.getActivitySync(request);
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(viaClient, answer);
    client.pleaseStopSync();

    // Without bucketMs the period is cut into 100 buckets.
    ActivityRequestData byDefault = request;
    byDefault.bucketMs.reset();
    const ActivityAnswer hundred = answerOf(m_service.get(activityTarget(byDefault)));
    EXPECT_EQ(hundred.bucketMs, 1800);
    EXPECT_EQ(hundred.buckets.size(), 100u);

    // The picture: a group per bucket, the types in the legend, the heatmap beside.
    const auto picture = m_service.get(activityTarget(request, "/activity.svg"));
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->status, 200) << picture->body;
    EXPECT_NE(picture->head.find("Content-Type: image/svg+xml"), std::string::npos)
        << picture->head;
    EXPECT_EQ(picture->body.rfind("<svg", 0), 0u);
    EXPECT_EQ(elementsOfClass(picture->body, "bucket"), 3);
    EXPECT_EQ(elementsOfClass(picture->body, "cell"), 256);
    EXPECT_NE(picture->body.find("data-start-ms=\"" + std::to_string(kT0 + kMinute) + "\""),
              std::string::npos);
    EXPECT_NE(picture->body.find(">person</text>"), std::string::npos);

    // Errors stay JSON records on the picture's route too.
    ActivityRequestData unbounded = request;
    unbounded.filter.timePeriod.durationMs = ZuTimePeriod::kInfiniteDuration;
    const auto refused = m_service.get(activityTarget(unbounded, "/activity.svg"));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 400);
    EXPECT_TRUE(refused->hasJsonContentType()) << refused->head;
    const auto notAcceptable = m_service.get(activityTarget(request) + "&format=ubjson");
    ASSERT_TRUE(notAcceptable);
    EXPECT_EQ(notAcceptable->status, 406);
}

TEST_F(ActivityRouteTest, RefusalsNameWhatIsWrong)
{
    const std::string base =
        "/metadataDb/v1/activity?internal_lookup=1&startTimeMs=" + std::to_string(kT0);
    struct Case
    {
        std::string query;
        std::string named;
    };
    const Case cases[] = {
        {"", "filter.timePeriod.durationMs: the period has no end"},
        {"&durationMs=0", "filter.timePeriod.durationMs: 0: activity is counted over a period"},
        {"&durationMs=60000&bucketMs=0", "bucketMs: 0 is not a positive number of milliseconds"},
        {"&durationMs=60000&bucketMs=-5", "bucketMs: -5 is not a positive number"},
        {"&durationMs=60000&bucketMs=1m",
         "Invalid URL query: bucketMs: '1m' is not a whole number"},
        {"&durationMs=10001&bucketMs=1",
         "bucketMs: 1 cuts the period into 10001 buckets, more than the 10000 an answer may have: "
         "2 or more"},
        {"&durationMs=60000&heatmap=yes", "heatmap: 'yes' is neither 'true' nor 'false'"},
        {"&durationMs=60000&deviceIds=camera-1", "deviceIds: 'camera-1' is not a UUID"},
        {"&durationMs=60000&boundingBox=0,0,2,1", "boundingBox: '0,0,2,1': width 2 is not within"},
    };
    for (const auto& [query, named] : cases) {
        const auto response = m_service.get(base + query);
        ASSERT_TRUE(response) << query;
        EXPECT_EQ(response->status, 400) << query;
        EXPECT_NE(response->body.find(named), std::string::npos) << query << ": " << response->body;
    }

    const auto latest = m_service.get(
        "/metadataDb/v1/activity?internal_lookup=1&startTimeMs=9223372036854775000&durationMs=500&"
        "bucketMs=1000");
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->status, 400);
    EXPECT_NE(latest->body.find("past the latest time"), std::string::npos) << latest->body;

    // The widest answer allowed, and a long period cut into its default 100 buckets.
    for (const std::string fine : {"&durationMs=10000&bucketMs=1", "&durationMs=900000000000"}) {
        const auto response = m_service.get(base + fine);
        ASSERT_TRUE(response) << fine;
        EXPECT_EQ(response->status, 200) << fine << ": " << response->body;
    }
}

TEST(ActivityRequestDataTest, QueryAndJsonFormsReadBackWhatIsWritten)
{
    ActivityRequestData request = minutes(5, /*heatmap*/ true);
    request.internal_lookup = true;
    request.filter.deviceIds = {ZuUuid::createUuid()};
    request.filter.objectTypeId = {"car", "a&b=c"};
    request.filter.freeText = "50% off";
    request.filter.boundingBox = kest::common::metadata::Rect{0.1, 0.2, 0.3, 0.4};

    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    // The service decodes a query once before splitting it into items, as the frame does.
    const QUrlQuery received(
        QUrl::fromPercentEncoding(query.toString(QUrl::FullyEncoded).toUtf8()));
    ActivityRequestData read;
    std::string error;
    ASSERT_TRUE(loadFromUrlQuery(received, &read, &error)) << error;
    EXPECT_EQ(read, request);

    ActivityRequestData fromJson;
    ASSERT_TRUE(kest::reflect::json::deserialize(kest::reflect::json::serialize(request), &fromJson)
                    .success);
    EXPECT_EQ(fromJson, request);

    // Nothing but the defaults: no bucket width, no heatmap, a distributed count.
    ASSERT_TRUE(loadFromUrlQuery(QUrlQuery("durationMs=10"), &read, &error)) << error;
    EXPECT_FALSE(read.bucketMs);
    EXPECT_EQ(read.bucketWidthMs(), 1);
    EXPECT_FALSE(read.heatmap);
    EXPECT_FALSE(read.internal_lookup);
    ASSERT_TRUE(loadFromUrlQuery(QUrlQuery("durationMs=101"), &read, &error));
    EXPECT_EQ(read.bucketWidthMs(), 2) << "rounded up, so that there are at most 100";
}

/** A distributed count whose instances are fakes; the shared database names them as scripted. */
class DistributedActivityTest : public ScriptedPeersTest
{
protected:
    /** An instance's answer to `request`: tracks of `type` from minute `from` to `to`. */
    static ActivityAnswer counted(const ActivityRequestData& request, const std::string& type,
                                  std::int64_t from, std::int64_t to, int cell)
    {
        ActivityQuery query{request.filter, request.bucketWidthMs(), request.heatmap};
        ActivityHistogram histogram(query);
        histogram.add(histogram.typeIndex(type), (kT0 + from * kMinute) * 1000,
                      (kT0 + to * kMinute) * 1000);
        kest::analytics::db::BoundingBoxGrid grid;
        grid.add({(cell % 16) / 16.0 + 0.01, (cell / 16) / 16.0 + 0.01, 0, 0});
        histogram.addCells(grid);
        ActivityAnswer answer;
        static_cast<kest::analytics::db::Activity&>(answer) = histogram.result();
        return answer;
    }

    std::optional<HttpResponse> count(const ActivityRequestData& request,
                                      std::vector<std::string> addresses, bool lookupOk = true,
                                      const char* path = "/activity")
    {
        m_distribution.setAddresses(std::move(addresses), lookupOk);
        return m_service->get(activityTarget(request, path));
    }
};

TEST_F(DistributedActivityTest, AnswersAreSummedAndTheFailedOnesLeftOutAndCounted)
{
    ActivityRequestData request;
    request.filter.deviceIds = {ZuUuid::createUuid()};
    request.filter.timePeriod = ZuTimePeriod(kT0, 5 * kMinute);
    request.heatmap = true;
    ActivityRequestData asPeersSeeIt = request;
    asPeersSeeIt.bucketMs = 3000;  //< The coordinator's default, sent to every instance.
    asPeersSeeIt.internal_lookup = true;

    const std::string a = "http://a.test:1", b = "http://b.test:1", broken = "http://broken.test:1",
                      odd = "http://odd.test:1";
    m_peers.set(a, {StatusCode::ok, {}, 50ms, counted(asPeersSeeIt, "car", 0, 1, 17)});
    m_peers.set(b, {StatusCode::ok, {}, 0ms, counted(asPeersSeeIt, "person", 2, 2, 17)});
    m_peers.set(broken, {StatusCode::internalServerError, {}, 0ms, {}});
    ActivityRequestData otherBuckets = asPeersSeeIt;
    otherBuckets.bucketMs = kMinute;
    m_peers.set(odd, {StatusCode::ok, {}, 0ms, counted(otherBuckets, "car", 0, 4, 0)});
    LogCapture log;

    const ActivityAnswer sum = answerOf(count(request, {a, b, broken, a, odd}));
    EXPECT_EQ(sum.instancesAsked, 5u);
    EXPECT_EQ(sum.instancesAnswered, 3u);
    EXPECT_EQ(log.count(kFailedReply), 2);
    EXPECT_EQ(sum.bucketMs, 3000);
    ASSERT_EQ(sum.buckets.size(), 100u);
    // a's car twice (listed twice) over minutes 0 to 1, b's person at minute 2.
    EXPECT_EQ(sum.buckets[0].tracks, 2);
    EXPECT_EQ(sum.buckets[20].byType, (std::map<std::string, std::int64_t>{{"car", 2}}));
    EXPECT_EQ(sum.buckets[40].byType, (std::map<std::string, std::int64_t>{{"person", 1}}));
    EXPECT_EQ(sum.buckets[41].tracks, 0);
    ASSERT_TRUE(sum.heatmap);
    EXPECT_EQ(sum.heatmap->cells[17], 3);
    EXPECT_EQ(sum.heatmap->cells[0], 0) << "the answer with other buckets is left out whole";

    // Every instance got the same explicit request: internal, with the coordinator's buckets.
    const auto asked = m_peers.activityAsked();
    ASSERT_EQ(asked.size(), 5u);
    for (const auto& [url, sent] : asked)
        EXPECT_EQ(sent, asPeersSeeIt) << url;

    // The picture says how many answered.
    const auto picture = count(request, {a, broken}, true, "/activity.svg");
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->status, 200);
    EXPECT_NE(picture->body.find("(1 of 2 instances answered)"), std::string::npos);
}

TEST_F(DistributedActivityTest, NobodyNamedGivesEmptyBucketsAndAFailedLookup500)
{
    const ActivityRequestData request = minutes(4, /*heatmap*/ true);
    const ActivityAnswer none = answerOf(count(request, {}));
    EXPECT_EQ(totals(none), (std::vector<std::int64_t>{0, 0, 0, 0}));
    EXPECT_EQ(none.buckets[3].startTimeMs, kT0 + 3 * kMinute);
    EXPECT_EQ(none.instancesAsked, 0u);
    EXPECT_EQ(none.instancesAnswered, 0u);
    ASSERT_TRUE(none.heatmap);
    EXPECT_EQ(none.heatmap->cells, std::vector<std::int64_t>(256, 0));

    LogCapture log;
    const auto failed = count(request, {"http://a.test:1"}, /*lookupOk*/ false);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->status, 500);
    EXPECT_EQ(m_peers.created(), 0);
    EXPECT_TRUE(log.contains("can't get remote instances addresses for requst with filter {"));
}

// A real instance behind the fan-out: the service asks itself over HTTP, as a cluster does.
TEST_F(DistributedActivityTest, AnInstanceAskedOverHttpCountsItsOwnTracks)
{
    const ZuUuid device = ZuUuid::createUuid();
    ASSERT_EQ(m_service->post({packet(device, kT0 + 61'000, ZuUuid::createUuid(), "bus")}), 200);
    ActivityRequestData request = minutes(2);
    request.filter.deviceIds = {device};
    const ActivityAnswer answer = answerOf(count(request, {m_service->url(), m_service->url()}));
    EXPECT_EQ(totals(answer), (std::vector<std::int64_t>{0, 2}));
    EXPECT_EQ(answer.buckets[1].byType, (std::map<std::string, std::int64_t>{{"bus", 2}}));
    EXPECT_EQ(answer.instancesAnswered, 2u);
}

TEST(ActivityChartTest, AxesLabelsAndBars)
{
    EXPECT_EQ(ActivityChart::timeStepMs(24 * 60 * kMinute), 3 * 60 * kMinute);
    EXPECT_EQ(ActivityChart::timeStepMs(5 * kMinute), kMinute);
    EXPECT_EQ(ActivityChart::timeStepMs(900), 100);
    EXPECT_EQ(ActivityChart::timeStepMs(99LL * 365 * 24 * 60 * kMinute),
              3650LL * 24 * 60 * kMinute);
    EXPECT_EQ(ActivityChart::timeLabel(kT0 + 90 * kMinute, 30 * kMinute, false), "01:30");
    EXPECT_EQ(ActivityChart::timeLabel(kT0 + 90 * kMinute, 30 * kMinute, true), "01-01 01:30");
    EXPECT_EQ(ActivityChart::timeLabel(kT0 + 1500, 500, false), "00:00:01.500");
    EXPECT_EQ(ActivityChart::timeLabel(kT0, 24 * 60 * kMinute, true), "2026-01-01");
    EXPECT_EQ(ActivityChart::countStep(1), 1);
    EXPECT_EQ(ActivityChart::countStep(12), 5);
    EXPECT_EQ(ActivityChart::countStep(26), 10);
    EXPECT_EQ(ActivityChart::countStep(1'000'000), 200'000);

    // Eleven types: nine in colours of their own, two as "other"; names are escaped.
    ActivityRequestData request = minutes(3);
    request.filter.timePeriod.durationMs = 2 * kMinute + 30'000;  //< The last bucket is cut.
    ActivityQuery query{request.filter, kMinute, false};
    ActivityHistogram histogram(query);
    for (int type = 0; type < 11; ++type) {
        const std::string name = type == 10 ? "<b>&\"" : "type" + std::to_string(type);
        for (int i = 0; i <= type; ++i)
            histogram.add(histogram.typeIndex(name), kT0 * 1000, kT0 * 1000);
    }
    ActivityAnswer answer;
    static_cast<kest::analytics::db::Activity&>(answer) = histogram.result();
    const std::string svg = ActivityChart(request.filter.timePeriod).svg(answer);
    EXPECT_EQ(elementsOfClass(svg, "bucket"), 3);
    EXPECT_EQ(elementsOfClass(svg, "legend"), 10);
    EXPECT_EQ(elementsOfClass(svg, "cell"), 0);
    EXPECT_NE(svg.find("other (2 types)"), std::string::npos);
    EXPECT_NE(svg.find("&lt;b&gt;&amp;&quot;"), std::string::npos);
    EXPECT_EQ(svg.find("<b>"), std::string::npos);
    EXPECT_NE(svg.find("data-end-ms=\"" + std::to_string(kT0 + 2 * kMinute + 30'000) + "\""),
              std::string::npos);
    // The first bar stacks every type, the most frequent at the bottom.
    const std::regex bar(
        R"re(<rect class="bar" x="64" y="([0-9.]+)" width="[0-9.]+" height="([0-9.]+)" fill="(#[0-9a-f]+)"/>)re");
    std::vector<std::pair<double, std::string>> bars;
    for (auto it = std::sregex_iterator(svg.begin(), svg.end(), bar); it != std::sregex_iterator();
         ++it) {
        bars.emplace_back(std::stod((*it)[2]), (*it)[3]);
    }
    ASSERT_EQ(bars.size(), 11u);
    EXPECT_GT(bars[0].first, bars[1].first);
    EXPECT_EQ(bars[0].second, "#4e79a7");
    EXPECT_EQ(bars[10].second, "#bab0ac");
    EXPECT_EQ(svg.find("No tracks"), std::string::npos);

    ActivityAnswer empty;
    static_cast<kest::analytics::db::Activity&>(empty) =
        ActivityHistogram(ActivityQuery{request.filter, kMinute, true}).result();
    const std::string blank = ActivityChart(request.filter.timePeriod).svg(empty);
    EXPECT_NE(blank.find("No tracks"), std::string::npos);
    EXPECT_EQ(elementsOfClass(blank, "cell"), 256);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
