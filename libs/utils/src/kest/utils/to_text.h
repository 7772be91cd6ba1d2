#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "type_traits.h"

namespace kest::utils {

/**
 * The text form of a value as it appears in log lines and messages. Types provide it with a
 * free `toString(const T&)` found by argument-dependent lookup, or a `toString()` member;
 * containers are written "{ a, b }", or "none" when empty.
 */
template <typename T>
std::string toText(const T& value);

namespace detail {

template <typename T>
concept HasAdlToString = requires(const T& v)
{
    {
        toString(v)
        } -> std::convertible_to<std::string>;
};

template <typename T>
concept HasMemberToString = requires(const T& v)
{
    {
        v.toString()
        } -> std::convertible_to<std::string>;
};

template <typename T>
concept IsStringLike = std::convertible_to<const T&, std::string_view>;

template <typename T>
concept IsContainer = std::ranges::input_range<const T> && !IsStringLike<T> &&
                      !std::same_as<T, QString> && !std::same_as<T, QByteArray>;

using utils::IsDuration;
using utils::IsOptional;
using utils::IsPair;

std::string pointerToText(const void* p);
std::string doubleToText(double v);

}  // namespace detail

template <typename T>
std::string toText(const T& value)
{
    using D = std::decay_t<T>;
    if constexpr (detail::HasAdlToString<D>) {
        return std::string(toString(value));
    } else if constexpr (detail::HasMemberToString<D>) {
        return std::string(value.toString());
    } else if constexpr (std::is_same_v<D, bool>) {
        return value ? "true" : "false";
    } else if constexpr (detail::IsStringLike<D>) {
        return std::string(std::string_view(value));
    } else if constexpr (std::is_same_v<D, QString>) {
        return value.toStdString();
    } else if constexpr (std::is_same_v<D, QByteArray>) {
        return value.toStdString();
    } else if constexpr (std::is_integral_v<D>) {
        return std::to_string(value);
    } else if constexpr (std::is_floating_point_v<D>) {
        return detail::doubleToText(static_cast<double>(value));
    } else if constexpr (std::is_enum_v<D>) {
        return std::to_string(static_cast<std::underlying_type_t<D>>(value));
    } else if constexpr (detail::IsDuration<D>::value) {
        return std::to_string(value.count());
    } else if constexpr (detail::IsOptional<D>::value) {
        return value ? toText(*value) : std::string("none");
    } else if constexpr (detail::IsPair<D>::value) {
        return toText(value.first) + ": " + toText(value.second);
    } else if constexpr (std::is_pointer_v<D>) {
        return detail::pointerToText(value);
    } else if constexpr (detail::IsContainer<D>) {
        std::string out;
        for (const auto& item : value) {
            out += out.empty() ? "{ " : ", ";
            out += toText(item);
        }
        return out.empty() ? std::string("none") : out + " }";
    } else {
        static_assert(sizeof(D) == 0, "No text form for this type");
    }
}

/**
 * Replaces the numbered placeholders "%1" ... "%99" of `pattern` with the text forms of the
 * arguments. A placeholder without an argument is left as it stands.
 */
std::string formatArgs(std::string_view pattern, const std::string* args, std::size_t count);

template <typename... Args>
std::string format(std::string_view pattern, const Args&... args)
{
    if constexpr (sizeof...(Args) == 0) {
        return std::string(pattern);
    } else {
        const std::string texts[] = {toText(args)...};
        return formatArgs(pattern, texts, sizeof...(Args));
    }
}

}  // namespace kest::utils
