#pragma once

#include <optional>
#include <string_view>

namespace kest::utils::log {

/** Log levels, from the most to the least important. A logger writes lines at or below its level.
 */
enum class Level : int
{
    none = 0,
    always = 1,
    error = 2,
    warning = 3,
    info = 4,
    debug = 5,
    verbose = 6
};

std::string_view toString(Level level);

/** Accepts a level's name (any case) or its number; anything else gives nothing. */
std::optional<Level> levelFromString(std::string_view text);

}  // namespace kest::utils::log
