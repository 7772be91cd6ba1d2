#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "figure.h"

namespace kest::bench {

/**
 * The figures of a whole benchmark run, shown as one table (figure, value, goal, PASS, FAIL or
 * "-") and kept as one JSON document. A figure recorded again (same section and name) replaces
 * the earlier one in place, so a rerun of one benchmark updates its rows.
 */
class ResultTable
{
public:
    void add(Figure figure);
    /** Adds every figure line of the text; returns how many lines were not figures. */
    int addLines(const std::string& text);

    const std::vector<Figure>& figures() const { return m_figures; }
    int passed() const;
    int failed() const;

    void print(std::FILE* out) const;
    /** The figures and the counts of met and missed goals, as one JSON document. */
    std::string toJson(const std::string& title) const;

    /** "782,148", "0.48", "12.3": thousands grouped, about three significant digits below. */
    static std::string formatNumber(double value);

private:
    std::vector<Figure> m_figures;
};

}  // namespace kest::bench
