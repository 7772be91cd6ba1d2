#pragma once

#include <cstdint>
#include <cstring>

#include <kest/vms_common/zu_uuid.h>

namespace kest::analytics::db {

/** A cheap hash for the storage's maps of ids: ids are random already, so mixing two words is
 * enough. */
struct UuidHash
{
    std::size_t operator()(const ZuUuid& id) const noexcept
    {
        const QUuid& u = id.toQUuid();
        std::uint64_t tail = 0;
        std::memcpy(&tail, u.data4, sizeof(tail));
        const std::uint64_t head =
            (std::uint64_t(u.data1) << 32) ^ (std::uint64_t(u.data2) << 16) ^ u.data3;
        return static_cast<std::size_t>((head ^ tail) * 0x9e3779b97f4a7c15ull);
    }
};

}  // namespace kest::analytics::db
