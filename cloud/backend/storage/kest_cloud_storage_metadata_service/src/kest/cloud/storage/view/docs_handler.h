#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <kest/network/http/abstract_request_handler.h>

namespace kest::cloud::storage::metadatadb {

/**
 * Serves the compiled-in API documentation on the API's own origin, so that the interactive
 * page's "Try it out" reaches the service: the page, its scripts and style, and the OpenAPI
 * description, named by the route's {file} parameter. Any other name is 404.
 */
class DocsHandler : public kest::network::http::AbstractRequestHandler
{
public:
    struct Document
    {
        std::string content;
        std::string contentType;
    };

    void processRequest(kest::network::http::RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(kest::network::http::RequestResult)>
                            completionHandler) override;

    /**
     * The document served under `file` ("" is the page), read from the resources once and kept;
     * nothing for a name that is not served.
     */
    static const Document* find(std::string_view file);
};

/** Sends the documentation's directory without its final "/" to the directory itself. */
class DocsRedirectHandler : public kest::network::http::AbstractRequestHandler
{
public:
    void processRequest(kest::network::http::RequestContext requestContext,
                        kest::utils::MoveOnlyFunc<void(kest::network::http::RequestResult)>
                            completionHandler) override;
};

}  // namespace kest::cloud::storage::metadatadb
