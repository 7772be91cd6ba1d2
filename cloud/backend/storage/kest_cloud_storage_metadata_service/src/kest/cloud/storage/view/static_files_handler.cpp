#include "static_files_handler.h"

namespace kest::cloud::storage::metadatadb {

using namespace kest::network::http;

StaticFilesHandler::StaticFilesHandler(StaticSite::Get site) : m_site(site) {}

void StaticFilesHandler::processRequest(
    RequestContext requestContext, kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    const auto file = requestContext.requestPathParams.getByName("file");
    const StaticSite::Document* document = m_site().find(file.value_or(std::string()));
    if (!document) {
        completionHandler(RequestResult(StatusCode::notFound));
        return;
    }
    completionHandler(RequestResult(StatusCode::ok, document->content, document->contentType));
}

DirectoryRedirectHandler::DirectoryRedirectHandler(StaticSite::Get site) : m_site(site) {}

void DirectoryRedirectHandler::processRequest(
    RequestContext /*requestContext*/,
    kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler)
{
    RequestResult result(StatusCode::movedPermanently);
    result.headers.emplace_back("Location", std::string(m_site().directoryPath()) + "/");
    completionHandler(std::move(result));
}

}  // namespace kest::cloud::storage::metadatadb
