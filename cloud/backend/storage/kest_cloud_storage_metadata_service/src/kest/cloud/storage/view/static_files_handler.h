#pragma once

#include <kest/network/http/abstract_request_handler.h>

#include "static_site.h"

namespace kest::cloud::storage::metadatadb {

/** Serves the file of a StaticSite that the route's {file} parameter names; any other is 404. */
class StaticFilesHandler : public kest::network::http::AbstractRequestHandler
{
public:
    /** `site` gives the site, made on first use. */
    explicit StaticFilesHandler(StaticSite::Get site);

    void processRequest(kest::network::http::RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(kest::network::http::RequestResult)>
                            completionHandler) override;

private:
    StaticSite::Get m_site;
};

/**
 * Sends a site's directory without its final "/" to the directory itself, so that the page's
 * relative links resolve.
 */
class DirectoryRedirectHandler : public kest::network::http::AbstractRequestHandler
{
public:
    explicit DirectoryRedirectHandler(StaticSite::Get site);

    void processRequest(kest::network::http::RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(kest::network::http::RequestResult)>
                            completionHandler) override;

private:
    StaticSite::Get m_site;
};

}  // namespace kest::cloud::storage::metadatadb
