#pragma once

#include <boost/describe/class.hpp>
#include <string>
#include <vector>

#include <kest/vms_common/zu_uuid.h>

#include "attribute.h"
#include "object_metadata_type.h"
#include "rect.h"

namespace kest::common::metadata {

/** One detected object in a packet: which track it belongs to, where it is and what it looks like.
 */
struct ObjectMetadata
{
    ZuUuid trackId;
    std::string typeId;
    ObjectMetadataType objectMetadataType = ObjectMetadataType::undefined;
    Rect boundingBox;
    std::vector<Attribute> attributes;
    ZuUuid analyticsEngineId;

    bool isBestShot() const
    {
        return objectMetadataType == ObjectMetadataType::bestShot ||
               objectMetadataType == ObjectMetadataType::externalBestShot;
    }

    friend bool operator==(const ObjectMetadata&, const ObjectMetadata&) = default;
};

BOOST_DESCRIBE_STRUCT(ObjectMetadata, (),
                      (trackId, typeId, objectMetadataType, boundingBox, attributes,
                       analyticsEngineId))

}  // namespace kest::common::metadata
