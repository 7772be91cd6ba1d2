#pragma once

#include <QUuid>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include <kest/vms_common/zu_uuid.h>

namespace kest::analytics::db {

/** The 16 bytes of an id in RFC 4122 order, as the store keeps ids. */
class UuidBytes
{
public:
    explicit UuidBytes(const ZuUuid& id)
    {
        const QUuid& u = id.toQUuid();
        for (int i = 0; i < 4; ++i)
            m_bytes[i] = static_cast<char>(u.data1 >> (24 - 8 * i));
        m_bytes[4] = static_cast<char>(u.data2 >> 8);
        m_bytes[5] = static_cast<char>(u.data2);
        m_bytes[6] = static_cast<char>(u.data3 >> 8);
        m_bytes[7] = static_cast<char>(u.data3);
        std::memcpy(m_bytes.data() + 8, u.data4, 8);
    }

    std::string_view view() const { return {m_bytes.data(), m_bytes.size()}; }
    operator std::string_view() const { return view(); }

private:
    std::array<char, 16> m_bytes{};
};

inline std::string encodeUuid(const ZuUuid& id)
{
    return std::string(UuidBytes(id).view());
}

/** The id of 16 such bytes; the null id for any other size. */
inline ZuUuid decodeUuid(std::string_view bytes)
{
    if (bytes.size() != 16)
        return ZuUuid();
    const auto byte = [&](int i) { return static_cast<std::uint8_t>(bytes[i]); };
    return ZuUuid(
        QUuid((uint(byte(0)) << 24) | (uint(byte(1)) << 16) | (uint(byte(2)) << 8) | byte(3),
              static_cast<ushort>((byte(4) << 8) | byte(5)),
              static_cast<ushort>((byte(6) << 8) | byte(7)), byte(8), byte(9), byte(10), byte(11),
              byte(12), byte(13), byte(14), byte(15)));
}

}  // namespace kest::analytics::db
