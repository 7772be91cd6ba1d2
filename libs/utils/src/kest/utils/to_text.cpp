#include "to_text.h"

#include <cstdio>

namespace kest::utils {

namespace detail {

std::string pointerToText(const void* p)
{
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%p", p);
    return buffer;
}

std::string doubleToText(double v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%.17g", v);
    return buffer;
}

}  // namespace detail

std::string formatArgs(std::string_view pattern, const std::string* args, std::size_t count)
{
    std::string out;
    out.reserve(pattern.size() + 32);
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        if (c != '%' || i + 1 >= pattern.size() || pattern[i + 1] < '1' || pattern[i + 1] > '9') {
            out += c;
            continue;
        }
        std::size_t index = pattern[i + 1] - '0';
        std::size_t digits = 1;
        if (i + 2 < pattern.size() && pattern[i + 2] >= '0' && pattern[i + 2] <= '9' &&
            index * 10 + (pattern[i + 2] - '0') <= count) {
            index = index * 10 + (pattern[i + 2] - '0');
            digits = 2;
        }
        if (index > count) {
            out += c;
            continue;
        }
        out += args[index - 1];
        i += digits;
    }
    return out;
}

}  // namespace kest::utils
