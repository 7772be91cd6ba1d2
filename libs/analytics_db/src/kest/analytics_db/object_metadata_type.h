#pragma once

#include <boost/describe/enum.hpp>

namespace kest::common::metadata {

/** What an object record is: a regular sighting, or a best shot chosen by the VMS or an engine. */
enum class ObjectMetadataType : int
{
    undefined = 0,
    regular = 1,
    bestShot = 2,
    externalBestShot = 3
};

BOOST_DESCRIBE_ENUM(ObjectMetadataType, undefined, regular, bestShot, externalBestShot)

}  // namespace kest::common::metadata
