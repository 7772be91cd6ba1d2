#pragma once

#include <QByteArray>
#include <QUuid>
#include <string>
#include <string_view>

#include <kest/vms_common/zu_uuid.h>

namespace kest::analytics::db {

/** The 16 bytes of an id in RFC 4122 order, as the store keeps ids. */
inline std::string encodeUuid(const ZuUuid& id)
{
    return id.toQUuid().toRfc4122().toStdString();
}

/** The id of 16 such bytes; the null id for any other size. */
inline ZuUuid decodeUuid(std::string_view bytes)
{
    if (bytes.size() != 16)
        return ZuUuid();
    return ZuUuid(QUuid::fromRfc4122(QByteArray::fromRawData(bytes.data(), 16)));
}

}  // namespace kest::analytics::db
