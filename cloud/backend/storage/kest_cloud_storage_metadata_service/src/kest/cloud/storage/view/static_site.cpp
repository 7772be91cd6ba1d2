#include "static_site.h"

#include <QFile>

#include "api_paths.h"

namespace kest::cloud::storage::metadatadb {

namespace {

constexpr const char* kHtml = "text/html; charset=utf-8";
constexpr const char* kCss = "text/css; charset=utf-8";
constexpr const char* kJavaScript = "text/javascript; charset=utf-8";

}  // namespace

StaticSite::StaticSite(const char* directoryPath, std::vector<File> files)
    : m_directoryPath(directoryPath)
{
    // Read once: resources may be compressed, and some are large.
    for (const File& file : files) {
        QFile resource(file.resource);
        if (resource.open(QIODevice::ReadOnly))
            m_documents[file.name] = {resource.readAll().toStdString(), file.contentType};
    }
}

const StaticSite::Document* StaticSite::find(std::string_view name) const
{
    const auto it = m_documents.find(name);
    return it == m_documents.end() ? nullptr : &it->second;
}

const StaticSite& StaticSite::docs()
{
    // The page loads its assets and "openapi.json" relative to itself.
    static const StaticSite site(
        ApiPaths::kDocsDirectoryPath,
        {
            {"", ":/docs/api/v1/swagger/index.html", kHtml},
            {"index.html", ":/docs/api/v1/swagger/index.html", kHtml},
            {"openapi.json", ":/docs/api/v1/openapi.json", "application/json"},
            {"swagger-ui.css", ":/docs/api/v1/swagger/swagger-ui.css", kCss},
            {"swagger-ui-bundle.js", ":/docs/api/v1/swagger/swagger-ui-bundle.js", kJavaScript},
            {"swagger-ui-standalone-preset.js",
             ":/docs/api/v1/swagger/swagger-ui-standalone-preset.js", kJavaScript},
        });
    return site;
}

const StaticSite& StaticSite::console()
{
    // The page calls the API with paths relative to itself ("../activity.svg").
    static const StaticSite site(ApiPaths::kConsoleDirectoryPath,
                                 {
                                     {"", ":/console/index.html", kHtml},
                                     {"index.html", ":/console/index.html", kHtml},
                                     {"console.css", ":/console/console.css", kCss},
                                     {"console.js", ":/console/console.js", kJavaScript},
                                 });
    return site;
}

}  // namespace kest::cloud::storage::metadatadb
