#pragma once

// JSON form of described records, read and written straight from and to RapidJSON.
//
// Writing: compact, keys in declaration order (inherited members first); integers as JSON
// numbers; doubles in their shortest exact form, a NaN or an infinity as null; an unset optional
// member is left out (an unset optional elsewhere is null); enums by name (a value without a
// name as its number); types with a custom string form as that string; durations as their
// count; lists and sets as arrays; maps with text keys as objects. Text that is not well-formed
// UTF-8 (stored before it was refused, or made by a program) is written with U+FFFD in place of
// each ill-formed sequence, so that the output is always valid JSON.
//
// Reading:
// - The text may start with a UTF-8 byte-order mark. Its top level must be an object or an
//   array ("Either an object or an array is expected as a json object"); a syntax error gives
//   "Exception during json deserialization: " and RapidJSON's message.
// - Every string and member name must be well-formed UTF-8 once its escapes are decoded, those
//   of unknown keys included ("The text is not valid UTF-8", "A member name is not valid
//   UTF-8"): nothing ill-formed is taken in, to come out later in answers that no JSON reader
//   can read.
// - Records need an object ("Object value expected"); a missing key keeps the member's default,
//   an unknown key is ignored.
// - bool: a JSON bool or the string "true" or "false".
// - Integers and durations: a number or a string holding one; a number with a fraction, or one
//   that does not fit the type, is refused.
// - Floating point: a number or a string holding one.
// - Strings need a JSON string.
// - Types with a custom string form (ADL `toString` and `fromString`, for example ids) need a
//   string ("String value is expected for an object"), which their parser must accept ("Can't
//   parse the string (custom parser failed)"). This takes precedence over a description.
// - Described enums: the enumerator's name, or its value as a number or a numeric string.
// - optional: null or absent is empty.
// - Lists, sets and list-like classes need an array ("Array is expected").
// Each failure is prefixed by the path of the offending value: "objectMetadataList[2].attributes:
// Array is expected"; a failure of the top-level value has no prefix. The output is left
// untouched on failure.

#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "deserialization_result.h"
#include "json_stream_reader.h"
#include "messages.h"
#include "traits.h"
#include "utf8.h"

namespace kest::reflect::json {

/**
 * How every JSON document is parsed. Iterative, so that deeply nested brackets cannot exhaust the
 * thread's stack. Not RapidJSON's full-precision number reader: it reads past its table of powers
 * of ten for a long significand with a large exponent ("9...9e308"); the normal one is off by at
 * most a unit in the last place.
 */
inline constexpr unsigned kParseFlags = rapidjson::kParseIterativeFlag;

namespace detail {

using namespace kest::reflect::detail;

using Value = rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

/** Collects the message and, while unwinding, the path of a failed read. */
struct ReadContext
{
    std::string message;
    std::vector<std::string> reversedPath;

    bool fail(std::string_view text)
    {
        message = text;
        return false;
    }
    bool failInMember(const char* name)
    {
        reversedPath.emplace_back(name);
        return false;
    }
    bool failInElement(std::size_t index)
    {
        // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about "[" + std::string.
        std::string element(1, '[');
        element += std::to_string(index);
        element += ']';
        reversedPath.push_back(std::move(element));
        return false;
    }
    bool fail(std::string_view text, std::string_view detail)
    {
        message = std::string(text) + std::string(detail);
        return false;
    }
    std::string description() const;
};

std::string_view withoutByteOrderMark(std::string_view text);
DeserializationResult parseDocument(std::string_view text, rapidjson::Document* document);
/** Fails, naming the path, at the first string or member name that is not well-formed UTF-8. */
bool checkUtf8(const Value& value, ReadContext& context);
void writeDouble(Writer& writer, double value);
/** Writes text as a JSON string, or as a key when `asKey`, repairing ill-formed UTF-8. */
void writeText(Writer& writer, std::string_view text, bool asKey = false);
bool readBool(const Value& value, bool* out, ReadContext& context);
bool readDouble(const Value& value, double* out, ReadContext& context);
bool readString(const Value& value, std::string* out, ReadContext& context);
bool readQString(const Value& value, QString* out, ReadContext& context);

template <Integer T>
bool readInteger(const Value& value, T* out, ReadContext& context, std::string_view typeMessage)
{
    if (value.IsInt64()) {
        const std::int64_t v = value.GetInt64();
        if (!std::in_range<T>(v))
            return context.fail(messages::kOutOfRange);
        *out = static_cast<T>(v);
        return true;
    }
    if (value.IsUint64()) {
        const std::uint64_t v = value.GetUint64();
        if (!std::in_range<T>(v))
            return context.fail(messages::kOutOfRange);
        *out = static_cast<T>(v);
        return true;
    }
    if (value.IsDouble()) {
        // "5.0" and "1e3" are whole numbers written as doubles by some clients.
        const double d = value.GetDouble();
        if (d != std::trunc(d))
            return context.fail(typeMessage);
        // Strictly above -2^63: RapidJSON reads an integer literal that does not fit 64 bits as a
        // double, and one just below the range rounds to exactly -2^63.
        if (!(d > -0x1p63 && d < 0x1p63) || !std::in_range<T>(static_cast<std::int64_t>(d)))
            return context.fail(messages::kOutOfRange);
        *out = static_cast<T>(static_cast<std::int64_t>(d));
        return true;
    }
    if (value.IsString()) {
        const char* begin = value.GetString();
        const char* end = begin + value.GetStringLength();
        T v{};
        const auto [ptr, ec] = std::from_chars(begin, end, v);
        if (ec == std::errc::result_out_of_range)
            return context.fail(messages::kOutOfRange);
        if (ec != std::errc() || ptr != end || begin == end)
            return context.fail(typeMessage);
        *out = v;
        return true;
    }
    return context.fail(typeMessage);
}

template <typename T>
bool read(const Value& value, T* out, ReadContext& context);

template <typename T>
void write(Writer& writer, const T& value);

template <typename T>
bool readRecord(const Value& value, T* out, ReadContext& context)
{
    if (!value.IsObject())
        return context.fail(messages::kObjectExpected);
    bool ok = true;
    boost::mp11::mp_for_each<Members<T>>([&](auto member) {
        if (!ok)
            return;
        const auto it = value.FindMember(member.name);
        if (it == value.MemberEnd())
            return;
        if (!read(it->value, &(out->*member.pointer), context))
            ok = context.failInMember(member.name);
    });
    return ok;
}

template <typename T>
bool read(const Value& value, T* out, ReadContext& context)
{
    if constexpr (HasCustomString<T>) {
        if (!value.IsString())
            return context.fail(messages::kCustomStringExpected);
        if (!fromString(std::string_view(value.GetString(), value.GetStringLength()), out))
            return context.fail(messages::kCustomParserFailed);
        return true;
    } else if constexpr (DescribedEnum<T>) {
        if (value.IsString()) {
            const std::string_view text(value.GetString(), value.GetStringLength());
            if (enumFromName(text, out))
                return true;
            long long number = 0;
            const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
            if (ec == std::errc() && ptr == text.data() + text.size() && !text.empty() &&
                enumFromValue(number, out)) {
                return true;
            }
            return context.fail(messages::kCustomParserFailed);
        }
        if (value.IsInt64()) {
            if (!enumFromValue(value.GetInt64(), out))
                return context.fail(messages::kCustomParserFailed);
            return true;
        }
        return context.fail(messages::kCustomStringExpected);
    } else if constexpr (DescribedRecord<T>) {
        return readRecord(value, out, context);
    } else if constexpr (IsOptional<T>::value) {
        if (value.IsNull()) {
            out->reset();
            return true;
        }
        typename T::value_type item{};
        if (!read(value, &item, context))
            return false;
        *out = std::move(item);
        return true;
    } else if constexpr (std::same_as<T, bool>) {
        return readBool(value, out, context);
    } else if constexpr (Integer<T>) {
        return readInteger(value, out, context, messages::kIntegerExpected);
    } else if constexpr (std::is_floating_point_v<T>) {
        double d = 0;
        if (!readDouble(value, &d, context))
            return false;
        *out = static_cast<T>(d);
        return true;
    } else if constexpr (std::same_as<T, std::string>) {
        return readString(value, out, context);
    } else if constexpr (std::same_as<T, QString>) {
        return readQString(value, out, context);
    } else if constexpr (IsDuration<T>::value) {
        static_assert(std::is_integral_v<typename T::rep>, "Only integral durations are supported");
        typename T::rep count{};
        if (!readInteger(value, &count, context, messages::kDurationExpected))
            return false;
        *out = T(count);
        return true;
    } else if constexpr (TextKeyMap<T>) {
        if (!value.IsObject())
            return context.fail(messages::kObjectExpected);
        out->clear();
        for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it) {
            typename T::key_type key{};
            if constexpr (HasCustomString<typename T::key_type>) {
                if (!read(it->name, &key, context))
                    return context.failInMember(it->name.GetString());
            } else {
                key.assign(it->name.GetString(), it->name.GetStringLength());
            }
            typename T::mapped_type item{};
            if (!read(it->value, &item, context))
                return context.failInMember(it->name.GetString());
            (*out)[std::move(key)] = std::move(item);
        }
        return true;
    } else if constexpr (Container<T>) {
        if (!value.IsArray())
            return context.fail(messages::kArrayExpected);
        out->clear();
        if constexpr (requires { out->reserve(std::size_t{}); })
            out->reserve(value.Size());
        for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
            typename T::value_type item{};
            if (!read(value[i], &item, context))
                return context.failInElement(i);
            addToContainer(*out, std::move(item));
        }
        return true;
    } else {
        static_assert(sizeof(T) == 0, "This type has no JSON form");
    }
}

template <typename T>
void writeInteger(Writer& writer, T value)
{
    if constexpr (std::is_signed_v<T>)
        writer.Int64(static_cast<std::int64_t>(value));
    else
        writer.Uint64(static_cast<std::uint64_t>(value));
}

template <typename T>
void write(Writer& writer, const T& value)
{
    if constexpr (HasCustomString<T>) {
        writeText(writer, toString(value));
    } else if constexpr (DescribedEnum<T>) {
        if (const char* name = enumName(value))
            writer.String(name);
        else
            writeInteger(writer, static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (DescribedRecord<T>) {
        writer.StartObject();
        boost::mp11::mp_for_each<Members<T>>([&](auto member) {
            const auto& field = value.*member.pointer;
            if constexpr (IsOptional<std::decay_t<decltype(field)>>::value) {
                if (!field)
                    return;
            }
            writer.Key(member.name);
            write(writer, field);
        });
        writer.EndObject();
    } else if constexpr (IsOptional<T>::value) {
        if (value)
            write(writer, *value);
        else
            writer.Null();
    } else if constexpr (std::same_as<T, bool>) {
        writer.Bool(value);
    } else if constexpr (Integer<T>) {
        writeInteger(writer, value);
    } else if constexpr (std::is_floating_point_v<T>) {
        writeDouble(writer, static_cast<double>(value));
    } else if constexpr (std::same_as<T, std::string>) {
        writeText(writer, value);
    } else if constexpr (std::same_as<T, QString>) {
        const QByteArray utf8 = value.toUtf8();
        writer.String(utf8.constData(), static_cast<rapidjson::SizeType>(utf8.size()));
    } else if constexpr (IsDuration<T>::value) {
        writeInteger(writer, value.count());
    } else if constexpr (TextKeyMap<T>) {
        writer.StartObject();
        for (const auto& [key, item] : value) {
            if constexpr (HasCustomString<typename T::key_type>)
                writeText(writer, toString(key), /*asKey*/ true);
            else
                writeText(writer, key, /*asKey*/ true);
            write(writer, item);
        }
        writer.EndObject();
    } else if constexpr (Container<T>) {
        writer.StartArray();
        for (const auto& item : value)
            write(writer, item);
        writer.EndArray();
    } else {
        static_assert(sizeof(T) == 0, "This type has no JSON form");
    }
}

}  // namespace detail

/** Compact JSON text of a value. */
template <typename T>
std::string serialize(const T& value)
{
    rapidjson::StringBuffer buffer;
    detail::Writer writer(buffer);
    detail::write(writer, value);
    return std::string(buffer.GetString(), buffer.GetSize());
}

/**
 * Reads an already parsed JSON value; the rules at the top of this file apply, but for UTF-8:
 * what the value holds is taken as it is (answers of other programs, which are repaired when
 * written out again).
 */
template <typename T>
DeserializationResult deserializeValue(const rapidjson::Value& value, T* out)
{
    detail::ReadContext context;
    T result{};
    if (!detail::read(value, &result, context))
        return DeserializationResult::failure(context.description());
    *out = std::move(result);
    return {};
}

/** Reads JSON text into `out` through a parsed document; `out` is left untouched on failure. */
template <typename T>
DeserializationResult deserializeDocument(std::string_view text, T* out)
{
    rapidjson::Document document;
    if (auto parsed = detail::parseDocument(text, &document); !parsed)
        return parsed;
    if (detail::ReadContext context; !detail::checkUtf8(document, context))
        return DeserializationResult::failure(context.description());
    return deserializeValue(document, out);
}

/**
 * Reads JSON text into `out`, which is left untouched on failure. Text in the plain form is read
 * straight into the record; anything else, failures included, through a document, as
 * deserializeDocument() does, with the same outcome.
 */
template <typename T>
DeserializationResult deserialize(std::string_view text, T* out)
{
    T result{};
    if (stream::read(detail::withoutByteOrderMark(text), &result)) {
        *out = std::move(result);
        return {};
    }
    return deserializeDocument(text, out);
}

}  // namespace kest::reflect::json
