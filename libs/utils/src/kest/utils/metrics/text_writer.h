#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "histogram.h"

namespace kest::utils::metrics {

/** Label name/value pairs of one series, in the order they are written. */
using Labels = std::vector<std::pair<std::string, std::string>>;

enum class MetricType
{
    counter,
    gauge,
    histogram,
};

/**
 * Writes metric families in the Prometheus text exposition format, version 0.0.4: per family a
 * HELP and a TYPE line, then its samples, one per line. Label values and help texts are
 * escaped, so any text may go into them.
 */
class TextWriter
{
public:
    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    /** Starts a family; the samples written next belong to it. */
    void beginFamily(std::string_view name, std::string_view help, MetricType type);

    /** A sample of the current family. */
    void sample(const Labels& labels, double value);
    void sample(const Labels& labels, std::uint64_t value);
    /** The _bucket, _sum and _count samples of a histogram series of the current family. */
    void histogram(const Labels& labels, const Histogram::Snapshot& snapshot);

    const std::string& text() const { return m_text; }
    std::string takeText() { return std::move(m_text); }

    /** Shortest text that reads back as the same double; "+Inf", "-Inf", "NaN". */
    static std::string formatValue(double value);
    static bool isValidMetricName(std::string_view name);
    static bool isValidLabelName(std::string_view name);

private:
    void appendSeries(std::string_view suffix, const Labels& labels,
                      const std::pair<std::string, std::string>* extraLabel);

    std::string m_text;
    std::string m_family;
};

}  // namespace kest::utils::metrics
