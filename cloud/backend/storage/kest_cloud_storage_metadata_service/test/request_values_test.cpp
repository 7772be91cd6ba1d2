// What requests may carry beyond their types: text that is not UTF-8, objects without a track
// id, boxes and periods out of bounds, and query items that say what is wrong with them. The
// rules alone, then through the service over HTTP.

#include <gtest/gtest.h>

#include <QUrl>
#include <cstdio>
#include <map>

#include <rapidjson/document.h>

#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/controller/value_rules.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/network/http/api/api_request_result.h>
#include <kest/reflect/json.h>
#include <kest/reflect/utf8.h>

namespace kest::cloud::storage::metadatadb::test {
namespace {

using kest::analytics::db::ObjectTrackEx;
using kest::common::metadata::ObjectMetadataPacket;

const ZuUuid kDevice("{6f1c0de0-0000-4000-8000-00000000000a}");
constexpr std::int64_t kT0Ms = 1'700'000'000'000;

std::string prepare(std::vector<ObjectMetadataPacket>* packets, std::size_t* untracked = nullptr)
{
    std::size_t count = 0;
    const std::string problem = ValueRules::preparePackets(packets, &count);
    if (untracked)
        *untracked = count;
    return problem;
}

TEST(ValueRulesTest, RefusesWhatNoPacketCanHaveAndCutsBoxesAtTheFrame)
{
    const auto withPacket = [](auto change) {
        std::vector<ObjectMetadataPacket> packets{
            packet(kDevice, kT0Ms, ZuUuid::createUuid(), "a"),
            packet(kDevice, kT0Ms, ZuUuid::createUuid(), "b")};
        change(packets[1]);
        return prepare(&packets);
    };
    EXPECT_EQ("[1].durationUs: -1 is not within 0 to 2^62-1 microseconds",
              withPacket([](auto& p) { p.durationUs = -1; }));
    EXPECT_EQ("[1].durationUs: 4611686018427387904 is not within 0 to 2^62-1 microseconds",
              withPacket([](auto& p) { p.durationUs = ValueRules::kMaxTimeUs + 1; }));
    EXPECT_EQ(
        "[1].timestampUs: -1000 is not within 0 to 2^62-1 microseconds since 1970-01-01 00:00 UTC",
        withPacket([](auto& p) { p.timestampUs = -1000; }));
    EXPECT_EQ(
        "[1].objectMetadataList[0].boundingBox.x: 5 is not within 0 to 1, a fraction of the "
        "frame's size",
        withPacket([](auto& p) { p.objectMetadataList[0].boundingBox.x = 5; }));
    EXPECT_EQ(
        "[1].objectMetadataList[0].boundingBox.height: -0.25 is not within 0 to 1, a fraction "
        "of the frame's size",
        withPacket([](auto& p) { p.objectMetadataList[0].boundingBox.height = -0.25; }));
    EXPECT_EQ("", withPacket([](auto& p) {
                  p.timestampUs = ValueRules::kMaxTimeUs;
                  p.durationUs = ValueRules::kMaxTimeUs;
              }));

    std::vector<ObjectMetadataPacket> packets{packet(kDevice, kT0Ms, ZuUuid::createUuid(), "a")};
    packets[0].objectMetadataList[0].boundingBox = {0.75, 0.5, 0.5, 0.25};
    ASSERT_EQ("", prepare(&packets));
    EXPECT_EQ((kest::common::metadata::Rect{0.75, 0.5, 0.25, 0.25}),
              packets[0].objectMetadataList[0].boundingBox);

    kest::analytics::db::Filter filter;
    filter.timePeriod.durationMs = -1;
    EXPECT_EQ("", ValueRules::checkFilter(filter)) << "-1 is no end";
    filter.timePeriod.durationMs = -2;
    EXPECT_NE(std::string::npos,
              ValueRules::checkFilter(filter).find("filter.timePeriod.durationMs: -2 is negative"));
    filter.timePeriod.durationMs = 0;
    filter.boundingBox = kest::common::metadata::Rect{0.5, 0.5, 0.75, 1};
    EXPECT_EQ("", ValueRules::checkFilter(filter)) << "a search box may reach past the frame";
    filter.boundingBox->y = 1.5;
    EXPECT_NE(std::string::npos, ValueRules::checkFilter(filter).find("filter.boundingBox.y: 1.5"));
}

TEST(ValueRulesTest, UntrackedObjectsGetIdsThatASecondSendingRepeats)
{
    const auto makePackets = [] {
        auto p = packet(kDevice, kT0Ms, ZuUuid(), "person");
        p.objectMetadataList.push_back(p.objectMetadataList[0]);
        p.objectMetadataList.push_back(p.objectMetadataList[0]);
        p.objectMetadataList[1].trackId = ZuUuid("{7a000000-0000-4000-8000-000000000001}");
        return std::vector<ObjectMetadataPacket>{p, packet(kDevice, kT0Ms + 1, ZuUuid(), "car")};
    };
    auto first = makePackets();
    std::size_t untracked = 0;
    ASSERT_EQ("", prepare(&first, &untracked));
    EXPECT_EQ(3u, untracked);
    const auto& objects = first[0].objectMetadataList;
    EXPECT_EQ(ZuUuid("{7a000000-0000-4000-8000-000000000001}"), objects[1].trackId);
    const std::set<ZuUuid> ids{objects[0].trackId, objects[2].trackId,
                               first[1].objectMetadataList[0].trackId};
    EXPECT_EQ(3u, ids.size()) << "each object is a track of its own";
    EXPECT_FALSE(ids.contains(ZuUuid()));

    auto again = makePackets();
    ASSERT_EQ("", prepare(&again));
    EXPECT_EQ(first, again);
    EXPECT_NE(objects[0].trackId,
              ValueRules::untrackedObjectTrackId(ZuUuid::createUuid(), kT0Ms * 1000, 0));
}

/** One packet of kDevice with one object; `attributeValue` is JSON string text, escapes allowed. */
std::string packetJson(std::int64_t timeMs, const std::string& track,
                       const std::string& attributeValue)
{
    return R"([{"deviceId":")" + kDevice.toStdString() + R"(","timestampUs":)" +
           std::to_string(timeMs * 1000) + R"(,"durationUs":1000,"objectMetadataList":[{)" +
           (track.empty() ? std::string() : R"("trackId":")" + track + R"(",)") +
           R"("typeId":"thing","boundingBox":{"x":0.1,"y":0.1,"width":0.2,"height":0.2},)"
           R"("attributes":[{"name":"byte","value":")" +
           attributeValue + R"("}]}]}])";
}

std::string errorText(const std::optional<HttpResponse>& response)
{
    kest::network::http::ApiRequestResult result;
    EXPECT_TRUE(response && result.fromJson(response->body));
    return result.errorText();
}

std::string searchTarget(const std::string& items)
{
    return "/metadataDb/v1/data?internal_lookup=1&deviceIds=" + kDevice.toSimpleStdString() + items;
}

TEST(RequestValuesApiTest, EveryByteValueIsStoredAndFoundAsValidJsonOrRefusedByName)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    std::map<ZuUuid, std::string> expected;
    for (int byte = 0; byte < 256; ++byte) {
        // JSON has no raw control characters, quotes or backslashes in strings: those go escaped.
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\u%04x", byte);
        const bool escaped = byte < 0x20 || byte == '"' || byte == '\\';
        const std::string raw(1, static_cast<char>(byte));
        char track[40];
        std::snprintf(track, sizeof(track), "7a000000-0000-4000-8000-%012x", byte + 1);
        const auto response =
            exchange(service.port(), "POST", "/metadataDb/v1/data",
                     packetJson(kT0Ms + byte, track, "AB" + (escaped ? escape : raw) + "12"),
                     "application/json");
        ASSERT_TRUE(response);
        if (byte < 0x80) {
            EXPECT_EQ(200, response->status) << byte;
            expected[ZuUuid(track)] = "AB" + raw + "12";
        } else {
            EXPECT_EQ(400, response->status) << byte;
            EXPECT_EQ(
                "Error deserializing input of type std::vector<kest::common::metadata::"
                "ObjectMetadataPacket>: [0].objectMetadataList[0].attributes[0].value: The text "
                "is not valid UTF-8",
                errorText(response));
        }
    }
    service.events().flush();

    const auto found = service.get(searchTarget(""));
    ASSERT_TRUE(found);
    ASSERT_EQ(200, found->status);
    EXPECT_TRUE(kest::reflect::utf8::isValid(found->body));
    rapidjson::Document strict;
    strict.Parse<rapidjson::kParseValidateEncodingFlag>(found->body.data(), found->body.size());
    EXPECT_FALSE(strict.HasParseError());
    std::vector<ObjectTrackEx> tracks;
    ASSERT_TRUE(kest::reflect::json::deserialize(found->body, &tracks));
    std::map<ZuUuid, std::string> stored;
    for (const auto& track : tracks) {
        ASSERT_EQ(1u, track.attributes.size());
        stored[track.id] = track.attributes[0].value;
    }
    EXPECT_EQ(expected, stored);
}

TEST(RequestValuesApiTest, IllFormedUtf8IsRefusedInEveryInputFormByName)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const std::string searchType =
        "Error deserializing input of type kest::cloud::storage::metadatadb::DataRequestData: ";

    // The query items, decoded once by the frame and once more by the filter's reader.
    EXPECT_EQ(searchType + "Invalid URL query: freeText: The text is not valid UTF-8",
              errorText(service.get(searchTarget("&freeText=red%FF"))));
    EXPECT_EQ(searchType + "Invalid URL query: freeText: The text is not valid UTF-8",
              errorText(service.get(searchTarget("&freeText=red%25FF"))));
    // The search as JSON, and as a form whose filter is JSON text.
    EXPECT_EQ(
        searchType + "filter.freeText: The text is not valid UTF-8",
        errorText(service.get("/metadataDb/v1/data?" + QByteArray(R"({"filter":{"freeText":"a)"
                                                                  "\xc3"
                                                                  R"("}})")
                                                           .toPercentEncoding()
                                                           .toStdString(),
                              "application/json")));
    EXPECT_EQ(
        searchType + "filter.freeText: The text is not valid UTF-8",
        errorText(service.get("/metadataDb/v1/data?filter=%7B%22freeText%22%3A%22%5Cudc00%22%7D",
                              "application/x-www-form-urlencoded")));
    EXPECT_EQ(searchType + "internal_lookup: The text is not valid UTF-8",
              errorText(service.get("/metadataDb/v1/data?internal_lookup=%FF",
                                    "application/x-www-form-urlencoded")));
    // An error text that quotes what the client sent stays valid too.
    const auto format = service.get(searchTarget("&format=%FF"));
    ASSERT_TRUE(format);
    EXPECT_EQ(406, format->status);
    EXPECT_TRUE(kest::reflect::utf8::isValid(format->body)) << format->body;

    // A name the record does not have is no way around it.
    const auto unknown = exchange(service.port(), "POST", "/metadataDb/v1/data",
                                  "[{\"note\":\"\xff\"}]", "application/json");
    EXPECT_EQ(
        "Error deserializing input of type std::vector<kest::common::metadata::"
        "ObjectMetadataPacket>: [0].note: The text is not valid UTF-8",
        errorText(unknown));
}

TEST(RequestValuesApiTest, UntrackedObjectsAreFoundAsTracksAndCounted)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const auto post = [&](const std::string& track) {
        const auto response = exchange(service.port(), "POST", "/metadataDb/v1/data",
                                       packetJson(kT0Ms, track, "x"), "application/json");
        return response ? response->status : 0;
    };
    // Absent, and the null UUID: the same object of the same packet.
    ASSERT_EQ(200, post(""));
    ASSERT_EQ(200, post("00000000-0000-0000-0000-000000000000"));
    service.events().flush();

    const auto found = service.get(searchTarget(""));
    ASSERT_TRUE(found);
    std::vector<ObjectTrackEx> tracks;
    ASSERT_TRUE(kest::reflect::json::deserialize(found->body, &tracks)) << found->body;
    ASSERT_EQ(1u, tracks.size()) << found->body;
    EXPECT_EQ(ValueRules::untrackedObjectTrackId(kDevice, kT0Ms * 1000, 0), tracks[0].id);

    const auto metrics = service.get("/metadataDb/metrics");
    ASSERT_TRUE(metrics);
    EXPECT_NE(std::string::npos, metrics->body.find("\nmetadatadb_untracked_objects_total 2\n"))
        << metrics->body;
}

TEST(RequestValuesApiTest, QueryErrorsNameTheItemAndWhatItExpects)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    const std::string prefix =
        "Error deserializing input of type kest::cloud::storage::metadatadb::DataRequestData: "
        "Invalid URL query: ";
    const std::string uuid =
        " is not a UUID: 32 hexadecimal digits grouped 8-4-4-4-12 by dashes, braces allowed";
    const std::pair<std::string, std::string> cases[] = {
        {"deviceIds=", "deviceIds: ''" + uuid},
        {"deviceIds=6f1c2b9e3d4a4c559e0f1a2b3c4d5e6f",
         "deviceIds: '6f1c2b9e3d4a4c559e0f1a2b3c4d5e6f'" + uuid},
        {"sortOrder=up", "sortOrder: 'up' is neither 'asc' nor 'desc'"},
        {"maxObjectTracksToSelect=2147483648",
         "maxObjectTracksToSelect: '2147483648' is out of range: -2147483648 to 2147483647 is "
         "expected"},
        {"startTimeMs=2026-01-01T00:00:00Z",
         "startTimeMs: '2026-01-01T00:00:00Z' is not a whole number of milliseconds since "
         "1970-01-01 00:00 UTC"},
        {"boundingBox=0.1,0.1",
         "boundingBox: '0.1,0.1' is not four numbers 'x,y,width,height' (fractions of the frame)"},
        {"boundingBox=0.1,0.1,5,0.2",
         "boundingBox: '0.1,0.1,5,0.2': width 5 is not within 0 to 1, a fraction of the frame's "
         "size"},
        {"durationMs=-5",
         "durationMs: '-5' is negative: 0 or more milliseconds, or -1 for no end, is expected"},
        {"needFullTrack=yes", "needFullTrack: 'yes' is neither 'true' nor 'false'"},
    };
    for (const auto& [items, text] : cases) {
        const auto response = service.get("/metadataDb/v1/data?internal_lookup=1&" + items);
        ASSERT_TRUE(response);
        EXPECT_EQ(400, response->status) << items;
        EXPECT_EQ(prefix + text, errorText(response)) << items;
    }
    EXPECT_EQ(
        "Error deserializing input of type kest::cloud::storage::metadatadb::"
        "OptimalInstanceRequest: Invalid URL query: VmsId: missing; the UUID of the VMS that "
        "asks is expected",
        errorText(service.get("/metadataDb/v1/optimalInstance?vmsId=x")));

    // The same bounds hold for a search sent as JSON.
    const auto box = service.get(
        "/metadataDb/v1/data?" +
            QUrl::toPercentEncoding(
                R"({"internal_lookup":true,"filter":{"boundingBox":{"x":5,"y":0,"width":0,"height":0}}})")
                .toStdString(),
        "application/json");
    EXPECT_EQ(
        "Error deserializing input of type kest::cloud::storage::metadatadb::DataRequestData: "
        "filter.boundingBox.x: 5 is not within 0 to 1, a fraction of the frame's size",
        errorText(box));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
