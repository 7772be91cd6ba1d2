#include "level.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

namespace kest::utils::log {

namespace {
constexpr std::array<std::string_view, 7> kNames = {"none", "always", "error",  "warning",
                                                    "info", "debug",  "verbose"};
}

std::string_view toString(Level level)
{
    const auto index = static_cast<std::size_t>(level);
    return index < kNames.size() ? kNames[index] : std::string_view("unknown");
}

std::optional<Level> levelFromString(std::string_view text)
{
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (lower == kNames[i] || lower == std::to_string(i))
            return static_cast<Level>(i);
    }
    return std::nullopt;
}

}  // namespace kest::utils::log
