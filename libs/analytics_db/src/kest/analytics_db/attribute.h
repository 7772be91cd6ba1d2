#pragma once

#include <boost/describe/class.hpp>
#include <string>

namespace kest::common::metadata {

/** One name/value attribute of a detected object ("color": "red"). */
struct Attribute
{
    std::string name;
    std::string value;

    friend bool operator==(const Attribute&, const Attribute&) = default;
};

BOOST_DESCRIBE_STRUCT(Attribute, (), (name, value))

}  // namespace kest::common::metadata
