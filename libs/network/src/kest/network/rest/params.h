#pragma once

#include <QMultiMap>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

namespace kest::network::rest {

/**
 * Request parameters as a multi-map: a key may repeat. `values(key)` lists the most recently
 * inserted value first, which is the reverse of their order in a query.
 */
class Params
{
public:
    Params() = default;
    static Params fromUrlQuery(const QUrlQuery& query);

    void insert(const QString& key, const QString& value) { m_values.insert(key, value); }
    bool contains(const QString& key) const { return m_values.contains(key); }
    /** The most recently inserted value of the key, or `defaultValue`. */
    QString value(const QString& key, const QString& defaultValue = QString()) const
    {
        return m_values.value(key, defaultValue);
    }
    QStringList values(const QString& key) const { return m_values.values(key); }
    int remove(const QString& key) { return m_values.remove(key); }
    bool isEmpty() const { return m_values.isEmpty(); }
    QList<QString> keys() const { return m_values.uniqueKeys(); }

    /** Keys in order, each key's values in insertion order. */
    QUrlQuery toUrlQuery() const;

    const QMultiMap<QString, QString>& map() const { return m_values; }

private:
    QMultiMap<QString, QString> m_values;
};

}  // namespace kest::network::rest
