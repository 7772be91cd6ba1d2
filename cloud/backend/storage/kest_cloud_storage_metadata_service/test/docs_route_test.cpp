// The API documentation served on the API's origin, and the setting that turns it off.

#include <gtest/gtest.h>

#include <kest/cloud/storage/testing/running_service.h>

#include <QFile>
#include <tuple>

namespace kest::cloud::storage::metadatadb::test {
namespace {

std::string resource(const char* path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path;
    return file.readAll().toStdString();
}

std::string lowerCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

TEST(DocsRouteTest, ThePageItsAssetsAndTheDescriptionComeFromTheResources)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    struct Case
    {
        std::string file;
        const char* resource;
        const char* contentType;
    };
    const Case cases[] = {
        {"", ":/docs/api/v1/swagger/index.html", "text/html"},
        {"index.html", ":/docs/api/v1/swagger/index.html", "text/html"},
        {"openapi.json", ":/docs/api/v1/openapi.json", "application/json"},
        {"swagger-ui.css", ":/docs/api/v1/swagger/swagger-ui.css", "text/css"},
        {"swagger-ui-bundle.js", ":/docs/api/v1/swagger/swagger-ui-bundle.js", "text/javascript"},
        {"swagger-ui-standalone-preset.js", ":/docs/api/v1/swagger/swagger-ui-standalone-preset.js",
         "text/javascript"},
    };
    for (const auto& [file, path, contentType] : cases) {
        const auto response = service.get("/metadataDb/v1/docs/" + file);
        ASSERT_TRUE(response) << file;
        EXPECT_EQ(200, response->status) << file;
        EXPECT_NE(std::string::npos,
                  lowerCase(response->head).find(std::string("content-type: ") + contentType))
            << response->head;
        const std::string expected = resource(path);
        EXPECT_FALSE(expected.empty());
        EXPECT_TRUE(response->body == expected) << file;
    }
    // The page finds the description beside itself, so "Try it out" asks this origin.
    EXPECT_NE(std::string::npos,
              resource(":/docs/api/v1/swagger/index.html").find("\"./openapi.json\""));

    // The directory without its "/" would resolve the page's links one level up.
    const auto redirect = service.get("/metadataDb/v1/docs");
    ASSERT_TRUE(redirect);
    EXPECT_EQ(301, redirect->status);
    EXPECT_NE(std::string::npos, redirect->head.find("\r\nLocation: /metadataDb/v1/docs/"))
        << redirect->head;

    for (const std::string target :
         {"/metadataDb/v1/docs/missing.js", "/metadataDb/v1/docs/swagger/index.html",
          "/metadataDb/v1/docs/..", "/metadataDb/v1/docs/openapi.json/", "/metadataDb/v1/doc/"}) {
        const auto response = service.get(target);
        ASSERT_TRUE(response) << target;
        EXPECT_EQ(404, response->status) << target;
    }
    const auto post =
        exchange(service.port(), "POST", "/metadataDb/v1/docs/", "{}", "application/json");
    ASSERT_TRUE(post);
    EXPECT_EQ(404, post->status);
}

// The console is served the same way, beside the documentation, and calls the API relative to
// itself.
TEST(DocsRouteTest, TheConsoleAndItsAssetsComeFromTheResources)
{
    RunningService service(kUnreachableMongo);
    ASSERT_TRUE(service.started());
    for (const auto& [file, path, contentType] :
         {std::tuple{"", ":/console/index.html", "text/html"},
          std::tuple{"index.html", ":/console/index.html", "text/html"},
          std::tuple{"console.css", ":/console/console.css", "text/css"},
          std::tuple{"console.js", ":/console/console.js", "text/javascript"}}) {
        const auto response = service.get(std::string("/metadataDb/v1/console/") + file);
        ASSERT_TRUE(response) << file;
        EXPECT_EQ(200, response->status) << file;
        EXPECT_NE(std::string::npos,
                  lowerCase(response->head).find(std::string("content-type: ") + contentType))
            << response->head;
        EXPECT_TRUE(response->body == resource(path)) << file;
    }
    const std::string script = resource(":/console/console.js");
    for (const char* call : {"\"activity.svg\"", "\"data\"", "\"../\""})
        EXPECT_NE(std::string::npos, script.find(call)) << call;
    const auto redirect = service.get("/metadataDb/v1/console");
    ASSERT_TRUE(redirect);
    EXPECT_EQ(301, redirect->status);
    EXPECT_NE(std::string::npos, redirect->head.find("\r\nLocation: /metadataDb/v1/console/"));
    const auto missing = service.get("/metadataDb/v1/console/openapi.json");
    ASSERT_TRUE(missing);
    EXPECT_EQ(404, missing->status);
}

TEST(DocsRouteTest, TurnedOffNothingOfThemIsServed)
{
    RunningService service(kUnreachableMongo, {"--http/serveDocs=false"});
    ASSERT_TRUE(service.started());
    for (const std::string target :
         {"/metadataDb/v1/docs/", "/metadataDb/v1/docs/openapi.json", "/metadataDb/v1/docs",
          "/metadataDb/v1/console/", "/metadataDb/v1/console/console.js",
          "/metadataDb/v1/console"}) {
        const auto response = service.get(target);
        ASSERT_TRUE(response) << target;
        EXPECT_EQ(404, response->status) << target;
    }
    const auto ping = exchange(service.port(), "POST", "/metadataDb/ping");
    ASSERT_TRUE(ping);
    EXPECT_EQ(200, ping->status);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
