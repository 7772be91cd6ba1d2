#include "docs_handler.h"

#include <QFile>
#include <array>
#include <map>

#include "api_paths.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;

namespace {

struct Served
{
    std::string_view file;
    const char* resource;
    const char* contentType;
};

// The page loads its assets and "openapi.json" relative to itself.
constexpr std::array<Served, 6> kServed{{
    {"", ":/docs/api/v1/swagger/index.html", "text/html; charset=utf-8"},
    {"index.html", ":/docs/api/v1/swagger/index.html", "text/html; charset=utf-8"},
    {"openapi.json", ":/docs/api/v1/openapi.json", "application/json"},
    {"swagger-ui.css", ":/docs/api/v1/swagger/swagger-ui.css", "text/css; charset=utf-8"},
    {"swagger-ui-bundle.js", ":/docs/api/v1/swagger/swagger-ui-bundle.js",
     "text/javascript; charset=utf-8"},
    {"swagger-ui-standalone-preset.js", ":/docs/api/v1/swagger/swagger-ui-standalone-preset.js",
     "text/javascript; charset=utf-8"},
}};

/** Every served document, read once: resources may be compressed, and the bundle is large. */
const std::map<std::string_view, DocsHandler::Document>& documents()
{
    static const auto documents = [] {
        std::map<std::string_view, DocsHandler::Document> result;
        for (const auto& served : kServed) {
            QFile file(served.resource);
            if (file.open(QIODevice::ReadOnly))
                result[served.file] = {file.readAll().toStdString(), served.contentType};
        }
        return result;
    }();
    return documents;
}

}  // namespace

const DocsHandler::Document* DocsHandler::find(std::string_view file)
{
    const auto& all = documents();
    const auto it = all.find(file);
    return it == all.end() ? nullptr : &it->second;
}

void DocsHandler::processRequest(RequestContext requestContext,
                                 kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    const auto file = requestContext.requestPathParams.getByName("file");
    const Document* document = find(file.value_or(std::string()));
    if (!document) {
        completionHandler(RequestResult(StatusCode::notFound));
        return;
    }
    completionHandler(RequestResult(StatusCode::ok, document->content, document->contentType));
}

void DocsRedirectHandler::processRequest(
    RequestContext /*requestContext*/,
    kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    RequestResult result(StatusCode::movedPermanently);
    result.headers.emplace_back("Location", std::string(ApiPaths::kDocsDirectoryPath) + "/");
    completionHandler(std::move(result));
}

}  // namespace kest::cloud::storage::metadatadb
