#pragma once

#include <QUuid>
#include <functional>
#include <string>
#include <string_view>

/**
 * A 128-bit identifier of a device, VMS, engine or track. Its text form is braced and
 * lower-case ("{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}"); the simple form has no braces.
 */
class ZuUuid
{
public:
    ZuUuid() = default;
    explicit ZuUuid(const QUuid& uuid) : m_uuid(uuid) {}
    /** Lenient: text that is not a UUID, braced or simple, gives the null UUID. */
    explicit ZuUuid(std::string_view text);
    explicit ZuUuid(const char* text) : ZuUuid(std::string_view(text)) {}
    explicit ZuUuid(const std::string& text) : ZuUuid(std::string_view(text)) {}
    explicit ZuUuid(const QString& text);

    static ZuUuid createUuid();
    /** Strict parsing: false, leaving `out` untouched, when the text is not a UUID. */
    static bool parse(std::string_view text, ZuUuid* out);

    bool isNull() const { return m_uuid.isNull(); }
    std::string toStdString() const;
    std::string toSimpleStdString() const;
    QString toString() const;
    const QUuid& toQUuid() const { return m_uuid; }

    friend bool operator==(const ZuUuid&, const ZuUuid&) = default;
    friend bool operator<(const ZuUuid& a, const ZuUuid& b) { return a.m_uuid < b.m_uuid; }
    friend bool operator>(const ZuUuid& a, const ZuUuid& b) { return b < a; }
    friend bool operator<=(const ZuUuid& a, const ZuUuid& b) { return !(b < a); }
    friend bool operator>=(const ZuUuid& a, const ZuUuid& b) { return !(a < b); }

private:
    QUuid m_uuid;
};

std::string toString(const ZuUuid& id);
/** Strict reading, for codecs: false when the text is not a UUID. */
bool fromString(std::string_view text, ZuUuid* out);
uint qHash(const ZuUuid& id, uint seed = 0);

template <>
struct std::hash<ZuUuid>
{
    std::size_t operator()(const ZuUuid& id) const noexcept { return qHash(id, 0); }
};
