#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QXmlStreamReader>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using Route = std::pair<std::string, std::string>;  //< Method in upper case, path template.

// What the View registers. Documentation tools exercise exactly the paths listed in the
// description, so it must name these and nothing else.
const std::set<Route> kServedRoutes{
    {"POST", "/metadataDb/v1/data"},
    {"GET", "/metadataDb/v1/data"},
    {"GET", "/metadataDb/v1/optimalInstance"},
    {"GET", "/metadataDb/v1/dataSaveErrors/{deviceIds}"},
    {"POST", "/metadataDb/ping"},
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
    EXPECT_EQ(required, QStringList({"errorClass", "resultCode", "errorText", "errorDetail"}));
    for (const auto& field : required)
        EXPECT_EQ(result["properties"][field]["type"].toString(), "string") << field.toStdString();

    // The frame answers 400, 406 and 500 on every route it serves (ping is not one of them).
    const auto paths = openApi["paths"].toObject();
    for (const auto& [method, path] : kServedRoutes) {
        if (path == "/metadataDb/ping")
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
