#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>
#include <QXmlStreamReader>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/controller/activity_answer.h>
#include <kest/cloud/storage/controller/activity_request_data.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/cloud/storage/model/db_error_data.h>
#include <kest/reflect/json.h>

namespace {

using Route = std::pair<std::string, std::string>;  //< Method in upper case, path template.

// What the View registers. Documentation tools exercise exactly the paths listed in the
// description, so it must name these and nothing else.
const std::set<Route> kServedRoutes{
    {"POST", "/metadataDb/v1/data"},
    {"GET", "/metadataDb/v1/data"},
    {"GET", "/metadataDb/v1/activity"},
    {"GET", "/metadataDb/v1/activity.svg"},
    {"GET", "/metadataDb/v1/optimalInstance"},
    {"GET", "/metadataDb/v1/dataSaveErrors/{deviceIds}"},
    {"POST", "/metadataDb/ping"},
    {"GET", "/metadataDb/metrics"},
};

QByteArray readResource(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QJsonObject readJsonResource(const QString& path)
{
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(readResource(path), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError)
        << path.toStdString() << ": " << error.errorString().toStdString();
    return document.object();
}

std::set<Route> openApiRoutes(const QJsonObject& openApi)
{
    static const QStringList kMethods{"get", "put", "post", "delete", "patch", "head", "options"};
    std::set<Route> routes;
    const auto paths = openApi["paths"].toObject();
    for (auto path = paths.begin(); path != paths.end(); ++path) {
        const auto item = path.value().toObject();
        for (const auto& method : kMethods) {
            if (item.contains(method))
                routes.emplace(method.toUpper().toStdString(), path.key().toStdString());
        }
    }
    return routes;
}

// Every "$ref" must point at an existing node, or tools refuse the whole document.
void expectReferencesResolve(const QJsonObject& root, const QJsonValue& node, const std::string& at)
{
    if (node.isArray()) {
        const auto array = node.toArray();
        for (int i = 0; i < array.size(); ++i)
            expectReferencesResolve(root, array[i], at + "/" + std::to_string(i));
        return;
    }
    if (!node.isObject())
        return;
    const auto object = node.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() == "$ref") {
            const auto ref = it.value().toString();
            ASSERT_TRUE(ref.startsWith("#/")) << at << ": " << ref.toStdString();
            QJsonValue target = root;
            for (const auto& part : ref.mid(2).split('/'))
                target = target.toObject().value(part);
            EXPECT_TRUE(target.isObject()) << at << ": dangling " << ref.toStdString();
        } else {
            expectReferencesResolve(root, it.value(), at + "/" + it.key().toStdString());
        }
    }
}

QJsonObject resolve(const QJsonObject& root, QJsonObject schema)
{
    for (;;) {
        if (schema.contains("$ref")) {
            QJsonValue target = root;
            for (const auto& part : schema["$ref"].toString().mid(2).split('/'))
                target = target.toObject().value(part);
            schema = target.toObject();
        } else if (schema["allOf"].toArray().size() == 1) {
            schema = schema["allOf"].toArray()[0].toObject();
        } else {
            return schema;
        }
    }
}

// The keys the service writes must be the keys the description names, at every depth; `value`
// is a record with every list non-empty, so that each nested record shows all its keys.
void expectSameKeys(const QJsonObject& root, const QJsonValue& value, QJsonObject schema,
                    const std::string& at)
{
    schema = resolve(root, schema);
    if (value.isArray()) {
        for (const auto& item : value.toArray())
            expectSameKeys(root, item, schema["items"].toObject(), at + "[]");
        return;
    }
    if (!value.isObject())
        return;
    const auto object = value.toObject();
    if (schema.contains("additionalProperties") && !schema.contains("properties")) {
        // A map: any keys, each value as described.
        for (auto it = object.begin(); it != object.end(); ++it) {
            expectSameKeys(root, it.value(), schema["additionalProperties"].toObject(),
                           at + "." + it.key().toStdString());
        }
        return;
    }
    const auto properties = schema["properties"].toObject();
    EXPECT_EQ(object.keys().join(", ").toStdString(), properties.keys().join(", ").toStdString())
        << "written vs documented keys of " << at;
    for (auto it = object.begin(); it != object.end(); ++it) {
        expectSameKeys(root, it.value(), properties[it.key()].toObject(),
                       at + "." + it.key().toStdString());
    }
}

QJsonValue toQJson(const std::string& json)
{
    const auto document = QJsonDocument::fromJson(QByteArray::fromStdString(json));
    return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
}

/** The names of the operation's query parameters, "format" left out. */
std::set<std::string> documentedQueryItems(const QJsonObject& openApi, const char* path)
{
    std::set<std::string> names;
    for (const QJsonValue value : openApi["paths"][path]["get"]["parameters"].toArray()) {
        const auto parameter = resolve(openApi, value.toObject());
        if (parameter["in"].toString() == "query" && parameter["name"].toString() != "format")
            names.insert(parameter["name"].toString().toStdString());
    }
    return names;
}

template <typename Record>
std::set<std::string> writtenQueryItems(const Record& record)
{
    QUrlQuery query;
    serializeToUrlQuery(record, &query);
    std::set<std::string> names;
    for (const auto& [name, value] : query.queryItems())
        names.insert(name.toStdString());
    return names;
}

QJsonObject schemaRef(const char* name)
{
    return {{"$ref", QString("#/components/schemas/") + name}};
}

}  // namespace

TEST(ApiDocs, every_document_is_compiled_in)
{
    for (const char* path :
         {":/docs/api/v1/openapi.json", ":/docs/api/v1/kestapi.xml", ":/docs/api/v1/kestapi.json",
          ":/docs/api/v1/swagger/swagger-ui-standalone-preset.js",
          ":/docs/api/v1/swagger/swagger-ui-bundle.js", ":/docs/api/v1/swagger/swagger-ui.css",
          ":/docs/api/v1/swagger/index.html"}) {
        // Missing resources usually mean the generated resource object was left out of the
        // link: a static library drops an object file that nothing references.
        EXPECT_TRUE(QFile::exists(path)) << path << " is not among the registered resources";
        EXPECT_FALSE(readResource(path).isEmpty()) << path;
    }
}

TEST(ApiDocs, openapi_describes_exactly_the_served_routes)
{
    const auto openApi = readJsonResource(":/docs/api/v1/openapi.json");
    EXPECT_TRUE(openApi["openapi"].toString().startsWith("3.0."));
    EXPECT_EQ(openApi["info"]["title"].toString(), "Cloud metadata storage API");
    EXPECT_EQ(openApi["info"]["version"].toString(), "1.0.0");
    EXPECT_EQ(openApiRoutes(openApi), kServedRoutes);

    const auto paths = openApi["paths"].toObject();
    EXPECT_TRUE(paths["/metadataDb/v1/data"]["post"]["description"].toString().startsWith(
        "Insert given data to database. Because real save to database may happen after handler "
        "response, response 200 does not guarantee that data was saved."));

    expectReferencesResolve(openApi, openApi, "");
}

// Clients decode failures by these keys; a renamed field in the description would mislead
// every generated client.
TEST(ApiDocs, openapi_error_body_matches_the_wire_format)
{
    const auto openApi = readJsonResource(":/docs/api/v1/openapi.json");
    const auto result = openApi["components"]["schemas"]["ApiRequestResult"].toObject();
    QStringList required;
    for (const auto& field : result["required"].toArray())
        required << field.toString();
    EXPECT_EQ(required.join(", ").toStdString(), "errorClass, resultCode, errorText, errorDetail");
    for (const auto& field : required)
        EXPECT_EQ(result["properties"][field]["type"].toString(), "string") << field.toStdString();

    // The frame answers 400, 406 and 500 on every route it serves (ping and metrics are not).
    const auto paths = openApi["paths"].toObject();
    for (const auto& [method, path] : kServedRoutes) {
        if (path == "/metadataDb/ping" || path == "/metadataDb/metrics")
            continue;
        const auto responses = paths[QString::fromStdString(path)]
                                    [QString::fromStdString(method).toLower()]["responses"]
                                        .toObject();
        for (const char* status : {"400", "406", "500"})
            EXPECT_TRUE(responses.contains(status)) << method << " " << path << " " << status;
    }
}

TEST(ApiDocs, reference_documents_list_the_same_routes)
{
    const auto reference = readJsonResource(":/docs/api/v1/kestapi.json");
    EXPECT_EQ(reference["version"].toString(), "1.0.0");
    std::set<Route> jsonRoutes;
    for (const QJsonValue group : reference["groups"].toArray()) {
        for (const QJsonValue function : group["functions"].toArray()) {
            jsonRoutes.emplace(function["method"].toString().toStdString(),
                               function["path"].toString().toStdString());
        }
    }
    EXPECT_EQ(jsonRoutes, kServedRoutes);

    QXmlStreamReader xml(readResource(":/docs/api/v1/kestapi.xml"));
    std::set<Route> xmlRoutes;
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement &&
            xml.name() == QLatin1String("function")) {
            xmlRoutes.emplace(xml.attributes().value("method").toString().toStdString(),
                              xml.attributes().value("path").toString().toStdString());
        }
    }
    EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    EXPECT_EQ(xmlRoutes, kServedRoutes);
}

TEST(ApiDocs, documented_records_have_the_keys_the_service_reads_and_writes)
{
    using namespace kest::analytics::db;
    using namespace kest::common::metadata;
    const auto openApi = readJsonResource(":/docs/api/v1/openapi.json");

    ObjectTrackEx track;
    track.attributes = {{"color", "red"}};
    ObjectPosition position;
    position.attributes = {{"speed", "5"}};
    track.objectPositionSequence = {position};
    expectSameKeys(openApi, toQJson(kest::reflect::json::serialize(std::vector{track})),
                   {{"type", "array"}, {"items", schemaRef("ObjectTrackEx")}}, "tracks");

    kest::cloud::storage::metadatadb::DbErrorData errors;
    errors.timePeriod.push_back(ZuTimePeriod{1000, 2000});
    expectSameKeys(openApi, toQJson(kest::reflect::json::serialize(errors)),
                   schemaRef("DbErrorData"), "DbErrorData");

    ObjectMetadataPacket packet;
    ObjectMetadata object;
    object.attributes = {{"color", "red"}};
    packet.objectMetadataList = {object};
    expectSameKeys(openApi, toQJson(kest::reflect::json::serialize(packet)),
                   schemaRef("ObjectMetadataPacket"), "ObjectMetadataPacket");

    kest::cloud::storage::metadatadb::ActivityAnswer activity;
    activity.bucketMs = 60'000;
    activity.buckets = {{1'767'225'600'000, 2, {{"car", 2}}}};
    activity.heatmap = ActivityHeatmap{16, 16, std::vector<std::int64_t>(256, 0)};
    activity.instancesAsked = 2;
    activity.instancesAnswered = 1;
    expectSameKeys(openApi, toQJson(kest::reflect::json::serialize(activity)),
                   schemaRef("ActivityAnswer"), "ActivityAnswer");

    // The example is what a reader tries first; it must be a body the service accepts.
    const auto example = openApi["paths"]["/metadataDb/v1/data"]["post"]["requestBody"]["content"]
                                ["application/json"]["example"];
    std::vector<ObjectMetadataPacket> packets;
    const auto result = kest::reflect::json::deserialize(
        QJsonDocument(example.toArray()).toJson().toStdString(), &packets);
    ASSERT_TRUE(result.success) << result.errorDescription;
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_FALSE(packets[0].deviceId.isNull());
    EXPECT_EQ(packets[0].streamIndex, StreamIndex::primary);
    ASSERT_EQ(packets[0].objectMetadataList.size(), 1u);
    EXPECT_EQ(packets[0].objectMetadataList[0].objectMetadataType, ObjectMetadataType::regular);
}

// Clients write their queries with the records' codecs; tools that follow the description must
// send the same items.
TEST(ApiDocs, documented_query_items_are_the_ones_the_records_write)
{
    using namespace kest::cloud::storage::metadatadb;
    const auto openApi = readJsonResource(":/docs/api/v1/openapi.json");
    const ZuUuid id = ZuUuid::createUuid();

    DataRequestData data;
    auto& filter = data.filter;
    filter.deviceIds = {id};
    filter.objectTypeId = {"car"};
    filter.objectTrackId = id;
    filter.timePeriod = ZuTimePeriod(1, 2);
    filter.boundingBox = kest::common::metadata::Rect{0, 0, 1, 1};
    filter.freeText = "red";
    filter.maxObjectTracksToSelect = 5;
    filter.needFullTrack = true;
    filter.sortOrder = kest::analytics::db::SortOrder::asc;
    filter.withBestShotOnly = true;
    filter.analyticsEngineId = id;
    EXPECT_EQ(writtenQueryItems(data), documentedQueryItems(openApi, "/metadataDb/v1/data"));

    const ActivityRequestData activity{data.filter, true, 60'000, true};
    EXPECT_EQ(writtenQueryItems(activity),
              documentedQueryItems(openApi, "/metadataDb/v1/activity"));
    EXPECT_EQ(writtenQueryItems(activity),
              documentedQueryItems(openApi, "/metadataDb/v1/activity.svg"));

    EXPECT_EQ(writtenQueryItems(OptimalInstanceRequest{{id}, id}),
              documentedQueryItems(openApi, "/metadataDb/v1/optimalInstance"));
    EXPECT_EQ(writtenQueryItems(ErrorsRequestData{std::chrono::milliseconds(1), 2u, true}),
              documentedQueryItems(openApi, "/metadataDb/v1/dataSaveErrors/{deviceIds}"));
}
