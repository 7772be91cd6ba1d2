#pragma once

// How the codecs classify a type. The order of the checks in the codecs is: custom string form,
// described enum, described record, optional, bool, integer, floating point, string, duration,
// map with text keys, any other container.

#include <chrono>
#include <concepts>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include <QString>
#include <boost/describe/enum.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/describe/modifiers.hpp>
#include <boost/mp11/algorithm.hpp>

#include <kest/utils/type_traits.h>

namespace kest::reflect::detail {

/** A type that brings its own text form: `toString(const T&)` and `fromString(text, T*)` by ADL. */
template <typename T>
concept HasCustomString = requires(const T& value, std::string_view text, T* out)
{
    {
        toString(value)
        } -> std::convertible_to<std::string>;
    {
        fromString(text, out)
        } -> std::convertible_to<bool>;
};

template <typename T>
concept DescribedEnum = std::is_enum_v<T> && boost::describe::has_describe_enumerators<T>::value;

template <typename T>
concept DescribedRecord =
    std::is_class_v<T> && !std::is_union_v<T> && boost::describe::has_describe_members<T>::value;

using kest::utils::IsDuration;
using kest::utils::IsOptional;

template <typename T>
concept Integer = std::is_integral_v<T> && !std::same_as<T, bool>;

template <typename T>
concept TextKeyMap = requires
{
    typename T::key_type;
    typename T::mapped_type;
}
&&(std::same_as<typename T::key_type, std::string> || HasCustomString<typename T::key_type>);

/** Anything that can be filled one element at a time and walked: vectors, sets, period lists. */
template <typename T>
concept Container =
    !std::same_as<T, std::string> && !std::same_as<T, QString> && requires(T & c, const T& cc)
{
    typename T::value_type;
    cc.begin();
    cc.end();
    c.clear();
}
&&(
    requires(T& c, typename T::value_type v) { c.push_back(std::move(v)); } ||
    requires(T & c, typename T::value_type v) { c.insert(std::move(v)); });

template <typename T>
void addToContainer(T& container, typename T::value_type&& value)
{
    if constexpr (requires { container.push_back(std::move(value)); })
        container.push_back(std::move(value));
    else
        container.insert(std::move(value));
}

template <typename T>
using Members = boost::describe::describe_members<T, boost::describe::mod_public |
                                                         boost::describe::mod_inherited>;

/** The enumerator's name, or nullptr for a value that has none. */
template <DescribedEnum E>
const char* enumName(E value)
{
    const char* name = nullptr;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
        if (!name && d.value == value)
            name = d.name;
    });
    return name;
}

template <DescribedEnum E>
bool enumFromName(std::string_view text, E* out)
{
    bool found = false;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
        if (!found && text == d.name) {
            *out = d.value;
            found = true;
        }
    });
    return found;
}

/** Only declared values are accepted, so a stray number never becomes an unnamed enumerator. */
template <DescribedEnum E>
bool enumFromValue(long long value, E* out)
{
    bool found = false;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<E>>([&](auto d) {
        if (!found && static_cast<long long>(d.value) == value) {
            *out = d.value;
            found = true;
        }
    });
    return found;
}

}  // namespace kest::reflect::detail
