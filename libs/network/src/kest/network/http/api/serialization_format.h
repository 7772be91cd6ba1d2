#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kest::network::http {

/** The text forms a request record or a response can travel in. */
enum class SerializationFormat : int
{
    unknown = -1,
    json = 0,
    ubjson = 1,
    csv = 3,
    xml = 4,
    periods = 5,
    /** A URL query read by the record's own reader; it has no name of its own. */
    urlQuery = 6,
    urlencoded = 7,
};

/** The format's name ("unknown" for -1), or its number when it has no name. */
std::string toString(SerializationFormat format);

/** By name as above; nothing for an unknown name. */
std::optional<SerializationFormat> serializationFormatFromString(std::string_view name);

/** "application/json" and the like. Parameters such as "; charset=utf-8" are ignored. */
std::optional<SerializationFormat> serializationFormatFromContentType(std::string_view contentType);

/** The content type a body of this format is sent with; empty for `unknown`. */
std::string contentTypeOf(SerializationFormat format);

/** Whether the API frame reads and writes this format. */
bool isSupportedApiFormat(SerializationFormat format);

}  // namespace kest::network::http
