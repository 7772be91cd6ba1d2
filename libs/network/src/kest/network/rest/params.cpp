#include "params.h"

namespace kest::network::rest {

Params Params::fromUrlQuery(const QUrlQuery& query)
{
    Params params;
    for (const auto& [key, value] : query.queryItems(QUrl::FullyDecoded))
        params.insert(key, value);
    return params;
}

QUrlQuery Params::toUrlQuery() const
{
    QUrlQuery query;
    for (const QString& key : m_values.uniqueKeys()) {
        QStringList values = m_values.values(key);
        // values() is newest first; a query lists them in the order they were added.
        for (auto it = values.crbegin(); it != values.crend(); ++it)
            query.addQueryItem(key, *it);
    }
    return query;
}

}  // namespace kest::network::rest
