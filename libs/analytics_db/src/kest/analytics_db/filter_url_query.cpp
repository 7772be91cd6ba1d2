#include "filter_url_query.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
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

/** A value as a message quotes it: long ones are cut, so that an answer stays short. */
std::string quoted(std::string_view text)
{
    static constexpr int kMaxQuoted = 64;
    const QString value = QString::fromUtf8(text.data(), static_cast<int>(text.size()));
    // Appended one by one: `"'" + std::string&&` makes GCC 12 warn (-Wrestrict) about the
    // insertion at the front.
    std::string quote = "'";
    if (value.size() <= kMaxQuoted) {
        quote += value.toStdString();
        quote += '\'';
    } else {
        quote += value.left(kMaxQuoted).toStdString();
        quote += "...'";
    }
    return quote;
}

/** What a reader found wrong with an item's value; empty when nothing. */
using Problem = std::string;

template <typename T>
Problem parseInteger(std::string_view text, T* out, std::string_view meaning)
{
    T value{};
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec == std::errc::result_out_of_range && ptr == end) {
        return quoted(text) + " is out of range: " + std::to_string(std::numeric_limits<T>::min()) +
               " to " + std::to_string(std::numeric_limits<T>::max()) + " is expected";
    }
    if (ec != std::errc() || ptr != end || text.empty())
        return quoted(text) + " is not a whole number" + std::string(meaning);
    *out = value;
    return {};
}

Problem parseUuid(std::string_view text, ZuUuid* out)
{
    if (fromString(text, out))
        return {};
    return quoted(text) +
           " is not a UUID: 32 hexadecimal digits grouped 8-4-4-4-12 by dashes, braces allowed";
}

Problem parseBool(std::string_view text, bool* out)
{
    if (text != "true" && text != "false")
        return quoted(text) + " is neither 'true' nor 'false'";
    *out = text == "true";
    return {};
}

Problem parseSortOrder(std::string_view text, SortOrder* out)
{
    if (text == "asc")
        *out = SortOrder::asc;
    else if (text == "desc")
        *out = SortOrder::desc;
    else
        return quoted(text) + " is neither 'asc' nor 'desc'";
    return {};
}

Problem parseRect(std::string_view text, common::metadata::Rect* out)
{
    static constexpr std::array<const char*, 4> kNames{"x", "y", "width", "height"};
    const std::string_view whole = text;
    const Problem malformed =
        quoted(whole) + " is not four numbers 'x,y,width,height' (fractions of the frame)";
    std::array<double, 4> values{};
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::size_t comma = text.find(',');
        const bool last = i + 1 == values.size();
        if (last != (comma == std::string_view::npos))
            return malformed;
        const std::string_view number = text.substr(0, comma);
        const char* end = number.data() + number.size();
        const auto [ptr, ec] = std::from_chars(number.data(), end, values[i]);
        // from_chars takes "nan" and "inf" too.
        if (ec != std::errc() || ptr != end || number.empty() || !std::isfinite(values[i]))
            return malformed;
        if (!isFrameFraction(values[i])) {
            return quoted(whole) + ": " + kNames[i] + " " + std::string(number) +
                   " is not within 0 to 1, a fraction of the frame's size";
        }
        if (!last)
            text.remove_prefix(comma + 1);
    }
    *out = common::metadata::Rect{values[0], values[1], values[2], values[3]};
    return {};
}

/** Applies `parse` to the last value of `key`, if the key is there; the problem names the key. */
template <typename T, typename Parse>
bool readLast(const network::rest::Params& params, const QString& key, T* out, Parse parse,
              std::string* error)
{
    if (!params.contains(key))
        return true;
    const Problem problem = parse(params.value(key).toStdString(), out);
    if (problem.empty())
        return true;
    *error = key.toStdString() + ": " + problem;
    return false;
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
    std::string error;
    return deserializeFromParams(params, filter, &error);
}

bool deserializeFromParams(const network::rest::Params& params, Filter* filter, std::string* error)
{
    Filter result;
    for (const QString& value : params.values(kDeviceIds)) {
        ZuUuid id;
        if (Problem problem = parseUuid(value.toStdString(), &id); !problem.empty()) {
            *error = kDeviceIds.toStdString() + ": " + problem;
            return false;
        }
        result.deviceIds.insert(id);
    }
    for (const QString& value : params.values(kObjectTypeId))
        result.objectTypeId.insert(value.toStdString());

    const auto parseText = [](std::string_view text, std::string* out) {
        out->assign(text);
        return Problem();
    };
    const auto parseStart = [](std::string_view text, std::int64_t* out) {
        return parseInteger(text, out, " of milliseconds since 1970-01-01 00:00 UTC");
    };
    const auto parseDuration = [](std::string_view text, std::int64_t* out) {
        Problem problem = parseInteger(text, out, " of milliseconds");
        if (problem.empty() && *out < ZuTimePeriod::kInfiniteDuration) {
            problem = quoted(text) +
                      " is negative: 0 or more milliseconds, or -1 for no end, is expected";
        }
        return problem;
    };
    const auto parseLimit = [](std::string_view text, int* out) {
        return parseInteger(text, out, " of tracks (0 for no limit)");
    };
    common::metadata::Rect box;
    const bool hasBox = params.contains(kBoundingBox);

    const bool ok =
        readLast(params, kObjectTrackId, &result.objectTrackId, parseUuid, error) &&
        readLast(params, kStartTimeMs, &result.timePeriod.startTimeMs, parseStart, error) &&
        readLast(params, kDurationMs, &result.timePeriod.durationMs, parseDuration, error) &&
        readLast(params, kBoundingBox, &box, parseRect, error) &&
        readLast(params, kFreeText, &result.freeText, parseText, error) &&
        readLast(params, kMaxObjectTracksToSelect, &result.maxObjectTracksToSelect, parseLimit,
                 error) &&
        readLast(params, kNeedFullTrack, &result.needFullTrack, parseBool, error) &&
        readLast(params, kSortOrder, &result.sortOrder, parseSortOrder, error) &&
        readLast(params, kWithBestShotOnly, &result.withBestShotOnly, parseBool, error) &&
        readLast(params, kAnalyticsEngineId, &result.analyticsEngineId, parseUuid, error);
    if (!ok)
        return false;
    if (hasBox)
        result.boundingBox = box;
    *filter = std::move(result);
    return true;
}

bool isFrameFraction(double value)
{
    return value >= 0 && value <= 1;
}

std::string toString(const Filter& filter)
{
    return reflect::json::serialize(filter);
}

}  // namespace kest::analytics::db
