#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <typeinfo>
#include <unordered_set>
#include <vector>

#include <boost/core/demangle.hpp>

namespace kest::reflect {

/** The outcome of reading a record from text; the description says what was wrong and where. */
struct DeserializationResult
{
    bool success = true;
    /** The reader's message, prefixed with the path of the offending field ("a[2].b: ..."). */
    std::string errorDescription;

    explicit operator bool() const { return success; }

    static DeserializationResult failure(std::string description)
    {
        return DeserializationResult{false, std::move(description)};
    }
};

namespace detail {

template <typename T>
struct TypeNameOf
{
    static std::string get() { return boost::core::demangle(typeid(T).name()); }
};

template <typename T>
struct TypeNameOf<std::vector<T>>
{
    static std::string get() { return "std::vector<" + TypeNameOf<T>::get() + ">"; }
};

template <typename T>
struct TypeNameOf<std::set<T>>
{
    static std::string get() { return "std::set<" + TypeNameOf<T>::get() + ">"; }
};

template <typename T>
struct TypeNameOf<std::unordered_set<T>>
{
    static std::string get() { return "std::unordered_set<" + TypeNameOf<T>::get() + ">"; }
};

template <typename T>
struct TypeNameOf<std::optional<T>>
{
    static std::string get() { return "std::optional<" + TypeNameOf<T>::get() + ">"; }
};

template <>
struct TypeNameOf<std::string>
{
    static std::string get() { return "std::string"; }
};

}  // namespace detail

/**
 * A readable name of a type for error texts such as "Error deserializing input of type %1".
 * Standard containers are named without their allocators; specialise it for a nicer name.
 */
template <typename T>
std::string typeName()
{
    return detail::TypeNameOf<T>::get();
}

}  // namespace kest::reflect
