#include "url.h"

#include <charconv>

#include <boost/url/encode.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/rfc/pchars.hpp>
#include <boost/url/scheme.hpp>

namespace kest::utils {

namespace {

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/** Escapes each "%" that does not start an escape, as a lenient browser would. */
std::string escapeStrayPercents(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        result += text[i];
        if (text[i] == '%' &&
            !(i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2]))) {
            result += "25";
        }
    }
    return result;
}

}  // namespace

Url::Url(std::string_view text)
{
    if (auto parsed = parse(text))
        *this = std::move(*parsed);
}

std::optional<Url> Url::parse(std::string_view text)
{
    const auto view = boost::urls::parse_absolute_uri(text);
    if (!view || !view->has_authority() || view->encoded_host().empty())
        return std::nullopt;
    // Boost keeps only the low 16 bits of a longer port number.
    if (view->has_port() && !view->port().empty()) {
        const std::string_view port = view->port();
        unsigned long number = 0;
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
        if (error != std::errc() || number == 0 || number > 65535)
            return std::nullopt;
    }
    Url url;
    url.m_url = *view;
    url.m_url.normalize_scheme();
    return url;
}

bool Url::isValid() const
{
    return m_url.has_scheme() && m_url.has_authority() && !m_url.encoded_host().empty();
}

std::string Url::scheme() const
{
    return std::string(m_url.scheme());
}

std::string Url::host() const
{
    return m_url.host_address();
}

std::uint16_t Url::port() const
{
    if (m_url.has_port())
        return m_url.port_number();
    switch (m_url.scheme_id()) {
        case boost::urls::scheme::http:
            return 80;
        case boost::urls::scheme::https:
            return 443;
        default:
            return 0;
    }
}

bool Url::hasExplicitPort() const
{
    return m_url.has_port();
}

std::string Url::path() const
{
    return m_url.path();
}

std::string Url::encodedPath() const
{
    return std::string(m_url.encoded_path());
}

bool Url::hasQuery() const
{
    return m_url.has_query();
}

std::string Url::encodedQuery() const
{
    return std::string(m_url.encoded_query());
}

std::string Url::target() const
{
    const std::string_view path = m_url.encoded_path();
    const std::string_view query = m_url.encoded_query();
    std::string result;
    result.reserve(path.size() + query.size() + 2);
    result.append(path.empty() ? std::string_view("/") : path);
    if (m_url.has_query())
        result.append("?").append(query);
    return result;
}

Url& Url::setScheme(std::string_view scheme)
{
    m_url.set_scheme(scheme);
    m_url.normalize_scheme();
    return *this;
}

Url& Url::setHost(std::string_view host)
{
    m_url.set_host_address(host);
    return *this;
}

Url& Url::setPort(std::uint16_t port)
{
    m_url.set_port_number(port);
    return *this;
}

Url& Url::setPath(std::string_view path)
{
    m_url.set_path(path);
    return *this;
}

Url& Url::setEncodedQuery(std::string_view query)
{
    if (query.empty()) {
        m_url.remove_query();
        return *this;
    }
    if (boost::urls::make_pct_string_view(query))
        m_url.set_encoded_query(query);
    else
        m_url.set_encoded_query(escapeStrayPercents(query));
    return *this;
}

Url& Url::appendPath(std::string_view path)
{
    if (path.empty())
        return *this;
    std::string joined(m_url.encoded_path());
    while (!joined.empty() && joined.back() == '/')
        joined.pop_back();
    if (!path.starts_with('/'))
        joined += '/';
    static constexpr auto kPathChars = boost::urls::pchars + '/';
    joined += boost::urls::encode(path, kPathChars);
    m_url.set_encoded_path(joined);
    return *this;
}

std::string Url::toString() const
{
    return std::string(m_url.buffer());
}

}  // namespace kest::utils
