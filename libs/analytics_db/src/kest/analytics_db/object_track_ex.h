#pragma once

#include <boost/describe/class.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include <kest/vms_common/zu_uuid.h>

#include "attribute.h"
#include "rect.h"
#include "stream_index.h"

namespace kest::analytics::db {

/** Where a track appeared, as a coarse grid over the frame (see the storage for its encoding). */
struct ObjectRegion
{
    std::string boundingBoxGrid;

    friend bool operator==(const ObjectRegion&, const ObjectRegion&) = default;
};
BOOST_DESCRIBE_STRUCT(ObjectRegion, (), (boundingBoxGrid))

/** An image attached to a best shot; empty when the VMS keeps the image itself. */
struct Image
{
    std::string imageDataFormat;
    std::string imageData;

    friend bool operator==(const Image&, const Image&) = default;
};
BOOST_DESCRIBE_STRUCT(Image, (), (imageDataFormat, imageData))

/** The frame that best shows a track's object. A timestamp of 0 means the track has none. */
struct BestShot
{
    std::int64_t timestampUs = 0;
    common::metadata::Rect rect;
    common::metadata::StreamIndex streamIndex = common::metadata::StreamIndex::undefined;
    Image image;

    bool initialized() const { return timestampUs != 0; }
    friend bool operator==(const BestShot&, const BestShot&) = default;
};
BOOST_DESCRIBE_STRUCT(BestShot, (), (timestampUs, rect, streamIndex, image))

/** One sighting of a track's object, for searches that ask for the full track. */
struct ObjectPosition
{
    ZuUuid deviceId;
    std::int64_t timestampUs = 0;
    std::int64_t durationUs = 0;
    common::metadata::Rect boundingBox;
    std::vector<common::metadata::Attribute> attributes;

    friend bool operator==(const ObjectPosition&, const ObjectPosition&) = default;
};
BOOST_DESCRIBE_STRUCT(ObjectPosition, (),
                      (deviceId, timestampUs, durationUs, boundingBox, attributes))

/** An object track as searches return it: one object followed over time on one device. */
struct ObjectTrackEx
{
    ZuUuid id;
    ZuUuid deviceId;
    std::string objectTypeId;
    std::vector<common::metadata::Attribute> attributes;
    std::int64_t firstAppearanceTimeUs = 0;
    std::int64_t lastAppearanceTimeUs = 0;
    ObjectRegion objectPosition;
    BestShot bestShot;
    ZuUuid analyticsEngineId;
    std::vector<ObjectPosition> objectPositionSequence;

    friend bool operator==(const ObjectTrackEx&, const ObjectTrackEx&) = default;
};
BOOST_DESCRIBE_STRUCT(ObjectTrackEx, (),
                      (id, deviceId, objectTypeId, attributes, firstAppearanceTimeUs,
                       lastAppearanceTimeUs, objectPosition, bestShot, analyticsEngineId,
                       objectPositionSequence))

}  // namespace kest::analytics::db
