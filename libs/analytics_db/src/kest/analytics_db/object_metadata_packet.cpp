#include "object_metadata_packet.h"

namespace kest::common::metadata {

namespace {
std::int64_t floorDiv(std::int64_t a, std::int64_t b)
{
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}
}  // namespace

ZuTimePeriod ObjectMetadataPacket::timePeriod() const
{
    const std::int64_t startMs = floorDiv(timestampUs, 1000);
    const std::int64_t endMs =
        -floorDiv(-(timestampUs + std::max<std::int64_t>(durationUs, 0)), 1000);
    return ZuTimePeriod(startMs, endMs - startMs);
}

}  // namespace kest::common::metadata
