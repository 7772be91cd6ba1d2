#pragma once

// Packets and search requests as tests and benchmarks write them.

#include <cstdint>
#include <string>
#include <vector>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/cloud/storage/controller/data_request_data.h>

namespace kest::cloud::storage::metadatadb::test {

/** One object of `type` on `track`, seen by `device` at `timeMs` for a millisecond. */
kest::common::metadata::ObjectMetadataPacket packet(
    const ZuUuid& device, std::int64_t timeMs, const ZuUuid& track, const std::string& type,
    std::vector<kest::common::metadata::Attribute> attributes = {});

/** The target of GET /metadataDb/v1/data with the request in its query. */
std::string dataTarget(const DataRequestData& request);

}  // namespace kest::cloud::storage::metadatadb::test
