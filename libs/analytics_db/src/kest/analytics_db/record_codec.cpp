#include "record_codec.h"

#include <cstdint>
#include <cstring>

namespace kest::analytics::db {

using common::metadata::Attribute;

namespace {

class Writer
{
public:
    template <typename T>
    void put(T value)
    {
        char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        m_out.append(bytes, sizeof(T));
    }
    void putString(std::string_view text)
    {
        put(static_cast<std::uint32_t>(text.size()));
        m_out.append(text);
    }
    void putUuid(const ZuUuid& id) { m_out += encodeUuid(id); }
    void putAttributes(const std::vector<Attribute>& attributes)
    {
        put(static_cast<std::uint32_t>(attributes.size()));
        for (const auto& a : attributes) {
            putString(a.name);
            putString(a.value);
        }
    }
    std::string take() { return std::move(m_out); }

private:
    std::string m_out;
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
    return id.toQUuid().toRfc4122().toStdString();
}

ZuUuid decodeUuid(std::string_view bytes)
{
    if (bytes.size() != 16)
        return ZuUuid();
    return ZuUuid(QUuid::fromRfc4122(QByteArray::fromRawData(bytes.data(), 16)));
}

std::string encodeAttributes(const std::vector<Attribute>& attributes)
{
    Writer w;
    w.putAttributes(attributes);
    return w.take();
}

std::vector<Attribute> decodeAttributes(std::string_view bytes)
{
    std::vector<Attribute> out;
    Reader(bytes).getAttributes(&out);
    return out;
}

std::string encodePositions(const std::vector<ObjectPosition>& positions)
{
    Writer w;
    w.put(static_cast<std::uint32_t>(positions.size()));
    for (const auto& p : positions) {
        w.putUuid(p.deviceId);
        w.put(p.timestampUs);
        w.put(p.durationUs);
        w.put(p.boundingBox.x);
        w.put(p.boundingBox.y);
        w.put(p.boundingBox.width);
        w.put(p.boundingBox.height);
        w.putAttributes(p.attributes);
    }
    return w.take();
}

void decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out)
{
    Reader r(bytes);
    std::uint32_t count = 0;
    if (!r.get(&count))
        return;
    for (std::uint32_t i = 0; i < count; ++i) {
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
