#include "base_api_request_handler.h"

#include <algorithm>

#include <kest/reflect/messages.h>
#include <kest/reflect/utf8.h>

namespace kest::network::http::detail {

std::string invalidUtf8InUrlQuery(std::string_view decodedQuery)
{
    namespace utf8 = kest::reflect::utf8;
    for (std::size_t begin = 0; begin <= decodedQuery.size();) {
        const std::size_t end = std::min(decodedQuery.find('&', begin), decodedQuery.size());
        const std::string_view item = decodedQuery.substr(begin, end - begin);
        begin = end + 1;
        // The readers decode each item's name and value once more.
        if (utf8::isValid(item) && utf8::isValid(Request::percentDecode(item)))
            continue;
        const std::string name = Request::percentDecode(item.substr(0, item.find('=')));
        return utf8::toValid(name) + ": " + std::string(kest::reflect::messages::kInvalidUtf8);
    }
    return {};
}

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
