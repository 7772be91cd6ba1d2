#include "base_api_request_handler.h"

namespace kest::network::http::detail {

bool methodAllowsRequestBody(std::string_view method)
{
    return equalsIgnoreCase(method, "POST") || equalsIgnoreCase(method, "PUT") ||
           equalsIgnoreCase(method, "PATCH");
}

bool methodAllowsResponseBody(std::string_view method)
{
    return !equalsIgnoreCase(method, "HEAD");
}

}  // namespace kest::network::http::detail
