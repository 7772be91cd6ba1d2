#pragma once

#include <boost/describe/enum.hpp>

namespace kest::analytics::db {

/** Order of search results by time: "asc" oldest first, "desc" newest first. */
enum class SortOrder : int
{
    asc = 0,
    desc = 1
};

BOOST_DESCRIBE_ENUM(SortOrder, asc, desc)

}  // namespace kest::analytics::db
