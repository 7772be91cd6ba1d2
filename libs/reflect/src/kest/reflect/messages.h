#pragma once

#include <string_view>

// The texts of reading failures. Clients see them in error bodies, so they never change wording.
namespace kest::reflect::messages {

inline constexpr std::string_view kTopLevelNotContainer =
    "Either an object or an array is expected as a json object";
inline constexpr std::string_view kParseException = "Exception during json deserialization: ";
inline constexpr std::string_view kBoolExpected =
    "Either a bool value or a string value \"true\" or \"false\" is expected";
inline constexpr std::string_view kIntegerExpected =
    "Either a number or a string is expected for an integral value";
inline constexpr std::string_view kDurationExpected =
    "Either a number or a string is expected for an std::chrono::duration value";
inline constexpr std::string_view kFloatExpected =
    "Either a number or a string is expected for a floating point value";
inline constexpr std::string_view kOutOfRange = "The number is out of range of the field's type";
inline constexpr std::string_view kStringExpected = "String value is expected";
inline constexpr std::string_view kCustomStringExpected = "String value is expected for an object";
inline constexpr std::string_view kCustomParserFailed =
    "Can't parse the string (custom parser failed)";
inline constexpr std::string_view kArrayExpected = "Array is expected";
inline constexpr std::string_view kObjectExpected = "Object value expected";
inline constexpr std::string_view kInvalidUtf8 = "The text is not valid UTF-8";
inline constexpr std::string_view kInvalidUtf8Name = "A member name is not valid UTF-8";
inline constexpr std::string_view kBadQuery = "Malformed url-encoded text";
inline constexpr std::string_view kRecordExpected =
    "Only a record can be read from url-encoded text";

}  // namespace kest::reflect::messages
