#include "errors_request_data.h"

#include <stdexcept>
#include <string>

#include <kest/network/rest/params.h>

namespace kest::cloud::storage::metadatadb {

namespace {

const QString kTimestamp = "timestamp";
const QString kCount = "count";
const QString kClearData = "clearData";

}  // namespace

bool loadFromUrlQuery(const QUrlQuery& query, ErrorsRequestData* data)
{
    const std::string timestamp =
        query.queryItemValue(kTimestamp, QUrl::FullyDecoded).toStdString();
    // Older clients sent placeholders of one or two characters; they mean "no timestamp".
    if (timestamp.size() > 2) {
        const unsigned long value = std::stoul(timestamp);
        data->timestamp =
            std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(value));
    }

    data->clearData = query.queryItemValue(kClearData, QUrl::FullyDecoded) == "true";

    const QString count = query.queryItemValue(kCount, QUrl::FullyDecoded);
    if (!count.isEmpty())
        data->count = count.toUInt();
    return true;
}

bool loadFromUrlQuery(const QUrlQuery& query, ErrorsRequestData* data, std::string* error)
{
    try {
        return loadFromUrlQuery(query, data);
    } catch (const std::logic_error&) {
        // std::stoul's invalid_argument or out_of_range: only the timestamp is converted so.
        const QString value = query.queryItemValue(kTimestamp, QUrl::FullyDecoded);
        *error = kTimestamp.toStdString() + ": '" + value.left(64).toStdString() +
                 "' does not start with a number of milliseconds since 1970-01-01 00:00 UTC "
                 "within 64 bits";
        return false;
    }
}

void serializeToUrlQuery(const ErrorsRequestData& data, QUrlQuery* query)
{
    kest::network::rest::Params params;
    if (data.timestamp)
        params.insert(kTimestamp, QString::number(data.timestamp->count()) + "ms");
    if (data.count)
        params.insert(kCount, QString::number(*data.count));
    if (data.clearData)
        params.insert(kClearData, *data.clearData ? "true" : "false");
    *query = params.toUrlQuery();
}

std::string toString(const ErrorsRequestData& data)
{
    std::string text;
    const auto add = [&text](const std::string& item) {
        if (!text.empty())
            text += ' ';
        text += item;
    };
    if (data.timestamp)
        add("timestamp: " + std::to_string(data.timestamp->count()));
    if (data.count)
        add("count: " + std::to_string(*data.count));
    if (data.clearData)
        add(std::string("clearData: ") + (*data.clearData ? "true" : "false"));
    return text;
}

}  // namespace kest::cloud::storage::metadatadb
