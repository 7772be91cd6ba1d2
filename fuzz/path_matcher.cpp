// The path-template matcher with the service's routes, plus one template taken from the input.
// The input is "TEMPLATE\nPATH", or a PATH alone.
//
// Checked beyond crashes: a fixed route matches its own path only; the errors route matches its
// prefix and one segment without "/", and hands that segment over percent-decoded; a template
// cannot be registered twice.

#include <cstdint>
#include <map>
#include <string>

#include <kest/network/http/request.h>
#include <kest/network/http/server/rest/path_matcher.h>

#include "fuzz_check.h"

namespace {

using kest::network::http::Request;
using kest::network::http::server::rest::PathMatcher;
using kest::network::http::server::rest::RequestHandlerFactory;

// The service's route templates (the View registers them per method; here all in one table).
constexpr std::string_view kFixedPaths[] = {"/metadataDb/v1/data", "/metadataDb/v1/optimalInstance",
                                            "/metadataDb/ping"};
constexpr std::string_view kErrorsPrefix = "/metadataDb/v1/dataSaveErrors/";
const std::string kErrorsTemplate = std::string(kErrorsPrefix) + "{deviceIds}";

RequestHandlerFactory noHandler()
{
    return [] { return std::unique_ptr<kest::network::http::AbstractRequestHandler>(); };
}

struct Routes
{
    PathMatcher matcher;
    std::map<const RequestHandlerFactory*, std::string> names;

    Routes()
    {
        for (const auto path : kFixedPaths)
            matcher.add(std::string(path), noHandler());
        matcher.add(kErrorsTemplate, noHandler());
        for (const auto path : kFixedPaths)
            names[matcher.match(std::string(path))->factory] = path;
        names[matcher.match(std::string(kErrorsPrefix) + "x")->factory] = kErrorsTemplate;
    }
};

void checkServiceRoutes(const std::string& path)
{
    static const Routes routes;
    const auto match = routes.matcher.match(path);
    if (!match)
        return;
    FUZZ_CHECK(path.find('\0') == std::string::npos, "a path with a NUL matched");
    const std::string& route = routes.names.at(match->factory);
    if (route != kErrorsTemplate) {
        FUZZ_CHECK(path == route, path + " matched " + route);
        return;
    }
    FUZZ_CHECK(path.starts_with(kErrorsPrefix), path);
    const std::string_view segment = std::string_view(path).substr(kErrorsPrefix.size());
    FUZZ_CHECK(segment.find('/') == std::string_view::npos, path);
    const auto deviceIds = match->pathParams.getByName("deviceIds");
    FUZZ_CHECK(deviceIds && *deviceIds == Request::percentDecode(segment), path);
}

void checkOwnTemplate(const std::string& pathTemplate, const std::string& path)
{
    PathMatcher matcher;
    if (!matcher.add(pathTemplate, noHandler()))
        return;
    FUZZ_CHECK(!matcher.add(pathTemplate, noHandler()), "registered twice: " + pathTemplate);
    const auto match = matcher.match(path);
    if (match)
        FUZZ_CHECK(path.find('\0') == std::string::npos, "a path with a NUL matched");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    kest::fuzz::abortOnAssertionFailure();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(kest::fuzz::asText(data, size));
    const auto newline = input.find('\n');
    if (newline == std::string::npos) {
        checkServiceRoutes(input);
        return 0;
    }
    const std::string path = input.substr(newline + 1);
    checkServiceRoutes(path);
    checkOwnTemplate(input.substr(0, newline), path);
    return 0;
}
