#include "result_table.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

namespace kest::bench {

void ResultTable::add(Figure figure)
{
    const auto same = std::find_if(m_figures.begin(), m_figures.end(), [&](const Figure& f) {
        return f.section == figure.section && f.name == figure.name;
    });
    if (same != m_figures.end())
        *same = std::move(figure);
    else
        m_figures.push_back(std::move(figure));
}

int ResultTable::addLines(const std::string& text)
{
    int rejected = 0;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        if (auto figure = Figure::fromJson(line))
            add(std::move(*figure));
        else
            ++rejected;
    }
    return rejected;
}

int ResultTable::passed() const
{
    return static_cast<int>(std::count_if(m_figures.begin(), m_figures.end(),
                                          [](const Figure& f) { return f.met() == true; }));
}

int ResultTable::failed() const
{
    // A goal that could not be measured is not met either.
    return static_cast<int>(std::count_if(m_figures.begin(), m_figures.end(), [](const Figure& f) {
        return f.goal != Figure::Goal::none && f.met() != true;
    }));
}

std::string ResultTable::formatNumber(double value)
{
    if (!std::isfinite(value))
        return std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf");
    char text[64];
    const double magnitude = std::fabs(value);
    if (magnitude < 1000) {
        const int decimals = magnitude == 0 || magnitude >= 100 ? 0
                             : magnitude >= 10                  ? 1
                             : magnitude >= 1                   ? 2
                                                                : 3;
        std::snprintf(text, sizeof(text), "%.*f", decimals, value);
        return text;
    }
    std::snprintf(text, sizeof(text), "%.0f", magnitude);
    std::string digits = text;
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            grouped.push_back(',');
        grouped.push_back(digits[i]);
    }
    return value < 0 ? "-" + grouped : grouped;
}

namespace {

std::string valueText(const Figure& figure)
{
    if (!figure.value)
        return "not measured";
    std::string text = ResultTable::formatNumber(*figure.value);
    if (!figure.unit.empty())
        text += " " + figure.unit;
    return text;
}

std::string goalText(const Figure& figure)
{
    if (figure.goal == Figure::Goal::none)
        return "";
    return (figure.goal == Figure::Goal::atLeast ? ">= " : "<= ") +
           ResultTable::formatNumber(figure.goalValue);
}

std::string statusText(const Figure& figure)
{
    if (figure.goal == Figure::Goal::none)
        return "-";
    return figure.met() == true ? "PASS" : "FAIL";
}

}  // namespace

void ResultTable::print(std::FILE* out) const
{
    std::size_t nameWidth = 6, valueWidth = 5, goalWidth = 4;
    for (const auto& figure : m_figures) {
        nameWidth = std::max(nameWidth, figure.name.size());
        valueWidth = std::max(valueWidth, valueText(figure).size());
        goalWidth = std::max(goalWidth, goalText(figure).size());
    }
    // Sections in the order they first appear, each with its figures in order.
    std::vector<std::string> sections;
    for (const auto& figure : m_figures) {
        if (std::find(sections.begin(), sections.end(), figure.section) == sections.end())
            sections.push_back(figure.section);
    }
    const int nw = static_cast<int>(nameWidth), vw = static_cast<int>(valueWidth),
              gw = static_cast<int>(goalWidth);
    std::fprintf(out, "%-*s  %*s  %-*s  %s\n", nw, "figure", vw, "value", gw, "goal", "status");
    for (const auto& section : sections) {
        std::fprintf(out, "-- %s\n", section.c_str());
        for (const auto& figure : m_figures) {
            if (figure.section != section)
                continue;
            std::fprintf(out, "%-*s  %*s  %-*s  %s", nw, figure.name.c_str(), vw,
                         valueText(figure).c_str(), gw, goalText(figure).c_str(),
                         statusText(figure).c_str());
            if (!figure.note.empty())
                std::fprintf(out, "  (%s)", figure.note.c_str());
            std::fprintf(out, "\n");
        }
    }
    int unmeasured = 0;
    for (const auto& figure : m_figures)
        unmeasured += figure.goal != Figure::Goal::none && !figure.value;
    std::fprintf(out, "goals: %d met, %d not met (%d of them not measured)\n", passed(), failed(),
                 unmeasured);
}

std::string ResultTable::toJson(const std::string& title) const
{
    rapidjson::Document document(rapidjson::kObjectType);
    auto& allocator = document.GetAllocator();
    rapidjson::Value figures(rapidjson::kArrayType);
    for (const auto& figure : m_figures) {
        rapidjson::Document one;
        one.Parse(figure.toJson().c_str());
        rapidjson::Value value(one, allocator);
        value.AddMember("status", rapidjson::Value(statusText(figure).c_str(), allocator),
                        allocator);
        figures.PushBack(value, allocator);
    }
    document.AddMember("title", rapidjson::Value(title.c_str(), allocator), allocator);
    document.AddMember("passed", passed(), allocator);
    document.AddMember("failed", failed(), allocator);
    document.AddMember("figures", figures, allocator);
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    document.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

}  // namespace kest::bench
