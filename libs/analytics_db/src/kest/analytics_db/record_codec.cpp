#include "record_codec.h"

#include <cstdint>
#include <cstring>

namespace kest::analytics::db {

using common::metadata::Attribute;

namespace {

class Writer
{
public:
    explicit Writer(std::string* out) : m_out(*out) {}

    template <typename T>
    void put(T value)
    {
        char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        m_out.append(bytes, sizeof(T));
    }
    void putVarint(std::int64_t signedValue)
    {
        auto value = (static_cast<std::uint64_t>(signedValue) << 1) ^
                     static_cast<std::uint64_t>(signedValue >> 63);
        while (value >= 0x80) {
            m_out += static_cast<char>((value & 0x7f) | 0x80);
            value >>= 7;
        }
        m_out += static_cast<char>(value);
    }
    void putString(std::string_view text)
    {
        put(static_cast<std::uint32_t>(text.size()));
        m_out.append(text);
    }
    void putUuid(const ZuUuid& id)
    {
        const QUuid& u = id.toQUuid();
        putBigEndian(u.data1, 4);
        putBigEndian(u.data2, 2);
        putBigEndian(u.data3, 2);
        m_out.append(reinterpret_cast<const char*>(u.data4), 8);
    }
    void putAttributes(const std::vector<Attribute>& attributes)
    {
        put(static_cast<std::uint32_t>(attributes.size()));
        for (const auto& a : attributes) {
            putString(a.name);
            putString(a.value);
        }
    }

private:
    void putBigEndian(std::uint32_t value, int bytes)
    {
        for (int i = bytes - 1; i >= 0; --i)
            m_out += static_cast<char>((value >> (8 * i)) & 0xff);
    }

    std::string& m_out;
};

class Reader
{
public:
    explicit Reader(std::string_view bytes) : m_in(bytes) {}

    template <typename T>
    bool get(T* value)
    {
        if (m_in.size() < sizeof(T))
            return false;
        std::memcpy(value, m_in.data(), sizeof(T));
        m_in.remove_prefix(sizeof(T));
        return true;
    }
    bool getString(std::string* text)
    {
        std::uint32_t size = 0;
        if (!get(&size) || m_in.size() < size)
            return false;
        text->assign(m_in.substr(0, size));
        m_in.remove_prefix(size);
        return true;
    }
    bool atEnd() const { return m_in.empty(); }
    bool getVarint(std::int64_t* out)
    {
        std::uint64_t value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (m_in.empty())
                return false;
            const auto byte = static_cast<std::uint8_t>(m_in.front());
            m_in.remove_prefix(1);
            value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
            if (!(byte & 0x80)) {
                *out =
                    static_cast<std::int64_t>(value >> 1) ^ -static_cast<std::int64_t>(value & 1);
                return true;
            }
        }
        return false;
    }
    bool getUuid(ZuUuid* id)
    {
        if (m_in.size() < 16)
            return false;
        *id = decodeUuid(m_in.substr(0, 16));
        m_in.remove_prefix(16);
        return true;
    }
    bool getAttributes(std::vector<Attribute>* out)
    {
        std::uint32_t count = 0;
        if (!get(&count))
            return false;
        for (std::uint32_t i = 0; i < count; ++i) {
            Attribute a;
            if (!getString(&a.name) || !getString(&a.value))
                return false;
            out->push_back(std::move(a));
        }
        return true;
    }

private:
    std::string_view m_in;
};

}  // namespace

std::string encodeUuid(const ZuUuid& id)
{
    std::string out;
    out.reserve(16);
    Writer(&out).putUuid(id);
    return out;
}

ZuUuid decodeUuid(std::string_view bytes)
{
    if (bytes.size() != 16)
        return ZuUuid();
    return ZuUuid(QUuid::fromRfc4122(QByteArray::fromRawData(bytes.data(), 16)));
}

std::string encodeAttributes(const std::vector<Attribute>& attributes)
{
    std::string out;
    Writer(&out).putAttributes(attributes);
    return out;
}

std::vector<Attribute> decodeAttributes(std::string_view bytes)
{
    std::vector<Attribute> out;
    Reader(bytes).getAttributes(&out);
    return out;
}

namespace {
constexpr std::uint8_t kDeviceFollows = 1;
constexpr std::uint8_t kAttributesFollow = 2;
}  // namespace

void PositionChunk::append(const ZuUuid& deviceId, std::int64_t timestampUs,
                           std::int64_t durationUs, const common::metadata::Rect& box,
                           const std::vector<Attribute>& attributes)
{
    std::uint8_t flags = 0;
    if (!m_started || deviceId != m_deviceId)
        flags |= kDeviceFollows;
    if (!m_started || attributes != m_attributes)
        flags |= kAttributesFollow;
    Writer w(&m_bytes);
    w.put(flags);
    // Modular arithmetic: any two times round-trip exactly, near ones take a byte or three.
    w.putVarint(static_cast<std::int64_t>(static_cast<std::uint64_t>(timestampUs) -
                                          static_cast<std::uint64_t>(m_timestampUs)));
    w.putVarint(durationUs);
    w.put(box.x);
    w.put(box.y);
    w.put(box.width);
    w.put(box.height);
    if (flags & kDeviceFollows)
        w.putUuid(deviceId);
    if (flags & kAttributesFollow) {
        w.putAttributes(attributes);
        m_attributes = attributes;
    }
    m_started = true;
    m_deviceId = deviceId;
    m_timestampUs = timestampUs;
}

std::string encodePositions(const std::vector<ObjectPosition>& positions)
{
    PositionChunk chunk;
    for (const auto& p : positions)
        chunk.append(p.deviceId, p.timestampUs, p.durationUs, p.boundingBox, p.attributes);
    return chunk.bytes();
}

void decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out)
{
    Reader r(bytes);
    ObjectPosition previous;
    while (!r.atEnd()) {
        ObjectPosition p;
        std::uint8_t flags = 0;
        std::int64_t delta = 0;
        if (!r.get(&flags) || !r.getVarint(&delta))
            return;
        p.timestampUs = static_cast<std::int64_t>(static_cast<std::uint64_t>(previous.timestampUs) +
                                                  static_cast<std::uint64_t>(delta));
        if (!r.getVarint(&p.durationUs) || !r.get(&p.boundingBox.x) || !r.get(&p.boundingBox.y) ||
            !r.get(&p.boundingBox.width) || !r.get(&p.boundingBox.height)) {
            return;
        }
        if (flags & kDeviceFollows) {
            if (!r.getUuid(&p.deviceId))
                return;
        } else {
            p.deviceId = previous.deviceId;
        }
        if (flags & kAttributesFollow) {
            if (!r.getAttributes(&p.attributes))
                return;
        } else {
            p.attributes = previous.attributes;
        }
        previous = p;
        out->push_back(std::move(p));
    }
}

void decodePositionsV1(std::string_view bytes, std::vector<ObjectPosition>* out)
{
    Reader r(bytes);
    while (!r.atEnd()) {
        ObjectPosition p;
        if (!r.getUuid(&p.deviceId) || !r.get(&p.timestampUs) || !r.get(&p.durationUs) ||
            !r.get(&p.boundingBox.x) || !r.get(&p.boundingBox.y) || !r.get(&p.boundingBox.width) ||
            !r.get(&p.boundingBox.height) || !r.getAttributes(&p.attributes)) {
            return;
        }
        out->push_back(std::move(p));
    }
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
