#pragma once

// Well-formed UTF-8, as JSON text must be: what request readers refuse when a string is not, and
// what every JSON writer makes of stored text that is not.

#include <string>
#include <string_view>

namespace kest::reflect::utf8 {

/**
 * Whether `text` is well-formed UTF-8: no stray continuation byte, no truncated, overlong or
 * surrogate sequence, nothing above U+10FFFF. NUL and other control characters are well-formed.
 */
bool isValid(std::string_view text);

/** `text` with every ill-formed sequence replaced by U+FFFD; well-formed text comes back as is. */
std::string toValid(std::string_view text);

}  // namespace kest::reflect::utf8
