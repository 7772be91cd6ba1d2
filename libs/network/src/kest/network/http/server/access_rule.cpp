#include "access_rule.h"

#include <algorithm>

#include <kest/network/http/request.h>

namespace kest::network::http::server {

namespace {

bool isTokenChar(char c)
{
    // RFC 9110 tchar, which is what a method may be made of.
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

// Built by appending: GCC 12 warns (-Wrestrict, falsely) of "\"" + std::string(...) in release.
std::string quoted(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    out += text;
    out += '"';
    return out;
}

}  // namespace

std::optional<AccessRule> AccessRule::make(std::string_view method, std::string_view path,
                                           std::string* error)
{
    if (method.empty() || !std::all_of(method.begin(), method.end(), isTokenChar)) {
        *error = quoted(method) + " is not an HTTP method or \"*\"";
        return std::nullopt;
    }
    if (path.empty() || path.front() != '/') {
        *error = quoted(path) + " is not a path starting with \"/\"";
        return std::nullopt;
    }
    const auto star = path.find('*');
    if (star != std::string_view::npos && star != path.size() - 1) {
        *error = quoted(path) + " has a \"*\" that does not end it";
        return std::nullopt;
    }
    AccessRule rule;
    rule.m_method = std::string(method);
    for (char& c : rule.m_method) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    rule.m_prefix = star != std::string_view::npos;
    rule.m_path = std::string(rule.m_prefix ? path.substr(0, star) : path);
    return rule;
}

bool AccessRule::allows(std::string_view method, std::string_view path) const
{
    if (m_method != "*" && !equalsIgnoreCase(m_method, method))
        return false;
    return m_prefix ? path.starts_with(m_path) : path == m_path;
}

std::string AccessRule::toString() const
{
    return m_method + " " + m_path + (m_prefix ? "*" : "");
}

}  // namespace kest::network::http::server
