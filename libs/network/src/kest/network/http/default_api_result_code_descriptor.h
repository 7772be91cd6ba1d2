#pragma once

#include <system_error>

#include <kest/network/http/client/response.h>
#include <kest/network/http/status_code.h>

namespace kest::network::http {

/**
 * Says what an API call's caller is told of an exchange: the HTTP status itself, and 500 when no
 * response arrived at all, so that transport failures look like server failures to the caller.
 */
struct DefaultApiResultCodeDescriptor
{
    using ResultCode = StatusCode::Value;

    static ResultCode getResultCode(std::error_code error, const client::Response* response)
    {
        if (error || !response)
            return StatusCode::internalServerError;
        return response->statusCode;
    }
};

}  // namespace kest::network::http
