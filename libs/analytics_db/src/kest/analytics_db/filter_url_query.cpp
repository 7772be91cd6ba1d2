#include "filter_url_query.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

#include <kest/reflect/json.h>

namespace kest::analytics::db {

namespace {

const QString kDeviceIds = "deviceIds";
const QString kObjectTypeId = "objectTypeId";
const QString kObjectTrackId = "objectTrackId";
const QString kStartTimeMs = "startTimeMs";
const QString kDurationMs = "durationMs";
const QString kBoundingBox = "boundingBox";
const QString kFreeText = "freeText";
const QString kMaxObjectTracksToSelect = "maxObjectTracksToSelect";
const QString kNeedFullTrack = "needFullTrack";
const QString kSortOrder = "sortOrder";
const QString kWithBestShotOnly = "withBestShotOnly";
const QString kAnalyticsEngineId = "analyticsEngineId";

void addItem(QUrlQuery* query, const QString& key, const std::string& value)
{
    // The service percent-decodes a whole query once before splitting it into items, and then
    // decodes each item again. Characters that split or escape ("a&b", "50%41") are therefore
    // escaped twice: "%2526" arrives as "%26" and is read as "&". QUrlQuery takes the "%25"
    // we write as an escape of its own, so it puts exactly this on the wire.
    static constexpr std::string_view kSpecial = "%&=+#;";
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(value.size());
    for (const char c : value) {
        if (kSpecial.find(c) == std::string_view::npos) {
            text += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        text += "%25";
        text += kHex[byte >> 4];
        text += kHex[byte & 0xF];
    }
    query->addQueryItem(key, QString::fromStdString(text));
}

std::string uuidText(const ZuUuid& id)
{
    return id.toSimpleStdString();
}

std::string doubleText(double value)
{
    std::array<char, 32> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), end);
}

template <typename T>
bool parseNumber(std::string_view text, T* out)
{
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, *out);
    if constexpr (std::is_floating_point_v<T>) {
        // from_chars takes "nan" and "inf" too; a rectangle has finite sides.
        if (!std::isfinite(*out))
            return false;
    }
    return ec == std::errc() && ptr == end && !text.empty();
}

bool parseBool(std::string_view text, bool* out)
{
    if (text != "true" && text != "false")
        return false;
    *out = text == "true";
    return true;
}

bool parseSortOrder(std::string_view text, SortOrder* out)
{
    if (text == "asc")
        *out = SortOrder::asc;
    else if (text == "desc")
        *out = SortOrder::desc;
    else
        return false;
    return true;
}

bool parseRect(std::string_view text, common::metadata::Rect* out)
{
    std::array<double, 4> values{};
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::size_t comma = text.find(',');
        const bool last = i + 1 == values.size();
        if (last != (comma == std::string_view::npos))
            return false;
        if (!parseNumber(text.substr(0, comma), &values[i]))
            return false;
        if (!last)
            text.remove_prefix(comma + 1);
    }
    *out = common::metadata::Rect{values[0], values[1], values[2], values[3]};
    return true;
}

/** Applies `parse` to the last value of `key`, if the key is there. */
template <typename T, typename Parse>
bool readLast(const network::rest::Params& params, const QString& key, T* out, Parse parse)
{
    if (!params.contains(key))
        return true;
    return parse(params.value(key).toStdString(), out);
}

}  // namespace

void serializeToUrlQuery(const Filter& filter, QUrlQuery* query)
{
    const Filter defaults;
    for (const ZuUuid& id : filter.deviceIds)
        addItem(query, kDeviceIds, uuidText(id));
    for (const std::string& type : filter.objectTypeId)
        addItem(query, kObjectTypeId, type);
    if (filter.objectTrackId != defaults.objectTrackId)
        addItem(query, kObjectTrackId, uuidText(filter.objectTrackId));
    if (filter.timePeriod != defaults.timePeriod) {
        addItem(query, kStartTimeMs, std::to_string(filter.timePeriod.startTimeMs));
        addItem(query, kDurationMs, std::to_string(filter.timePeriod.durationMs));
    }
    if (const auto& box = filter.boundingBox) {
        addItem(query, kBoundingBox,
                doubleText(box->x) + ',' + doubleText(box->y) + ',' + doubleText(box->width) + ',' +
                    doubleText(box->height));
    }
    if (filter.freeText != defaults.freeText)
        addItem(query, kFreeText, filter.freeText);
    if (filter.maxObjectTracksToSelect != defaults.maxObjectTracksToSelect)
        addItem(query, kMaxObjectTracksToSelect, std::to_string(filter.maxObjectTracksToSelect));
    if (filter.needFullTrack != defaults.needFullTrack)
        addItem(query, kNeedFullTrack, filter.needFullTrack ? "true" : "false");
    if (filter.sortOrder != defaults.sortOrder)
        addItem(query, kSortOrder, filter.sortOrder == SortOrder::asc ? "asc" : "desc");
    if (filter.withBestShotOnly != defaults.withBestShotOnly)
        addItem(query, kWithBestShotOnly, filter.withBestShotOnly ? "true" : "false");
    if (filter.analyticsEngineId != defaults.analyticsEngineId)
        addItem(query, kAnalyticsEngineId, uuidText(filter.analyticsEngineId));
}

bool deserializeFromParams(const network::rest::Params& params, Filter* filter)
{
    Filter result;
    for (const QString& value : params.values(kDeviceIds)) {
        ZuUuid id;
        if (!fromString(value.toStdString(), &id))
            return false;
        result.deviceIds.insert(id);
    }
    for (const QString& value : params.values(kObjectTypeId))
        result.objectTypeId.insert(value.toStdString());

    const auto parseUuid = [](std::string_view text, ZuUuid* out) { return fromString(text, out); };
    const auto parseText = [](std::string_view text, std::string* out) {
        out->assign(text);
        return true;
    };
    const auto parseInt64 = [](std::string_view text, std::int64_t* out) {
        return parseNumber(text, out);
    };
    const auto parseInt = [](std::string_view text, int* out) { return parseNumber(text, out); };
    common::metadata::Rect box;
    const bool hasBox = params.contains(kBoundingBox);

    const bool ok =
        readLast(params, kObjectTrackId, &result.objectTrackId, parseUuid) &&
        readLast(params, kStartTimeMs, &result.timePeriod.startTimeMs, parseInt64) &&
        readLast(params, kDurationMs, &result.timePeriod.durationMs, parseInt64) &&
        readLast(params, kBoundingBox, &box, parseRect) &&
        readLast(params, kFreeText, &result.freeText, parseText) &&
        readLast(params, kMaxObjectTracksToSelect, &result.maxObjectTracksToSelect, parseInt) &&
        readLast(params, kNeedFullTrack, &result.needFullTrack, parseBool) &&
        readLast(params, kSortOrder, &result.sortOrder, parseSortOrder) &&
        readLast(params, kWithBestShotOnly, &result.withBestShotOnly, parseBool) &&
        readLast(params, kAnalyticsEngineId, &result.analyticsEngineId, parseUuid);
    if (!ok)
        return false;
    if (hasBox)
        result.boundingBox = box;
    *filter = std::move(result);
    return true;
}

std::string toString(const Filter& filter)
{
    return reflect::json::serialize(filter);
}

}  // namespace kest::analytics::db
