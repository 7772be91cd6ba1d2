#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kest::network::http::server {

/**
 * A method and a path that a credential may use: "GET /metadataDb/v1/data". The method "*" is
 * any method; a path ending in "*" is every path that starts with what comes before it. Paths
 * are compared as sent, still percent-encoded, as routes are.
 */
class AccessRule
{
public:
    /** Nothing, with the reason in `error`, for a method or path that cannot be a rule. */
    static std::optional<AccessRule> make(std::string_view method, std::string_view path,
                                          std::string* error);

    bool allows(std::string_view method, std::string_view path) const;

    std::string toString() const;

private:
    AccessRule() = default;

    std::string m_method;  //< Upper case; "*" for any.
    std::string m_path;    //< Without the final "*" of a prefix.
    bool m_prefix = false;
};

}  // namespace kest::network::http::server
