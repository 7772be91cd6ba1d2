#include "stream_index.h"

namespace kest::common::metadata {

std::string toString(StreamIndex value)
{
    switch (value) {
        case StreamIndex::primary:
            return "primary";
        case StreamIndex::secondary:
            return "secondary";
        case StreamIndex::undefined:
            break;
    }
    return "";
}

bool fromString(std::string_view text, StreamIndex* out)
{
    if (text.empty() || text == "-1")
        *out = StreamIndex::undefined;
    else if (text == "primary" || text == "0")
        *out = StreamIndex::primary;
    else if (text == "secondary" || text == "1")
        *out = StreamIndex::secondary;
    else
        return false;
    return true;
}

}  // namespace kest::common::metadata
