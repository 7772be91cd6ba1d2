#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <kest/network/http/request.h>
#include <kest/network/http/status_code.h>

namespace kest::network::http::client {

/** A whole HTTP response as the client received it: status line, headers and body. */
struct Response
{
    StatusCode::Value statusCode = StatusCode::undefined;
    std::string reasonPhrase;
    /** 11 for HTTP/1.1, 10 for HTTP/1.0. */
    unsigned version = 11;
    /** In the order received; names keep their letter case. */
    HttpHeaders headers;
    /** Decoded from chunks when the response was chunked. */
    std::string body;

    /** The value of the first header of this name (compared case-insensitively), if any. */
    std::optional<std::string_view> header(std::string_view name) const
    {
        for (const auto& [key, value] : headers) {
            if (equalsIgnoreCase(key, name))
                return std::string_view(value);
        }
        return std::nullopt;
    }
};

}  // namespace kest::network::http::client
