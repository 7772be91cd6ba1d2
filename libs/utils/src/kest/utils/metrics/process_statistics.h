#pragma once

#include <cstdint>
#include <optional>

namespace kest::utils::metrics {

/** Figures of the running process that the kernel keeps, read when asked. */
class ProcessStatistics
{
public:
    /** Resident set size, from /proc/self/statm; nothing when it cannot be read. */
    static std::optional<std::uint64_t> residentMemoryBytes();
};

}  // namespace kest::utils::metrics
