#include "track_row.h"

#include "byte_reader.h"
#include "byte_writer.h"
#include "fixed_point.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using common::metadata::Attribute;
using common::metadata::Rect;
using Kind = StoreDictionary::Kind;

namespace {

enum DetailFlag : std::uint8_t
{
    kHasBestShot = 1 << 0,
    kHasOrigin = 1 << 1,
    kRawBestShotRect = 1 << 2,
};

std::int64_t bigEndian(const char* bytes)
{
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value = (value << 8) | static_cast<std::uint8_t>(bytes[i]);
    return static_cast<std::int64_t>(value);
}

void putBigEndian(std::int64_t value, char* bytes)
{
    for (int i = 7; i >= 0; --i) {
        bytes[i] = static_cast<char>(value & 0xff);
        value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) >> 8);
    }
}

std::string encodeDetail(const StoredTrack& stored)
{
    const TrackAggregate& t = stored.track;
    std::uint8_t flags = 0;
    const bool hasBest = t.bestShotKind != 0;
    std::optional<std::int64_t> units[4];
    if (hasBest) {
        flags |= kHasBestShot;
        const Rect& r = t.bestShot.rect;
        units[0] = FixedPoint::units(r.x);
        units[1] = FixedPoint::units(r.y);
        units[2] = FixedPoint::units(r.width);
        units[3] = FixedPoint::units(r.height);
        if (!units[0] || !units[1] || !units[2] || !units[3])
            flags |= kRawBestShotRect;
    }
    if (t.originUs != t.firstUs)
        flags |= kHasOrigin;
    std::string out;
    ByteWriter w(&out);
    w.putByte(flags);
    // Chunk ids grow as tracks end: the first in full, the rest as steps.
    w.putVarint(stored.chunks.size());
    std::int64_t previous = 0;
    for (const std::int64_t chunk : stored.chunks) {
        w.putSigned(chunk - previous);
        previous = chunk;
    }
    w.putVarint(static_cast<std::uint64_t>(stored.sealed));
    if (flags & kHasOrigin)
        w.putSigned(t.originUs - t.firstUs);
    if (hasBest) {
        w.putSigned(t.bestShot.timestampUs - t.firstUs);
        w.putByte(static_cast<std::uint8_t>(static_cast<int>(t.bestShot.streamIndex) + 1));
        if (flags & kRawBestShotRect) {
            w.putFixed(t.bestShot.rect.x);
            w.putFixed(t.bestShot.rect.y);
            w.putFixed(t.bestShot.rect.width);
            w.putFixed(t.bestShot.rect.height);
        } else {
            for (const auto& u : units)
                w.putSigned(*u);
        }
    }
    return out;
}

bool decodeDetail(std::string_view bytes, StoredTrack* stored)
{
    TrackAggregate& t = stored->track;
    ByteReader r(bytes);
    std::uint8_t flags = 0;
    std::uint64_t sealed = 0;
    std::uint64_t chunks = 0;
    if (!r.getByte(&flags) || !r.getVarint(&chunks) || chunks > bytes.size())
        return false;
    stored->chunks.clear();
    std::int64_t chunk = 0;
    for (std::uint64_t i = 0; i < chunks; ++i) {
        std::int64_t step = 0;
        if (!r.getSigned(&step))
            return false;
        chunk += step;
        stored->chunks.push_back(chunk);
    }
    if (!r.getVarint(&sealed))
        return false;
    stored->sealed = static_cast<std::int64_t>(sealed);
    t.originUs = t.firstUs;
    if (flags & kHasOrigin) {
        std::int64_t delta = 0;
        if (!r.getSigned(&delta))
            return false;
        t.originUs = t.firstUs + delta;
    }
    if (flags & kHasBestShot) {
        std::int64_t delta = 0;
        std::uint8_t stream = 0;
        if (!r.getSigned(&delta) || !r.getByte(&stream))
            return false;
        t.bestShot.timestampUs = t.firstUs + delta;
        t.bestShot.streamIndex = static_cast<common::metadata::StreamIndex>(int{stream} - 1);
        Rect& rect = t.bestShot.rect;
        if (flags & kRawBestShotRect) {
            if (!r.getFixed(&rect.x) || !r.getFixed(&rect.y) || !r.getFixed(&rect.width) ||
                !r.getFixed(&rect.height)) {
                return false;
            }
        } else {
            std::int64_t u[4];
            for (auto& v : u) {
                if (!r.getSigned(&v))
                    return false;
            }
            rect = {FixedPoint::value(u[0]), FixedPoint::value(u[1]), FixedPoint::value(u[2]),
                    FixedPoint::value(u[3])};
        }
    }
    return true;
}

}  // namespace

std::pair<std::int64_t, std::int64_t> TrackRow::idHalves(const ZuUuid& id)
{
    const UuidBytes uuid(id);
    const std::string_view bytes = uuid.view();
    const std::int64_t low = bigEndian(bytes.data() + 8);
    return {bigEndian(bytes.data()) ^ mixed(low), low};
}

ZuUuid TrackRow::idOf(std::int64_t key, std::int64_t low)
{
    char bytes[16];
    putBigEndian(key ^ mixed(low), bytes);
    putBigEndian(low, bytes + 8);
    return decodeUuid(std::string_view(bytes, 16));
}

std::int64_t TrackRow::mixed(std::int64_t value)
{
    // The finalizer of splitmix64: every bit of the input moves about half of the output.
    auto z = static_cast<std::uint64_t>(value);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return static_cast<std::int64_t>(z ^ (z >> 31));
}

std::string TrackRow::encodeAttributes(const std::vector<Attribute>& attributes,
                                       AttributeCoder& coder)
{
    std::string out;
    ByteWriter w(&out);
    w.putVarint(attributes.size());
    for (const auto& a : attributes)
        coder.encode(a).write(w);
    return out;
}

bool TrackRow::decodeAttributes(std::string_view bytes, const StoreDictionary& dictionary,
                                std::vector<Attribute>* out)
{
    ByteReader r(bytes);
    std::uint64_t count = 0;
    // Each code takes a byte at least.
    if (!r.getVarint(&count) || count > bytes.size())
        return false;
    out->resize(count);
    for (Attribute& attribute : *out) {
        if (!AttributeCoder::read(r, dictionary, &attribute))
            return false;
    }
    return true;
}

bool TrackRow::read(const sql::Statement& row, int c, const StoreDictionary& dictionary,
                    StoredTrack* out)
{
    out->rowId = row.int64(c + kRowIdColumn);
    TrackAggregate& t = out->track;
    t.id = idOf(row.int64(c + 1), row.int64(c + 2));
    const auto* device =
        dictionary.value(Kind::device, static_cast<std::uint32_t>(row.int64(c + 3)));
    const auto* type = dictionary.value(Kind::type, static_cast<std::uint32_t>(row.int64(c + 4)));
    const auto* engine =
        dictionary.value(Kind::engine, static_cast<std::uint32_t>(row.int64(c + 5)));
    if (!device || !type || !engine)
        return false;
    t.deviceId = decodeUuid(*device);
    t.typeId = *type;
    t.engineId = decodeUuid(*engine);
    t.firstUs = row.int64(c + kFirstUsColumn);
    t.lastUs = t.firstUs + row.int64(c + 7);
    t.bestShotKind = static_cast<int>(row.int64(c + 8));
    t.bestShot = BestShot();
    t.grid = BoundingBoxGrid::fromCompact(row.blob(c + 9));
    return decodeAttributes(row.blob(c + 10), dictionary, &t.attributes) &&
           decodeDetail(row.blob(c + 11), out);
}

void TrackRow::bind(sql::Statement& s, const StoredTrack& stored, AttributeCoder& coder,
                    StoreDictionary& dictionary, Encoded* encoded)
{
    const TrackAggregate& t = stored.track;
    const auto [high, low] = idHalves(t.id);
    s.bind(1, stored.rowId);
    s.bind(2, high);
    s.bind(3, low);
    s.bind(4, static_cast<std::int64_t>(dictionary.key(Kind::device, UuidBytes(t.deviceId))));
    s.bind(5, static_cast<std::int64_t>(dictionary.key(Kind::type, t.typeId)));
    s.bind(6, static_cast<std::int64_t>(dictionary.key(Kind::engine, UuidBytes(t.engineId))));
    s.bind(7, t.firstUs);
    s.bind(8, t.lastUs - t.firstUs);
    s.bind(9, t.bestShotKind);
    encoded->grid = t.grid.toCompact();
    encoded->attributes = encodeAttributes(t.attributes, coder);
    encoded->detail = encodeDetail(stored);
    s.bindBlobInPlace(10, encoded->grid);
    s.bindBlobInPlace(11, encoded->attributes);
    s.bindBlobInPlace(12, encoded->detail);
}

std::string attributesSearchText(const std::vector<Attribute>& attributes)
{
    std::string text;
    for (const auto& a : attributes) {
        text += a.name;
        text += ' ';
        text += a.value;
        text += '\n';
    }
    return text;
}

}  // namespace kest::analytics::db
