#include "text_output.h"

#include <QDateTime>
#include <algorithm>
#include <map>

#include <kest/network/http/client/async_http_client.h>
#include <kest/network/ssl/tls_errors.h>

namespace kest::cloud::storage::metadatadb::cli {

namespace {

using kest::network::http::StatusCode;

constexpr std::size_t kMaxAttributes = 3;
constexpr std::size_t kMaxPeriods = 3;

/** Left-aligned columns, each as wide as its widest cell, two blanks apart; the last unpadded. */
std::string formatRows(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size())
                line.append(widths[i] - row[i].size() + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
        text += line + '\n';
    }
    return text;
}

std::string counted(std::size_t count, const char* singular, const char* plural)
{
    return std::to_string(count) + ' ' + (count == 1 ? singular : plural) + '\n';
}

}  // namespace

std::string formatTimeMs(std::int64_t milliseconds)
{
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC)
        .toString("yyyy-MM-dd HH:mm:ss.zzz")
        .toStdString();
}

std::string trackTable(const std::vector<kest::analytics::db::ObjectTrackEx>& tracks)
{
    std::vector<std::vector<std::string>> rows{
        {"FIRST SEEN (UTC)", "DEVICE", "TYPE", "TRACK", "ATTRIBUTES"}};
    for (const auto& track : tracks) {
        std::string attributes;
        for (std::size_t i = 0; i < std::min(track.attributes.size(), kMaxAttributes); ++i) {
            if (i > 0)
                attributes += ' ';
            attributes += track.attributes[i].name + '=' + track.attributes[i].value;
        }
        if (track.attributes.size() > kMaxAttributes)
            attributes += " +" + std::to_string(track.attributes.size() - kMaxAttributes);
        rows.push_back({formatTimeMs(track.firstAppearanceTimeUs / 1000),
                        track.deviceId.toSimpleStdString(), track.objectTypeId,
                        track.id.toSimpleStdString(), attributes});
    }
    return formatRows(rows) + counted(tracks.size(), "track", "tracks");
}

namespace {

/** "15 min", "2 h", "500 ms": the largest unit that divides the length. */
std::string lengthText(std::int64_t ms)
{
    static constexpr std::pair<std::int64_t, const char*> kUnits[] = {
        {86'400'000, "d"}, {3'600'000, "h"}, {60'000, "min"}, {1000, "s"}};
    for (const auto& [unit, name] : kUnits) {
        if (ms > 0 && ms % unit == 0)
            return std::to_string(ms / unit) + ' ' + name;
    }
    return std::to_string(ms) + " ms";
}

/** `eighths` of a character cell, in block characters: "███▌". */
std::string bar(std::int64_t eighths)
{
    static const char* const kPartial[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    std::string text;
    for (std::int64_t i = 0; i < eighths / 8; ++i)
        text += "█";
    return text + kPartial[eighths % 8];
}

std::string typesText(const std::map<std::string, std::int64_t>& byType)
{
    constexpr std::size_t kShown = 4;
    std::vector<std::pair<std::string, std::int64_t>> types(byType.begin(), byType.end());
    std::stable_sort(types.begin(), types.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (std::size_t i = 0; i < std::min(types.size(), kShown); ++i)
        text += (i ? ", " : "") + types[i].first + ' ' + std::to_string(types[i].second);
    if (types.size() > kShown)
        text += ", +" + std::to_string(types.size() - kShown);
    return text;
}

}  // namespace

std::string activityChart(const ActivityAnswer& activity)
{
    constexpr std::int64_t kBarWidth = 40;
    std::int64_t highest = 0;
    std::int64_t total = 0;
    for (const auto& bucket : activity.buckets) {
        highest = std::max(highest, bucket.tracks);
        total += bucket.tracks;
    }
    const auto scaled = [&](std::int64_t count, std::int64_t steps) {
        return highest == 0 ? 0 : (count * steps + highest - 1) / highest;
    };

    std::string text;
    if (activity.buckets.size() <= kMaxBarBuckets) {
        // Columns padded by hand: a bar's characters take three bytes each.
        const std::size_t countWidth = std::max<std::size_t>(std::to_string(highest).size(), 6);
        const auto padded = [](std::string cell, std::size_t width, bool right) {
            const std::string fill(width > cell.size() ? width - cell.size() : 0, ' ');
            return right ? fill + cell : cell + fill;
        };
        text += padded("FROM (UTC)", 23, false) + "  " + padded("TRACKS", countWidth, true) + "  " +
                padded("", kBarWidth, false) + "  TYPES\n";
        for (const auto& bucket : activity.buckets) {
            const std::int64_t eighths = scaled(bucket.tracks, kBarWidth * 8);
            std::string line = formatTimeMs(bucket.startTimeMs) + "  " +
                               padded(std::to_string(bucket.tracks), countWidth, true) + "  " +
                               bar(eighths) + std::string(kBarWidth - (eighths + 7) / 8, ' ') +
                               "  " + typesText(bucket.byType);
            while (line.back() == ' ')
                line.pop_back();
            text += line + '\n';
        }
    } else {
        static const char* const kLevels[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
        for (std::size_t first = 0; first < activity.buckets.size(); first += kSparklineWidth) {
            std::string line = formatTimeMs(activity.buckets[first].startTimeMs) + "  ";
            const std::size_t end = std::min(first + kSparklineWidth, activity.buckets.size());
            for (std::size_t i = first; i < end; ++i)
                line += kLevels[scaled(activity.buckets[i].tracks, 8)];
            text += line + '\n';
        }
        text += "One character per bucket, █ = " + std::to_string(highest) + " tracks\n";
    }
    text += std::to_string(activity.buckets.size()) + " buckets of " +
            lengthText(activity.bucketMs) + ", at most " + std::to_string(highest) +
            " tracks in one";
    if (activity.instancesAsked) {
        text += "; " + std::to_string(activity.instancesAnswered.value_or(0)) + " of " +
                std::to_string(*activity.instancesAsked) + " instances answered";
    }
    text += '\n';

    if (activity.heatmap && !activity.heatmap->cells.empty()) {
        static const char* const kShades[] = {"  ", "░░", "▒▒", "▓▓", "██"};
        const auto& cells = activity.heatmap->cells;
        const std::int64_t hottest = *std::max_element(cells.begin(), cells.end());
        const int columns = std::max(activity.heatmap->columns, 1);
        text += "\nWhere (a 16x16 grid over the frame), █ = " + std::to_string(hottest) +
                " tracks in a cell:\n";
        std::string border;
        for (int i = 0; i < 2 * columns; ++i)
            border += "─";
        text += "┌" + border + "┐\n";
        for (std::size_t row = 0; row * columns < cells.size(); ++row) {
            text += "│";
            for (int column = 0; column < columns; ++column) {
                const std::int64_t count = cells[row * columns + column];
                text += kShades[hottest == 0 ? 0 : (count * 4 + hottest - 1) / hottest];
            }
            text += "│\n";
        }
        text += "└" + border + "┘\n";
    }
    return text;
}

std::string errorsTable(const std::vector<DbErrorData>& errors)
{
    std::vector<std::vector<std::string>> rows{{"DEVICE", "FAILED PERIODS (UTC)"}};
    for (const auto& error : errors) {
        std::string periods;
        std::size_t shown = 0;
        for (const ZuTimePeriod& period : error.timePeriod) {
            if (shown == kMaxPeriods) {
                periods += ", and " + std::to_string(error.timePeriod.size() - shown) + " more";
                break;
            }
            if (shown++ > 0)
                periods += ", ";
            periods +=
                formatTimeMs(period.startTimeMs) + " +" + std::to_string(period.durationMs) + " ms";
        }
        rows.push_back({error.deviceId.toSimpleStdString(), periods});
    }
    return formatRows(rows) + counted(errors.size(), "device", "devices");
}

std::string explainStatus(Invocation::Command command, StatusCode::Value status)
{
    using Command = Invocation::Command;
    switch (status) {
        case StatusCode::badRequest:
            return "the service could not read the request";
        case StatusCode::unauthorized:
            return "the service needs credentials: a token (--token or KEST_METADATA_TOKEN) or a "
                   "client certificate (--cert and --key) that it knows";
        case StatusCode::forbidden:
            return "the credentials given do not allow this call";
        case StatusCode::notFound:
            return "no such API at this URL: is it a metadata storage instance?";
        case StatusCode::notAcceptable:
            return "the service does not take the request's format";
        case StatusCode::payloadTooLarge:
            return "the request is larger than the service takes (http/maxBodyBytes)";
        case StatusCode::serviceUnavailable:
            return "the service is overloaded or stopping; try again later";
        case StatusCode::internalServerError:
            break;
        default:
            return "an answer this client does not expect";
    }
    switch (command) {
        case Command::save:
            return "the service's storage does not accept packets now (not ready, or its queue is "
                   "full: try again later)";
        case Command::search:
            return "the search failed: the storage is not ready, or the shared MongoDB database "
                   "could not be read";
        case Command::errors:
            return "the service has no save-error history";
        case Command::activity:
            return "the count failed: the storage is not ready, or the shared MongoDB database "
                   "could not be read";
        case Command::optimalInstance:
            return "no instance has published its load yet, or the shared MongoDB database could "
                   "not be read";
    }
    return "the service failed";
}

std::string explainTransportError(std::error_code error, const kest::utils::Url& url)
{
    const std::string where = url.host() + ":" + std::to_string(url.port());
    if (error == std::errc::connection_refused)
        return "cannot connect to " + where +
               ": connection refused (is the service running there?)";
    if (error == std::errc::timed_out)
        return "no answer in time from " + where + " (timed out)";
    if (error == std::errc::network_unreachable || error == std::errc::host_unreachable)
        return "cannot reach " + where + ": " + error.message();
    if (error.category() == kest::network::ssl::certificateCategory())
        return "the TLS certificate of " + where + " is not trusted: " + error.message();
    if (kest::network::ssl::isTlsError(error)) {
        return "the TLS handshake with " + where + " failed: " + error.message() +
               (url.scheme() == "https" ? " (does it serve TLS on this port?)" : "");
    }
    if (error == kest::network::http::client::AsyncHttpClient::badContentEncoding())
        return "the answer of " + where + " could not be read: " + error.message();
    const std::string text = error.message();
    // The resolver's errors come from its own category, which says what went wrong well enough.
    return "no answer from " + where + ": " + text;
}

}  // namespace kest::cloud::storage::metadatadb::cli
