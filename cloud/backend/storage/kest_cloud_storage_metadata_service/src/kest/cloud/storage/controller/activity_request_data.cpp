#include "activity_request_data.h"

#include <charconv>

#include <kest/network/rest/params.h>

#include "data_request_data.h"

namespace kest::cloud::storage::metadatadb {

namespace {

const QString kBucketMs = "bucketMs";
const QString kHeatmap = "heatmap";

/** A value as an error quotes it: long ones are cut, so that the answer stays short. */
std::string quoted(const QString& value)
{
    static constexpr int kMaxQuoted = 64;
    // Appended, not "'" + ...: GCC 12 at -O3 warns of an overlap (-Wrestrict) that is none.
    std::string text = "'";
    text += (value.size() <= kMaxQuoted ? value : value.left(kMaxQuoted) + "...").toStdString();
    text += '\'';
    return text;
}

}  // namespace

std::int64_t ActivityRequestData::bucketWidthMs() const
{
    if (bucketMs)
        return *bucketMs;
    const ZuTimePeriod& period = filter.timePeriod;
    if (period.isInfinite() || period.durationMs <= 0)
        return 0;
    return period.durationMs / kDefaultBuckets + (period.durationMs % kDefaultBuckets != 0);
}

bool loadFromUrlQuery(const QUrlQuery& query, ActivityRequestData* data)
{
    std::string error;
    return loadFromUrlQuery(query, data, &error);
}

bool loadFromUrlQuery(const QUrlQuery& query, ActivityRequestData* data, std::string* error)
{
    auto params = kest::network::rest::Params::fromUrlQuery(query);
    ActivityRequestData result;
    // Of a repeated item the last one counts, as with the filter's items.
    if (params.contains(kBucketMs)) {
        const std::string text = params.value(kBucketMs).toStdString();
        std::int64_t value = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc() || end != text.data() + text.size() || text.empty()) {
            *error = kBucketMs.toStdString() + ": " + quoted(params.value(kBucketMs)) +
                     " is not a whole number of milliseconds";
            return false;
        }
        result.bucketMs = value;
        params.remove(kBucketMs);
    }
    if (params.contains(kHeatmap)) {
        const QString text = params.value(kHeatmap);
        if (text != "true" && text != "false") {
            *error =
                kHeatmap.toStdString() + ": " + quoted(text) + " is neither 'true' nor 'false'";
            return false;
        }
        result.heatmap = text == "true";
        params.remove(kHeatmap);
    }
    DataRequestData search;
    if (!loadFromParams(&params, &search, error))
        return false;
    result.filter = std::move(search.filter);
    result.internal_lookup = search.internal_lookup;
    *data = std::move(result);
    return true;
}

void serializeToUrlQuery(const ActivityRequestData& data, QUrlQuery* query)
{
    serializeToUrlQuery(DataRequestData{data.filter, data.internal_lookup}, query);
    if (data.bucketMs)
        query->addQueryItem(kBucketMs, QString::number(*data.bucketMs));
    if (data.heatmap)
        query->addQueryItem(kHeatmap, "true");
}

}  // namespace kest::cloud::storage::metadatadb
