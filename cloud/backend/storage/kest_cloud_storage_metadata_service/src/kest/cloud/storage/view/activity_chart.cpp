#include "activity_chart.h"

#include <QDateTime>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>

namespace kest::cloud::storage::metadatadb {

namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

// The timeline's panel, in pixels: the plot and the margins that hold the labels.
constexpr double kWidth = 960;
constexpr double kHeight = 330;
constexpr double kLeft = 64;
constexpr double kRight = 20;
constexpr double kTop = 64;
constexpr double kBottom = 56;
constexpr double kPlotWidth = kWidth - kLeft - kRight;
constexpr double kPlotHeight = kHeight - kTop - kBottom;

// The heatmap's panel beside it: the 16x16 grid drawn over a 16:9 frame.
constexpr double kHeatmapGap = 40;
constexpr double kCellWidth = 16;
constexpr double kCellHeight = 9;
constexpr double kHeatmapWidth = 16 * kCellWidth;

constexpr std::array<const char*, ActivityChart::kColouredTypes> kPalette{
    "#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f",
    "#edc948", "#b07aa1", "#ff9da7", "#9c755f"};
constexpr const char* kOtherColour = "#bab0ac";
constexpr const char* kHeatColour = "#c0392b";
constexpr std::size_t kMaxLegendName = 24;

/** Coordinates with at most two decimals, and none that are zeros. */
std::string number(double value)
{
    std::array<char, 32> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                         std::round(value * 100) / 100, std::chars_format::fixed);
    std::string text(buffer.data(), end);
    if (text.find('.') != std::string::npos) {
        while (text.back() == '0')
            text.pop_back();
        if (text.back() == '.')
            text.pop_back();
    }
    return text == "-0" ? "0" : text;
}

std::string escaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                // Control characters are not allowed in XML 1.0 text.
                if (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n')
                    out += c;
                else
                    out += ' ';
        }
    }
    return out;
}

/** Cut to `length` characters (not bytes), with "..." when cut. */
std::string shortened(const std::string& text, std::size_t length)
{
    const QString value = QString::fromStdString(text);
    if (static_cast<std::size_t>(value.size()) <= length)
        return text;
    return value.left(static_cast<int>(length) - 1).toStdString() + "\u2026";
}

std::string utc(std::int64_t ms, const char* format)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(format).toStdString();
}

/** "2026-01-01 10:00:00", with milliseconds when the time has some. */
std::string fullTime(std::int64_t ms)
{
    return utc(ms, ms % kSecond != 0 ? "yyyy-MM-dd HH:mm:ss.zzz" : "yyyy-MM-dd HH:mm:ss");
}

/** "1 min", "15 s", "250 ms": the largest unit that divides the length. */
std::string lengthText(std::int64_t ms)
{
    static constexpr std::array<std::pair<std::int64_t, const char*>, 4> kUnits{
        {{kDay, "d"}, {kHour, "h"}, {kMinute, "min"}, {kSecond, "s"}}};
    for (const auto& [unit, name] : kUnits) {
        if (ms % unit == 0)
            return std::to_string(ms / unit) + ' ' + name;
    }
    return std::to_string(ms) + " ms";
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b)
{
    const std::int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

struct TypeTotal
{
    std::string name;
    std::int64_t tracks = 0;
};

}  // namespace

ActivityChart::ActivityChart(const ZuTimePeriod& period) : m_period(period) {}

std::int64_t ActivityChart::timeStepMs(std::int64_t spanMs)
{
    static constexpr std::array<std::int64_t, 33> kSteps{1,
                                                         2,
                                                         5,
                                                         10,
                                                         20,
                                                         50,
                                                         100,
                                                         200,
                                                         500,
                                                         kSecond,
                                                         2 * kSecond,
                                                         5 * kSecond,
                                                         10 * kSecond,
                                                         15 * kSecond,
                                                         30 * kSecond,
                                                         kMinute,
                                                         2 * kMinute,
                                                         5 * kMinute,
                                                         10 * kMinute,
                                                         15 * kMinute,
                                                         30 * kMinute,
                                                         kHour,
                                                         2 * kHour,
                                                         3 * kHour,
                                                         6 * kHour,
                                                         12 * kHour,
                                                         kDay,
                                                         2 * kDay,
                                                         7 * kDay,
                                                         14 * kDay,
                                                         30 * kDay,
                                                         91 * kDay,
                                                         365 * kDay};
    static constexpr int kMaxTicks = 10;
    for (const std::int64_t step : kSteps) {
        if (spanMs / step < kMaxTicks)
            return step;
    }
    // Decades, centuries...: whole numbers of 365-day years.
    std::int64_t step = 365 * kDay;
    while (spanMs / step >= kMaxTicks && step < std::numeric_limits<std::int64_t>::max() / 10)
        step *= 10;
    return step;
}

std::string ActivityChart::timeLabel(std::int64_t timeMs, std::int64_t stepMs, bool withDate)
{
    if (stepMs >= kDay)
        return utc(timeMs, "yyyy-MM-dd");
    const char* clock =
        stepMs < kSecond ? "HH:mm:ss.zzz" : (stepMs < kMinute ? "HH:mm:ss" : "HH:mm");
    if (!withDate)
        return utc(timeMs, clock);
    return utc(timeMs, "MM-dd ") + utc(timeMs, clock);
}

std::int64_t ActivityChart::countStep(std::int64_t max)
{
    std::int64_t magnitude = 1;
    for (;;) {
        for (const std::int64_t factor : {1, 2, 5}) {
            const std::int64_t step = factor * magnitude;
            if (max / step + (max % step != 0) <= 5)
                return step;
        }
        magnitude *= 10;
    }
}

std::string ActivityChart::svg(const ActivityAnswer& answer) const
{
    const std::int64_t start = m_period.startTimeMs;
    const std::int64_t end = m_period.endTimeMs();
    const double span = static_cast<double>(end - start);
    const auto xOf = [&](std::int64_t ms) {
        return kLeft + static_cast<double>(std::clamp(ms, start, end) - start) / span * kPlotWidth;
    };

    // Types by how many tracks they have in all, the most frequent first.
    std::map<std::string, std::int64_t> totalsByName;
    std::int64_t highest = 0;
    for (const auto& bucket : answer.buckets) {
        highest = std::max(highest, bucket.tracks);
        for (const auto& [type, tracks] : bucket.byType)
            totalsByName[type] += tracks;
    }
    std::vector<TypeTotal> types;
    for (const auto& [name, tracks] : totalsByName)
        types.push_back({name, tracks});
    std::stable_sort(types.begin(), types.end(),
                     [](const TypeTotal& a, const TypeTotal& b) { return a.tracks > b.tracks; });
    std::map<std::string, std::size_t> rank;
    for (std::size_t i = 0; i < types.size(); ++i)
        rank[types[i].name] = i;
    const auto colourOf = [](std::size_t rank) {
        return rank < kPalette.size() ? kPalette[rank] : kOtherColour;
    };

    const bool heatmap = answer.heatmap && !answer.heatmap->cells.empty();
    const double width = heatmap ? kWidth + kHeatmapGap + kHeatmapWidth + kRight : kWidth;
    std::string out;
    out.reserve(4096 + answer.buckets.size() * 320);
    out += R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" + number(width) + R"(" height=")" +
           number(kHeight) + R"(" viewBox="0 0 )" + number(width) + ' ' + number(kHeight) +
           R"(" font-family="sans-serif" font-size="12" role="img" aria-label="Tracks over time">)";
    out += R"(<rect class="background" width="100%" height="100%" fill="#ffffff"/>)";

    // Title: what is counted, and where from.
    std::string title = "Tracks per " + lengthText(answer.bucketMs) + ", " + fullTime(start) +
                        " to " + fullTime(end) + " UTC";
    if (answer.instancesAsked) {
        title += " (" + std::to_string(answer.instancesAnswered.value_or(0)) + " of " +
                 std::to_string(*answer.instancesAsked) + " instances answered)";
    }
    out += R"(<text class="title" x=")" + number(kLeft) + R"(" y="22" font-size="14">)" +
           escaped(title) + "</text>";

    // Legend: a swatch and the name of each coloured type, then "other" for the rest.
    double legendX = kLeft;
    const auto legendItem = [&](const char* colour, const std::string& text) {
        const std::string label = escaped(shortened(text, kMaxLegendName));
        const double itemWidth =
            22 + 7.0 * static_cast<double>(QString::fromStdString(text).size());
        if (legendX + itemWidth > kWidth - kRight)
            return;
        out += R"(<g class="legend"><rect x=")" + number(legendX) +
               R"(" y="34" width="12" height="12" fill=")" + colour + R"("/><text x=")" +
               number(legendX + 16) + R"(" y="45">)" + label + "</text></g>";
        legendX += itemWidth;
    };
    for (std::size_t i = 0; i < types.size() && i < kPalette.size(); ++i)
        legendItem(kPalette[i], types[i].name);
    if (types.size() > kPalette.size()) {
        legendItem(kOtherColour,
                   "other (" + std::to_string(types.size() - kPalette.size()) + " types)");
    }

    // The count axis, with its grid lines.
    const std::int64_t step = countStep(std::max<std::int64_t>(highest, 1));
    const std::int64_t top = std::max<std::int64_t>((highest + step - 1) / step * step, step);
    const auto yOf = [&](std::int64_t count) {
        return kTop + kPlotHeight -
               static_cast<double>(count) / static_cast<double>(top) * kPlotHeight;
    };
    out += R"(<g class="y-axis" fill="#444">)";
    for (std::int64_t tick = 0; tick <= top; tick += step) {
        const std::string y = number(yOf(tick));
        out += R"(<line x1=")" + number(kLeft) + R"(" x2=")" + number(kLeft + kPlotWidth) +
               R"(" y1=")" + y + R"(" y2=")" + y + R"(" stroke="#e4e4e4"/>)";
        out += R"(<text x=")" + number(kLeft - 6) + R"(" y=")" + number(yOf(tick) + 4) +
               R"(" text-anchor="end">)" + std::to_string(tick) + "</text>";
    }
    out += R"(<text transform="translate(16 )" + number(kTop + kPlotHeight / 2) +
           R"svg() rotate(-90)" text-anchor="middle">tracks</text></g>)svg";

    // The bars: a group per bucket, with a transparent column to click and hover.
    out += R"(<g class="buckets">)";
    for (const auto& bucket : answer.buckets) {
        const std::int64_t bucketEnd = std::min(bucket.startTimeMs + answer.bucketMs, end);
        const double x0 = xOf(bucket.startTimeMs);
        const double x1 = xOf(bucketEnd);
        const double barWidth = std::max(x1 - x0 - (x1 - x0 >= 4 ? 1 : 0), 0.5);
        std::string tip = fullTime(bucket.startTimeMs) + " to " + fullTime(bucketEnd) +
                          " UTC: " + std::to_string(bucket.tracks) +
                          (bucket.tracks == 1 ? " track" : " tracks");
        std::vector<std::pair<std::size_t, std::int64_t>> stack;
        for (const auto& [type, tracks] : bucket.byType)
            stack.emplace_back(rank[type], tracks);
        std::sort(stack.begin(), stack.end());
        for (std::size_t i = 0; i < stack.size(); ++i) {
            tip += (i == 0 ? " (" : ", ") + types[stack[i].first].name + ' ' +
                   std::to_string(stack[i].second);
        }
        if (!stack.empty())
            tip += ')';
        out += R"(<g class="bucket" data-start-ms=")" + std::to_string(bucket.startTimeMs) +
               R"(" data-end-ms=")" + std::to_string(bucketEnd) + R"(" data-tracks=")" +
               std::to_string(bucket.tracks) + R"("><title>)" + escaped(tip) + "</title>";
        out += R"(<rect class="hit" x=")" + number(x0) + R"(" y=")" + number(kTop) +
               R"(" width=")" + number(std::max(x1 - x0, 0.5)) + R"(" height=")" +
               number(kPlotHeight) + R"(" fill="#000" fill-opacity="0"/>)";
        std::int64_t below = 0;
        for (const auto& [typeRank, tracks] : stack) {
            const double yTop = yOf(below + tracks);
            out += R"(<rect class="bar" x=")" + number(x0) + R"(" y=")" + number(yTop) +
                   R"(" width=")" + number(barWidth) + R"(" height=")" + number(yOf(below) - yTop) +
                   R"(" fill=")" + colourOf(typeRank) + R"("/>)";
            below += tracks;
        }
        out += "</g>";
    }
    out += "</g>";
    if (highest == 0) {
        out += R"(<text class="empty" x=")" + number(kLeft + kPlotWidth / 2) + R"(" y=")" +
               number(kTop + kPlotHeight / 2) +
               R"(" text-anchor="middle" fill="#888" font-size="16">No tracks</text>)";
    }

    // The time axis, in UTC; a tick shows its date where the date changes.
    const std::int64_t timeStep = timeStepMs(end - start);
    out += R"(<g class="x-axis" fill="#444"><line x1=")" + number(kLeft) + R"(" x2=")" +
           number(kLeft + kPlotWidth) + R"(" y1=")" + number(kTop + kPlotHeight) + R"(" y2=")" +
           number(kTop + kPlotHeight) + R"(" stroke="#444"/>)";
    const bool manyDays = floorDiv(start, kDay) != floorDiv(end - 1, kDay);
    std::int64_t previousDay = std::numeric_limits<std::int64_t>::min();
    std::int64_t firstTick = floorDiv(start, timeStep) * timeStep;
    if (firstTick < start && __builtin_add_overflow(firstTick, timeStep, &firstTick))
        firstTick = end + 1;
    for (std::int64_t tick = firstTick; tick <= end; tick += timeStep) {
        const std::int64_t day = floorDiv(tick, kDay);
        const std::string x = number(xOf(tick));
        out += R"(<line x1=")" + x + R"(" x2=")" + x + R"(" y1=")" + number(kTop + kPlotHeight) +
               R"(" y2=")" + number(kTop + kPlotHeight + 5) + R"(" stroke="#444"/><text x=")" + x +
               R"(" y=")" + number(kTop + kPlotHeight + 18) + R"(" text-anchor="middle">)" +
               escaped(timeLabel(tick, timeStep, manyDays && day != previousDay)) + "</text>";
        previousDay = day;
        if (tick > end - timeStep)
            break;  //< The next one would pass the end, or the range of times.
    }
    out += R"(<text x=")" + number(kLeft + kPlotWidth / 2) + R"(" y=")" + number(kHeight - 12) +
           R"(" text-anchor="middle">time (UTC)</text></g>)";

    if (heatmap) {
        const auto& cells = answer.heatmap->cells;
        const double left = kWidth + kHeatmapGap;
        const std::int64_t hottest = *std::max_element(cells.begin(), cells.end());
        out += R"(<g class="heatmap"><text x=")" + number(left) + R"(" y=")" + number(kTop - 8) +
               R"(">Where: tracks per cell of the frame</text>)";
        out += R"(<rect x=")" + number(left) + R"(" y=")" + number(kTop) + R"(" width=")" +
               number(kHeatmapWidth) + R"(" height=")" + number(16 * kCellHeight) +
               R"(" fill="#f4f4f4" stroke="#444"/>)";
        const int columns = answer.heatmap->columns > 0 ? answer.heatmap->columns : 16;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const int column = static_cast<int>(i) % columns;
            const int row = static_cast<int>(i) / columns;
            const double opacity =
                hottest > 0 ? static_cast<double>(cells[i]) / static_cast<double>(hottest) : 0;
            out += R"(<rect class="cell" x=")" + number(left + column * kCellWidth) + R"(" y=")" +
                   number(kTop + row * kCellHeight) + R"(" width=")" + number(kCellWidth) +
                   R"(" height=")" + number(kCellHeight) + R"(" fill=")" + kHeatColour +
                   R"(" fill-opacity=")" + number(opacity) + R"("><title>column )" +
                   std::to_string(column + 1) + ", row " + std::to_string(row + 1) + ": " +
                   std::to_string(cells[i]) + (cells[i] == 1 ? " track" : " tracks") +
                   "</title></rect>";
        }
        out += R"(<text x=")" + number(left) + R"(" y=")" + number(kTop + 16 * kCellHeight + 18) +
               R"(">from 0 (blank) to )" + std::to_string(hottest) +
               (hottest == 1 ? " track" : " tracks") + " (full colour)</text></g>";
    }
    out += "</svg>\n";
    return out;
}

}  // namespace kest::cloud::storage::metadatadb
