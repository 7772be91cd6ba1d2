#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "store_generator.h"

namespace kest::bench {

/**
 * What a filled store holds, written beside it so that later runs can search it without
 * generating it again.
 */
struct StoreInfo
{
    std::int64_t trackCount = 0;
    std::uint64_t seed = 0;
    std::int64_t packetCount = 0;
    std::int64_t objectCount = 0;
    std::int64_t firstTimeUs = 0;
    std::int64_t lastTimeUs = 0;
    double fillSeconds = 0;
    std::vector<ZuUuid> deviceIds;
    std::vector<TrackSample> samples;

    bool save(const std::filesystem::path& file) const;
    /** False when the file is missing or not a complete info file. */
    bool load(const std::filesystem::path& file);
};

}  // namespace kest::bench
