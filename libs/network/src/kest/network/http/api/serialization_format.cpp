#include "serialization_format.h"

#include <array>
#include <utility>

#include <kest/network/http/request.h>

namespace kest::network::http {

namespace {

constexpr std::array<std::pair<SerializationFormat, std::string_view>, 6> kNames{{
    {SerializationFormat::json, "json"},
    {SerializationFormat::ubjson, "ubjson"},
    {SerializationFormat::csv, "csv"},
    {SerializationFormat::xml, "xml"},
    {SerializationFormat::periods, "periods"},
    {SerializationFormat::urlencoded, "urlencoded"},
}};

// The first content type of a format is the one it is sent with.
constexpr std::array<std::pair<SerializationFormat, std::string_view>, 7> kContentTypes{{
    {SerializationFormat::json, "application/json"},
    {SerializationFormat::ubjson, "application/ubjson"},
    {SerializationFormat::csv, "text/csv"},
    {SerializationFormat::xml, "application/xml"},
    {SerializationFormat::xml, "text/xml"},
    {SerializationFormat::urlencoded, "application/x-www-form-urlencoded"},
    {SerializationFormat::urlQuery, "application/x-www-form-urlencoded"},
}};

std::string_view trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

}  // namespace

std::string toString(SerializationFormat format)
{
    if (format == SerializationFormat::unknown)
        return "unknown";
    for (const auto& [value, name] : kNames) {
        if (value == format)
            return std::string(name);
    }
    return std::to_string(static_cast<int>(format));
}

std::optional<SerializationFormat> serializationFormatFromString(std::string_view name)
{
    for (const auto& [value, text] : kNames) {
        if (text == name)
            return value;
    }
    return std::nullopt;
}

std::optional<SerializationFormat> serializationFormatFromContentType(std::string_view contentType)
{
    const std::string_view mediaType = trim(contentType.substr(0, contentType.find(';')));
    for (const auto& [value, text] : kContentTypes) {
        if (equalsIgnoreCase(text, mediaType))
            return value;
    }
    return std::nullopt;
}

std::string contentTypeOf(SerializationFormat format)
{
    for (const auto& [value, text] : kContentTypes) {
        if (value == format)
            return std::string(text);
    }
    return {};
}

bool isSupportedApiFormat(SerializationFormat format)
{
    return format == SerializationFormat::json || format == SerializationFormat::urlQuery ||
           format == SerializationFormat::urlencoded;
}

}  // namespace kest::network::http
