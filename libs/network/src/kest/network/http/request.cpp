#include "request.h"

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

void Request::setTarget(std::string value)
{
    target = std::move(value);
    const auto question = target.find('?');
    const std::string_view rawPath = std::string_view(target).substr(0, question);
    path = percentDecode(rawPath);
    if (question == std::string::npos)
        query.clear();
    else
        query.assign(target, question + 1);
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
