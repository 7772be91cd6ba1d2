#include "process_statistics.h"

#include <unistd.h>

#include <cstdio>

namespace kest::utils::metrics {

std::optional<std::uint64_t> ProcessStatistics::residentMemoryBytes()
{
    // "size resident shared text lib data dt", in pages. stdio rather than streams: this runs on
    // every scrape and needs no locale.
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    if (!file)
        return std::nullopt;
    unsigned long long sizePages = 0;
    unsigned long long residentPages = 0;
    const int read = std::fscanf(file, "%llu %llu", &sizePages, &residentPages);
    std::fclose(file);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (read != 2 || pageSize <= 0)
        return std::nullopt;
    return residentPages * static_cast<std::uint64_t>(pageSize);
}

}  // namespace kest::utils::metrics
