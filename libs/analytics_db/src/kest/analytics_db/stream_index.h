#pragma once

#include <string>
#include <string_view>

namespace kest::common::metadata {

/** The video stream a record came from. Its text form is "primary", "secondary", or "" for
 * undefined. */
enum class StreamIndex : int
{
    undefined = -1,
    primary = 0,
    secondary = 1
};

std::string toString(StreamIndex value);
/** Accepts the names above and the numbers -1, 0 and 1. */
bool fromString(std::string_view text, StreamIndex* out);

}  // namespace kest::common::metadata
