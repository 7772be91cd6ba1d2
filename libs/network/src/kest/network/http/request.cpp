#include "request.h"

#include <boost/url/parse.hpp>

namespace kest::network::http {

namespace {

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

bool equalsIgnoreCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i]))
            return false;
    }
    return true;
}

std::optional<std::string_view> Request::header(std::string_view name) const
{
    for (const auto& [key, value] : headers) {
        if (equalsIgnoreCase(key, name))
            return std::string_view(value);
    }
    return std::nullopt;
}

bool Request::setTarget(std::string value)
{
    target = std::move(value);
    path.clear();
    query.clear();
    if (target.starts_with('/')) {
        const auto question = target.find('?');
        path.assign(target, 0, question);
        if (question != std::string::npos)
            query.assign(target, question + 1);
        return true;
    }
    if (target == "*") {
        path = target;
        return true;
    }
    // Proxies send the absolute form, and a server has to take it as well.
    const auto uri = boost::urls::parse_absolute_uri(target);
    if (!uri || !uri->has_authority() ||
        (!equalsIgnoreCase(uri->scheme(), "http") && !equalsIgnoreCase(uri->scheme(), "https"))) {
        return false;
    }
    const std::string_view encodedPath = uri->encoded_path();
    // "http://h:x/": Boost.URL takes what follows a port that is no number as a rootless path.
    if (!encodedPath.empty() && !encodedPath.starts_with('/'))
        return false;
    path = encodedPath.empty() ? std::string("/") : std::string(encodedPath);
    query = std::string_view(uri->encoded_query());
    return true;
}

std::string Request::percentDecode(std::string_view text)
{
    if (text.find('%') == std::string_view::npos)
        return std::string(text);
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

}  // namespace kest::network::http
