#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kest::bench {

/**
 * One figure a benchmark measured, with the goal it is held against, if any. Benchmarks append
 * figures as JSON lines to the file named by KEST_BENCH_FIGURES; `bench_report` reads them back
 * into one table.
 */
struct Figure
{
    enum class Goal
    {
        none,
        atLeast,
        atMost
    };

    std::string section = {};
    std::string name = {};
    /** Empty when the figure could not be measured; `note` then says why. */
    std::optional<double> value = {};
    std::string unit = {};
    Goal goal = Goal::none;
    double goalValue = 0;
    std::string note = {};

    static Figure measured(std::string section, std::string name, double value, std::string unit)
    {
        return Figure{std::move(section), std::move(name), value, std::move(unit)};
    }
    Figure& atLeast(double goal)
    {
        this->goal = Goal::atLeast;
        goalValue = goal;
        return *this;
    }
    Figure& atMost(double goal)
    {
        this->goal = Goal::atMost;
        goalValue = goal;
        return *this;
    }
    Figure& withNote(std::string text)
    {
        note = std::move(text);
        return *this;
    }

    /** Whether the goal is met; empty without a goal or a value. */
    std::optional<bool> met() const;

    /** One line of JSON, without the line break. */
    std::string toJson() const;
    /** Empty when the line is not a figure. */
    static std::optional<Figure> fromJson(std::string_view line);
};

/** Appends the figure to the file named by KEST_BENCH_FIGURES; nothing when it is not set. */
void recordFigure(const Figure& figure);

}  // namespace kest::bench
