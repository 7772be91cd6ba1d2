#pragma once

#include <chrono>
#include <optional>
#include <type_traits>
#include <utility>

namespace kest::utils {

/** Recognises the standard wrappers that the text forms and the codecs treat specially. */
template <typename T>
struct IsOptional : std::false_type
{};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type
{};

template <typename T>
struct IsDuration : std::false_type
{};
template <typename R, typename P>
struct IsDuration<std::chrono::duration<R, P>> : std::true_type
{};

template <typename T>
struct IsPair : std::false_type
{};
template <typename A, typename B>
struct IsPair<std::pair<A, B>> : std::true_type
{};

}  // namespace kest::utils
