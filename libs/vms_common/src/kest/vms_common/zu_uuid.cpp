#include "zu_uuid.h"

#include <QHash>

namespace {

QUuid parseQUuid(std::string_view text)
{
    // QUuid takes both the braced and the simple form; anything else is null.
    return QUuid::fromString(QLatin1String(text.data(), static_cast<int>(text.size())));
}

}  // namespace

ZuUuid::ZuUuid(std::string_view text) : m_uuid(parseQUuid(text)) {}

ZuUuid::ZuUuid(const QString& text) : m_uuid(QUuid::fromString(text)) {}

ZuUuid ZuUuid::createUuid()
{
    return ZuUuid(QUuid::createUuid());
}

bool ZuUuid::parse(std::string_view text, ZuUuid* out)
{
    const QUuid uuid = parseQUuid(text);
    if (uuid.isNull()) {
        // Only the all-zero text itself may give the null UUID.
        const std::string_view zero = "00000000-0000-0000-0000-000000000000";
        const std::string_view inner =
            text.size() == zero.size() + 2 && text.front() == '{' && text.back() == '}'
                ? text.substr(1, zero.size())
                : text;
        if (inner != zero)
            return false;
    }
    *out = ZuUuid(uuid);
    return true;
}

std::string ZuUuid::toStdString() const
{
    return m_uuid.toString(QUuid::WithBraces).toStdString();
}

std::string ZuUuid::toSimpleStdString() const
{
    return m_uuid.toString(QUuid::WithoutBraces).toStdString();
}

QString ZuUuid::toString() const
{
    return m_uuid.toString(QUuid::WithBraces);
}

std::string toString(const ZuUuid& id)
{
    return id.toStdString();
}

bool fromString(std::string_view text, ZuUuid* out)
{
    return ZuUuid::parse(text, out);
}

uint qHash(const ZuUuid& id, uint seed)
{
    return qHash(id.toQUuid(), seed);
}
