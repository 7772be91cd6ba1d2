#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kest/network/http/abstract_request_handler.h>
#include <kest/network/http/request_path_params.h>

namespace kest::network::http::server::rest {

/** Makes a new handler for one request. */
using RequestHandlerFactory = std::function<std::unique_ptr<AbstractRequestHandler>()>;

/**
 * The routes of one HTTP method: path templates such as "/a/{id}/b" turned into whole-path
 * patterns, each with its parameter names and its handler factory.
 */
class PathMatcher
{
public:
    struct Match
    {
        const RequestHandlerFactory* factory = nullptr;
        RequestPathParams pathParams;
    };

    PathMatcher();
    ~PathMatcher();
    PathMatcher(PathMatcher&&) noexcept;
    PathMatcher& operator=(PathMatcher&&) noexcept;

    /** False when the template is already registered, or does not make a valid pattern. */
    bool add(const std::string& pathTemplate, RequestHandlerFactory factory);

    /**
     * The first entry whose pattern matches the whole path, with its extracted parameters. The
     * path is matched as received, still percent-encoded; the parameters are then decoded.
     */
    std::optional<Match> match(const std::string& path) const;

    /** The pattern a template compiles to: placeholders become "\([^/]*\)", anchored at both ends.
     */
    static std::string templateToPattern(const std::string& pathTemplate);
    /** The placeholder names of a template, in order of appearance. */
    static std::vector<std::string> parameterNames(const std::string& pathTemplate);

private:
    struct Entry;
    // Keyed by pattern text, so one template cannot be registered twice.
    std::map<std::string, std::unique_ptr<Entry>> m_entries;
};

}  // namespace kest::network::http::server::rest
