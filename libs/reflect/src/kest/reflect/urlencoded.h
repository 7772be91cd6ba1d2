#pragma once

// The url-encoded form of described records: one "key=value" parameter per member, joined with
// '&' and percent-encoded.
//
// Values: text as it is; bools "true"/"false"; numbers in decimal; enums by name; types with a
// custom string form as that string; durations as their count. Records, lists, sets and maps
// inside a record are carried JSON-encoded in their one parameter. An unset optional member is
// left out.
//
// Reading follows the JSON reading rules (see json.h) value by value, so "count=12" and
// "flag=true" read as they would from the JSON strings "12" and "true", and a JSON-encoded
// member must be valid JSON of its type. A missing parameter keeps the member's default, an
// empty value leaves an optional member unset, unknown parameters are ignored, and of repeated
// parameters the last one counts. A '+' reads as a blank. Decoded names and values must be
// well-formed UTF-8, those of unknown parameters included. Failures are prefixed with the
// member's name ("filter: Object value expected").
//
// A type that is not a record has no such form: it is written and read as JSON text instead.

#include <string>
#include <string_view>
#include <unordered_map>

#include <rapidjson/error/en.h>

#include "json.h"

namespace kest::reflect::urlencoded {

namespace detail {

using namespace kest::reflect::detail;

/** Members whose value is JSON text rather than a plain string. */
template <typename T>
constexpr bool kCarriedAsJson = DescribedRecord<T> || TextKeyMap<T> || Container<T>;

std::string percentEncode(std::string_view text);
std::string doubleToText(double value);
/** Decoded parameters, the last of repeated ones; false if the text is not a query. */
bool parseQuery(std::string_view text, std::unordered_map<std::string, std::string>* params);

template <typename T>
std::string valueText(const T& value)
{
    if constexpr (IsOptional<T>::value) {
        return valueText(*value);
    } else if constexpr (HasCustomString<T>) {
        return toString(value);
    } else if constexpr (DescribedEnum<T>) {
        if (const char* name = enumName(value))
            return name;
        return std::to_string(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (kCarriedAsJson<T>) {
        return json::serialize(value);
    } else if constexpr (std::same_as<T, bool>) {
        return value ? "true" : "false";
    } else if constexpr (Integer<T>) {
        return std::to_string(value);
    } else if constexpr (std::is_floating_point_v<T>) {
        return doubleToText(static_cast<double>(value));
    } else if constexpr (std::same_as<T, std::string>) {
        return value;
    } else if constexpr (std::same_as<T, QString>) {
        return value.toStdString();
    } else if constexpr (IsDuration<T>::value) {
        return std::to_string(value.count());
    } else {
        static_assert(sizeof(T) == 0, "This type has no url-encoded form");
    }
}

template <typename T>
bool readValue(const std::string& text, T* out, json::detail::ReadContext& context)
{
    if constexpr (IsOptional<T>::value && !HasCustomString<T>) {
        if (text.empty()) {
            out->reset();
            return true;
        }
        typename T::value_type item{};
        if (!readValue(text, &item, context))
            return false;
        *out = std::move(item);
        return true;
    } else if constexpr (kCarriedAsJson<T> && !HasCustomString<T> && !DescribedEnum<T>) {
        rapidjson::Document document;
        document.Parse<json::kParseFlags>(text.data(), text.size());
        if (document.HasParseError()) {
            return context.fail(messages::kParseException,
                                rapidjson::GetParseError_En(document.GetParseError()));
        }
        // Escapes in the JSON text may still decode to ill-formed UTF-8 ("\udc00").
        return json::detail::checkUtf8(document, context) &&
               json::detail::read(document, out, context);
    } else {
        const rapidjson::Value value(
            rapidjson::StringRef(text.data(), static_cast<rapidjson::SizeType>(text.size())));
        return json::detail::read(value, out, context);
    }
}

}  // namespace detail

/** "a=1&b=x": the record's members, percent-encoded. */
template <typename T>
std::string serialize(const T& value)
{
    if constexpr (!detail::DescribedRecord<T>) {
        return json::serialize(value);
    } else {
        std::string out;
        boost::mp11::mp_for_each<detail::Members<T>>([&](auto member) {
            const auto& field = value.*member.pointer;
            if constexpr (detail::IsOptional<std::decay_t<decltype(field)>>::value) {
                if (!field)
                    return;
            }
            if (!out.empty())
                out += '&';
            out += detail::percentEncode(member.name);
            out += '=';
            out += detail::percentEncode(detail::valueText(field));
        });
        return out;
    }
}

/** Reads a query string (a leading '?' is allowed); `out` is left untouched on failure. */
template <typename T>
DeserializationResult deserialize(std::string_view text, T* out)
{
    if constexpr (!detail::DescribedRecord<T>) {
        return json::deserialize(text, out);
    } else {
        std::unordered_map<std::string, std::string> params;
        if (!detail::parseQuery(text, &params))
            return DeserializationResult::failure(std::string(messages::kBadQuery));
        for (const auto& [name, value] : params) {
            if (!utf8::isValid(name))
                return DeserializationResult::failure(std::string(messages::kInvalidUtf8Name));
            if (!utf8::isValid(value))
                return DeserializationResult::failure(name + ": " +
                                                      std::string(messages::kInvalidUtf8));
        }

        json::detail::ReadContext context;
        T result{};
        bool ok = true;
        boost::mp11::mp_for_each<detail::Members<T>>([&](auto member) {
            if (!ok)
                return;
            const auto it = params.find(member.name);
            if (it == params.end())
                return;
            if (!detail::readValue(it->second, &(result.*member.pointer), context))
                ok = context.failInMember(member.name);
        });
        if (!ok)
            return DeserializationResult::failure(context.description());
        *out = std::move(result);
        return {};
    }
}

}  // namespace kest::reflect::urlencoded
