#include <gtest/gtest.h>

#include <chrono>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/reflect/json.h>
#include <kest/reflect/urlencoded.h>
#include <kest/vms_common/zu_time_period_list.h>

namespace kest::analytics::db::test {

using namespace common::metadata;
namespace json = reflect::json;
namespace urlencoded = reflect::urlencoded;

const ZuUuid kDevice("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}");
const ZuUuid kTrack("{a0a0a0a0-b1b1-c2c2-d3d3-e4e4e4e4e4e4}");
const ZuUuid kEngine("{00000000-0000-0000-0000-0000000000ee}");

ObjectMetadataPacket fullPacket()
{
    ObjectMetadataPacket p;
    p.deviceId = kDevice;
    p.timestampUs = 1'700'000'000'123'456;
    p.durationUs = std::numeric_limits<std::int64_t>::max();
    p.streamIndex = StreamIndex::secondary;
    p.objectMetadataList = {
        {kTrack,
         "person",
         ObjectMetadataType::bestShot,
         Rect{0.1, 0.2, 0.3, 0.4},
         {{"color", "red"}, {"", "ü\n\"q\""}},
         kEngine},
        {ZuUuid(), "", ObjectMetadataType::undefined, Rect{}, {}, ZuUuid()},
    };
    return p;
}

ObjectTrackEx fullTrack()
{
    ObjectTrackEx t;
    t.id = kTrack;
    t.deviceId = kDevice;
    t.objectTypeId = "car";
    t.attributes = {{"plate", "AB 123"}};
    t.firstAppearanceTimeUs = -1;
    t.lastAppearanceTimeUs = std::numeric_limits<std::int64_t>::min();
    t.objectPosition.boundingBoxGrid = "0f0f";
    t.bestShot = BestShot{42, Rect{0, 0, 1, 1}, StreamIndex::primary, Image{"image/jpeg", "AAEC"}};
    t.analyticsEngineId = kEngine;
    t.objectPositionSequence = {{kDevice, 5, 6, Rect{0.5, 0.5, 0.1, 0.1}, {{"a", "b"}}}};
    return t;
}

Filter fullFilter()
{
    Filter f;
    f.deviceIds = {kDevice, kEngine};
    f.objectTypeId = {"car", "person"};
    f.objectTrackId = kTrack;
    f.timePeriod = ZuTimePeriod(-5, 10);
    f.boundingBox = Rect{0.25, 0.5, 0.125, 1e-17};
    f.freeText = "red & blue";
    f.maxObjectTracksToSelect = 100;
    f.needFullTrack = true;
    f.sortOrder = SortOrder::asc;
    f.withBestShotOnly = true;
    f.analyticsEngineId = kEngine;
    return f;
}

template <typename T>
void expectJsonRoundTrip(const T& value)
{
    T back{};
    const auto result = json::deserialize(json::serialize(value), &back);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_EQ(back, value) << json::serialize(back);
}

template <typename T>
void expectUrlEncodedRoundTrip(const T& value)
{
    T back{};
    const auto result = urlencoded::deserialize(urlencoded::serialize(value), &back);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_EQ(back, value) << json::serialize(back);
}

TEST(RecordsJson, EveryRecordSurvivesBothCodecs)
{
    expectJsonRoundTrip(fullPacket());
    expectJsonRoundTrip(std::vector<ObjectMetadataPacket>{fullPacket(), ObjectMetadataPacket()});
    expectJsonRoundTrip(fullTrack());
    expectJsonRoundTrip(std::vector<ObjectTrackEx>{fullTrack(), ObjectTrackEx()});
    expectJsonRoundTrip(fullFilter());
    expectJsonRoundTrip(Filter());

    expectUrlEncodedRoundTrip(fullPacket());
    expectUrlEncodedRoundTrip(fullTrack());
    expectUrlEncodedRoundTrip(fullFilter());
    expectUrlEncodedRoundTrip(Filter());

    std::vector<ZuTimePeriodList> lists = {{}, {{1, 2}, {10, ZuTimePeriod::kInfiniteDuration}}};
    expectJsonRoundTrip(lists);
    EXPECT_EQ(json::serialize(lists[1]),
              R"([{"startTimeMs":1,"durationMs":2},{"startTimeMs":10,"durationMs":-1}])");
}

TEST(RecordsJson, PacketKeysAndValueForms)
{
    ObjectMetadataPacket p;
    p.deviceId = kDevice;
    p.timestampUs = 9'007'199'254'740'993;  // not representable as a double
    p.objectMetadataList = {
        {kTrack, "t", ObjectMetadataType::externalBestShot, Rect{}, {}, kEngine}};
    EXPECT_EQ(
        json::serialize(p),
        R"({"deviceId":"{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}","timestampUs":9007199254740993,)"
        R"("durationUs":0,"objectMetadataList":[{"trackId":"{a0a0a0a0-b1b1-c2c2-d3d3-e4e4e4e4e4e4}",)"
        R"("typeId":"t","objectMetadataType":"externalBestShot",)"
        R"("boundingBox":{"x":0.0,"y":0.0,"width":0.0,"height":0.0},"attributes":[],)"
        R"("analyticsEngineId":"{00000000-0000-0000-0000-0000000000ee}"}],"streamIndex":""})");

    ObjectMetadataPacket back;
    ASSERT_TRUE(json::deserialize(json::serialize(p), &back));
    EXPECT_EQ(back.timestampUs, p.timestampUs);
}

TEST(RecordsJson, EnumsByNameOrNumberAndStreamIndexText)
{
    struct Case
    {
        std::string json;
        ObjectMetadataType type;
        StreamIndex stream;
    };
    const std::vector<Case> cases = {
        {R"({"objectMetadataList":[{"objectMetadataType":"regular"}],"streamIndex":"primary"})",
         ObjectMetadataType::regular, StreamIndex::primary},
        {R"({"objectMetadataList":[{"objectMetadataType":2}],"streamIndex":"secondary"})",
         ObjectMetadataType::bestShot, StreamIndex::secondary},
        {R"({"objectMetadataList":[{"objectMetadataType":"3"}],"streamIndex":""})",
         ObjectMetadataType::externalBestShot, StreamIndex::undefined},
        {R"({"objectMetadataList":[{"objectMetadataType":"undefined"}],"streamIndex":"0"})",
         ObjectMetadataType::undefined, StreamIndex::primary},
    };
    for (const auto& c : cases) {
        ObjectMetadataPacket p;
        const auto result = json::deserialize(c.json, &p);
        ASSERT_TRUE(result) << c.json << ": " << result.errorDescription;
        ASSERT_EQ(p.objectMetadataList.size(), 1u);
        EXPECT_EQ(p.objectMetadataList[0].objectMetadataType, c.type) << c.json;
        EXPECT_EQ(p.streamIndex, c.stream) << c.json;
    }
}

TEST(RecordsJson, FailuresInARequestBodyPointAtTheValue)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"([{}, {"objectMetadataList":[{}, {}, {"attributes":{}}]}])",
         "[1].objectMetadataList[2].attributes: Array is expected"},
        {R"([{"objectMetadataList":[{"attributes":["x"]}]}])",
         "[0].objectMetadataList[0].attributes[0]: Object value expected"},
        {R"([{"streamIndex":0}])", "[0].streamIndex: String value is expected for an object"},
        {R"([{"streamIndex":"third"}])",
         "[0].streamIndex: Can't parse the string (custom parser failed)"},
        {R"([{"deviceId":"{6c1b4a1e}"}])",
         "[0].deviceId: Can't parse the string (custom parser failed)"},
        {R"([{"timestampUs":"soon"}])",
         "[0].timestampUs: Either a number or a string is expected for an integral value"},
        {R"({"objectMetadataList":[]})", "Array is expected"},
        {"null", "Either an object or an array is expected as a json object"},
    };
    for (const auto& [input, expected] : cases) {
        std::vector<ObjectMetadataPacket> packets;
        EXPECT_EQ(json::deserialize(input, &packets).errorDescription, expected) << input;
    }

    Filter f;
    EXPECT_EQ(
        json::deserialize(R"({"needFullTrack":"yes"})", &f).errorDescription,
        "needFullTrack: Either a bool value or a string value \"true\" or \"false\" is expected");
    EXPECT_EQ(json::deserialize(R"({"sortOrder":"up"})", &f).errorDescription,
              "sortOrder: Can't parse the string (custom parser failed)");
    EXPECT_EQ(json::deserialize("[]", &f).errorDescription, "Object value expected");
}

TEST(RecordsJson, ALargeBodyParses)
{
    constexpr int kCount = 10'000;
    std::string body = "\xEF\xBB\xBF[";
    const std::string packet = json::serialize(fullPacket());
    for (int i = 0; i < kCount; ++i) {
        if (i > 0)
            body += ',';
        body += packet;
    }
    body += ']';

    std::vector<ObjectMetadataPacket> packets;
    const auto start = std::chrono::steady_clock::now();
    const auto result = json::deserialize(body, &packets);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(result) << result.errorDescription;
    ASSERT_EQ(packets.size(), static_cast<std::size_t>(kCount));
    EXPECT_EQ(packets.back(), fullPacket());
    // Generous even for sanitizer builds; the point is to catch accidental quadratic work.
    EXPECT_LT(elapsed, std::chrono::seconds(20));
}

}  // namespace kest::analytics::db::test
