#include "text_writer.h"

#include <charconv>
#include <cmath>

#include <kest/utils/assert.h>

namespace kest::utils::metrics {

namespace {

const char* typeName(MetricType type)
{
    switch (type) {
        case MetricType::counter:
            return "counter";
        case MetricType::gauge:
            return "gauge";
        case MetricType::histogram:
            return "histogram";
    }
    return "untyped";
}

/** Help texts escape backslash and line feed; label values also the double quote. */
void appendEscaped(std::string* out, std::string_view text, bool escapeQuote)
{
    for (const char c : text) {
        if (c == '\\')
            out->append("\\\\");
        else if (c == '\n')
            out->append("\\n");
        else if (c == '"' && escapeQuote)
            out->append("\\\"");
        else
            out->push_back(c);
    }
}

bool isNameStart(char c, bool colonAllowed)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           (colonAllowed && c == ':');
}

bool isValidName(std::string_view name, bool colonAllowed)
{
    if (name.empty() || !isNameStart(name[0], colonAllowed))
        return false;
    for (const char c : name.substr(1)) {
        if (!isNameStart(c, colonAllowed) && !(c >= '0' && c <= '9'))
            return false;
    }
    return true;
}

}  // namespace

void TextWriter::beginFamily(std::string_view name, std::string_view help, MetricType type)
{
    KEST_ASSERT(isValidMetricName(name), "Invalid metric name: " + std::string(name));
    m_family.assign(name);
    m_text.append("# HELP ").append(name).push_back(' ');
    appendEscaped(&m_text, help, /*escapeQuote*/ false);
    m_text.append("\n# TYPE ").append(name).push_back(' ');
    m_text.append(typeName(type)).push_back('\n');
}

void TextWriter::sample(const Labels& labels, double value)
{
    appendSeries({}, labels, nullptr);
    m_text.append(formatValue(value)).push_back('\n');
}

void TextWriter::sample(const Labels& labels, std::uint64_t value)
{
    appendSeries({}, labels, nullptr);
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    m_text.append(digits, end).push_back('\n');
}

void TextWriter::histogram(const Labels& labels, const Histogram::Snapshot& snapshot)
{
    for (std::size_t i = 0; i < snapshot.cumulativeCounts.size(); ++i) {
        const std::pair<std::string, std::string> le{
            "le", i < snapshot.upperBounds.size() ? formatValue(snapshot.upperBounds[i]) : "+Inf"};
        appendSeries("_bucket", labels, &le);
        m_text.append(std::to_string(snapshot.cumulativeCounts[i])).push_back('\n');
    }
    appendSeries("_sum", labels, nullptr);
    m_text.append(formatValue(snapshot.sum)).push_back('\n');
    appendSeries("_count", labels, nullptr);
    m_text.append(std::to_string(snapshot.count())).push_back('\n');
}

void TextWriter::appendSeries(std::string_view suffix, const Labels& labels,
                              const std::pair<std::string, std::string>* extraLabel)
{
    KEST_ASSERT(!m_family.empty(), "A sample written before its family");
    m_text.append(m_family).append(suffix);
    if (!labels.empty() || extraLabel) {
        m_text.push_back('{');
        bool first = true;
        const auto appendLabel = [&](const std::pair<std::string, std::string>& label) {
            KEST_ASSERT(isValidLabelName(label.first), "Invalid label name: " + label.first);
            if (!first)
                m_text.push_back(',');
            first = false;
            m_text.append(label.first).append("=\"");
            appendEscaped(&m_text, label.second, /*escapeQuote*/ true);
            m_text.push_back('"');
        };
        for (const auto& label : labels)
            appendLabel(label);
        if (extraLabel)
            appendLabel(*extraLabel);
        m_text.push_back('}');
    }
    m_text.push_back(' ');
}

std::string TextWriter::formatValue(double value)
{
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    // Whole numbers (sizes, depths) as integers: "200000" reads better than "2e+05".
    if (value == std::trunc(value) && std::fabs(value) < 9007199254740992.0)
        return std::to_string(static_cast<std::int64_t>(value));
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    return std::string(digits, end);
}

bool TextWriter::isValidMetricName(std::string_view name)
{
    return isValidName(name, /*colonAllowed*/ true);
}

bool TextWriter::isValidLabelName(std::string_view name)
{
    return isValidName(name, /*colonAllowed*/ false);
}

}  // namespace kest::utils::metrics
