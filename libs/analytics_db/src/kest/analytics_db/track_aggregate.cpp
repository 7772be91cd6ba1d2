#include "track_aggregate.h"

#include <algorithm>
#include <limits>
#include <tuple>

namespace kest::analytics::db {

using common::metadata::Attribute;
using common::metadata::ObjectMetadata;
using common::metadata::ObjectMetadataPacket;
using common::metadata::Rect;

namespace {

auto rectKey(const Rect& r)
{
    return std::make_tuple(r.x, r.y, r.width, r.height);
}

auto attributeKey(const Attribute& a)
{
    return std::tie(a.name, a.value);
}

}  // namespace

bool TrackAggregate::add(const ObjectMetadataPacket& packet, const ObjectMetadata& object)
{
    if (id.isNull())
        id = object.trackId;
    addSighting({packet.timestampUs, packet.durationUs, packet.deviceId, object.typeId,
                 object.analyticsEngineId, object.objectMetadataType, object.boundingBox,
                 packet.streamIndex});
    return addAttributes(object.attributes);
}

void TrackAggregate::addSighting(const Sighting& s)
{
    const std::int64_t start = s.startUs;
    std::int64_t end = 0;
    if (__builtin_add_overflow(start, std::max<std::int64_t>(s.durationUs, 0), &end))
        end = std::numeric_limits<std::int64_t>::max();
    firstUs = std::min(firstUs, start);
    lastUs = std::max(lastUs, end);
    takeOrigin(start, s.deviceId, s.typeId, s.engineId);
    grid.add(s.box);
    if (s.kind == common::metadata::ObjectMetadataType::bestShot ||
        s.kind == common::metadata::ObjectMetadataType::externalBestShot) {
        BestShot shot;
        shot.timestampUs = start;
        shot.rect = s.box;
        shot.streamIndex = s.stream;
        takeBestShot(shot, static_cast<int>(s.kind));
    }
}

bool TrackAggregate::addAttributes(const std::vector<Attribute>& attributes)
{
    bool grew = false;
    for (const auto& a : attributes)
        grew |= addAttribute(a);
    return grew;
}

bool TrackAggregate::merge(const TrackAggregate& other)
{
    if (!other.hasData())
        return false;
    if (id.isNull())
        id = other.id;
    firstUs = std::min(firstUs, other.firstUs);
    lastUs = std::max(lastUs, other.lastUs);
    takeOrigin(other.originUs, other.deviceId, other.typeId, other.engineId);
    grid |= other.grid;
    if (other.bestShotKind != 0)
        takeBestShot(other.bestShot, other.bestShotKind);
    bool grew = false;
    for (const auto& a : other.attributes)
        grew |= addAttribute(a);
    return grew;
}

void TrackAggregate::takeOrigin(std::int64_t candidateUs, const ZuUuid& device,
                                const std::string& type, const ZuUuid& engine)
{
    const auto candidate =
        std::make_tuple(type.empty(), candidateUs, std::cref(type), engine, device);
    const auto current =
        std::make_tuple(typeId.empty(), originUs, std::cref(typeId), engineId, deviceId);
    if (originUs != kNoTime && !(candidate < current))
        return;
    originUs = candidateUs;
    typeId = type;
    engineId = engine;
    deviceId = device;
}

void TrackAggregate::takeBestShot(const BestShot& shot, int kind)
{
    // Greater wins: the stronger kind, then the later shot, then the smaller rectangle.
    const auto key = [](const BestShot& s, int k) {
        const auto [x, y, w, h] = rectKey(s.rect);
        return std::make_tuple(k, s.timestampUs, -x, -y, -w, -h, -static_cast<int>(s.streamIndex));
    };
    if (bestShotKind != 0 && !(key(bestShot, bestShotKind) < key(shot, kind)))
        return;
    bestShot = shot;
    bestShotKind = kind;
}

bool TrackAggregate::addAttribute(const Attribute& attribute)
{
    const auto it = std::lower_bound(
        attributes.begin(), attributes.end(), attribute,
        [](const Attribute& a, const Attribute& b) { return attributeKey(a) < attributeKey(b); });
    if (it != attributes.end() && *it == attribute)
        return false;
    attributes.insert(it, attribute);
    return true;
}

ObjectTrackEx TrackAggregate::toTrack() const&
{
    return TrackAggregate(*this).toTrack();
}

ObjectTrackEx TrackAggregate::toTrack() &&
{
    ObjectTrackEx track;
    track.id = id;
    track.deviceId = deviceId;
    track.objectTypeId = std::move(typeId);
    track.attributes = std::move(attributes);
    track.firstAppearanceTimeUs = firstUs;
    track.lastAppearanceTimeUs = lastUs;
    track.objectPosition.boundingBoxGrid = grid.toHex();
    track.bestShot = bestShot;
    track.analyticsEngineId = engineId;
    return track;
}

void sortPositions(std::vector<ObjectPosition>* positions)
{
    const auto less = [](const ObjectPosition& a, const ObjectPosition& b) {
        const auto ka =
            std::make_tuple(a.timestampUs, a.durationUs, rectKey(a.boundingBox), a.deviceId);
        const auto kb =
            std::make_tuple(b.timestampUs, b.durationUs, rectKey(b.boundingBox), b.deviceId);
        if (ka != kb)
            return ka < kb;
        return std::lexicographical_compare(a.attributes.begin(), a.attributes.end(),
                                            b.attributes.begin(), b.attributes.end(),
                                            [](const Attribute& x, const Attribute& y) {
                                                return attributeKey(x) < attributeKey(y);
                                            });
    };
    std::sort(positions->begin(), positions->end(), less);
}

}  // namespace kest::analytics::db
