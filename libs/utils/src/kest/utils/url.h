#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <boost/url/url.hpp>

namespace kest::utils {

/**
 * An absolute URL such as "http://host:8080/base?a=1": where an HTTP client connects and what it
 * asks for. Components are kept percent-encoded as on the wire; accessors say which form they
 * give. A default-constructed URL is not valid.
 */
class Url
{
public:
    Url() = default;
    /** Parses `text`; a text that is not an absolute URL with a host gives an invalid URL. */
    explicit Url(std::string_view text);

    /** Nothing when `text` is not an absolute URL with a host. */
    static std::optional<Url> parse(std::string_view text);

    /** Has a scheme and a host. */
    bool isValid() const;

    /** Lower case, for example "http". */
    std::string scheme() const;
    /** Decoded; an IPv6 address without brackets. */
    std::string host() const;
    /** The explicit port, else 80 for http and 443 for https, else 0. */
    std::uint16_t port() const;
    bool hasExplicitPort() const;
    /** Decoded. */
    std::string path() const;
    std::string encodedPath() const;
    bool hasQuery() const;
    /** As on the wire, without "?". */
    std::string encodedQuery() const;
    /** What goes on an HTTP request line: the encoded path ("/" when empty) and query. */
    std::string target() const;

    Url& setScheme(std::string_view scheme);
    Url& setHost(std::string_view host);
    Url& setPort(std::uint16_t port);
    /** `path` is decoded text; characters that need it are escaped. */
    Url& setPath(std::string_view path);
    /**
     * Keeps the escapes in `query` and escapes what a query may not hold; a "%" that starts no
     * valid escape is escaped itself. An empty text removes the query.
     */
    Url& setEncodedQuery(std::string_view query);
    /**
     * Appends decoded `path` to the path with exactly one "/" between them: "/base" and "x/y" or
     * "/x/y" give "/base/x/y". Nothing happens for an empty `path`.
     */
    Url& appendPath(std::string_view path);

    /** The whole URL, encoded. */
    std::string toString() const;

    friend bool operator==(const Url& a, const Url& b) { return a.toString() == b.toString(); }

private:
    boost::urls::url m_url;
};

}  // namespace kest::utils
