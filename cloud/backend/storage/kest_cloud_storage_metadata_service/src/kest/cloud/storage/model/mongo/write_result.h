#pragma once

#include <cstdint>

namespace kest::cloud::storage::metadatadb::mongo {

/** The counts of an acknowledged write. */
struct WriteResult
{
    std::int64_t matched = 0;
    std::int64_t modified = 0;
    std::int64_t upserted = 0;
    std::int64_t inserted = 0;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
