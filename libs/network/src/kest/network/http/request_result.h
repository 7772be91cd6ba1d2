#pragma once

#include <string>

#include "request.h"
#include "status_code.h"

namespace kest::network::http {

/** What a request handler answers: the status, the body with its content type, extra headers. */
struct RequestResult
{
    StatusCode::Value statusCode = StatusCode::ok;
    std::string body;
    /** Sent as "Content-Type" when the body is not empty. */
    std::string contentType;
    HttpHeaders headers;

    RequestResult() = default;
    RequestResult(StatusCode::Value statusCode) : statusCode(statusCode) {}
    RequestResult(StatusCode::Value statusCode, std::string body, std::string contentType)
        : statusCode(statusCode), body(std::move(body)), contentType(std::move(contentType))
    {}
};

}  // namespace kest::network::http
