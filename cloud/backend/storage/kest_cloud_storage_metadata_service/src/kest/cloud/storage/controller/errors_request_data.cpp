#include "errors_request_data.h"

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
