#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest::network::http {

/** One HTTP header field as received: the name keeps its original letter case. */
using HttpHeader = std::pair<std::string, std::string>;
using HttpHeaders = std::vector<HttpHeader>;

/** A received HTTP request: the request line, its headers and its whole body. */
struct Request
{
    /** As sent, for example "POST". */
    std::string method;
    /** The request target as sent: path and query, still percent-encoded. */
    std::string target;
    /**
     * The path part of the target, still percent-encoded: routes match it as sent, so that an
     * encoded "/" ("%2F") never splits or joins path segments. "/" for an absolute-form target
     * without a path.
     */
    std::string path;
    /** The query part of the target without "?", not decoded; empty when there is none. */
    std::string query;
    HttpHeaders headers;
    std::string body;
    /** 11 for HTTP/1.1 (and later 1.x, served as 1.1), 10 for HTTP/1.0. */
    unsigned version = 11;

    /** The value of the first header of this name (compared case-insensitively), if any. */
    std::optional<std::string_view> header(std::string_view name) const;
    bool hasHeader(std::string_view name) const { return header(name).has_value(); }

    /**
     * Sets `target` and derives `path` and `query` from it. Takes the origin form ("/a?b"), the
     * absolute form of an http or https URI ("http://host/a?b") and "*". False, leaving `path`
     * and `query` empty, for anything else.
     */
    bool setTarget(std::string value);

    /** The percent-decoded form of `text`; "+" is kept as it is. */
    static std::string percentDecode(std::string_view text);
};

/** Whether two ASCII strings are equal ignoring letter case. */
bool equalsIgnoreCase(std::string_view a, std::string_view b);

}  // namespace kest::network::http
