#include "packets.h"

#include <QUrl>
#include <QUrlQuery>

namespace kest::cloud::storage::metadatadb::test {

kest::common::metadata::ObjectMetadataPacket packet(
    const ZuUuid& device, std::int64_t timeMs, const ZuUuid& track, const std::string& type,
    std::vector<kest::common::metadata::Attribute> attributes)
{
    kest::common::metadata::ObjectMetadataPacket result;
    result.deviceId = device;
    result.timestampUs = timeMs * 1000;
    result.durationUs = 1000;
    result.streamIndex = kest::common::metadata::StreamIndex::primary;
    kest::common::metadata::ObjectMetadata object;
    object.trackId = track;
    object.typeId = type;
    object.objectMetadataType = kest::common::metadata::ObjectMetadataType::regular;
    object.boundingBox = {0.1, 0.2, 0.3, 0.4};
    object.attributes = std::move(attributes);
    result.objectMetadataList.push_back(std::move(object));
    return result;
}

std::string dataTarget(const DataRequestData& request)
{
    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    return "/metadataDb/v1/data?" + query.toString(QUrl::FullyEncoded).toStdString();
}

}  // namespace kest::cloud::storage::metadatadb::test
