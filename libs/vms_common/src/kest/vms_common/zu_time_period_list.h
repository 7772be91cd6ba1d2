#pragma once

#include <string>
#include <vector>

#include "zu_time_period.h"

/**
 * An ordered list of periods. After a union the list is sorted by start and no two periods
 * overlap or touch. Its JSON form is an array of periods.
 */
class ZuTimePeriodList
{
public:
    using value_type = ZuTimePeriod;
    using const_iterator = std::vector<ZuTimePeriod>::const_iterator;
    using iterator = std::vector<ZuTimePeriod>::iterator;

    ZuTimePeriodList() = default;
    ZuTimePeriodList(std::initializer_list<ZuTimePeriod> periods) : m_periods(periods) {}
    explicit ZuTimePeriodList(std::vector<ZuTimePeriod> periods) : m_periods(std::move(periods)) {}

    /** Makes `base` the union of itself and `appending`: sorted, overlapping and touching merged.
     */
    static void unionTimePeriods(ZuTimePeriodList& base, const ZuTimePeriodList& appending);

    /** Adds one period and keeps the list a union. */
    void add(const ZuTimePeriod& period);

    /** Removes the time of `period` from every period in the list; periods may split or vanish. */
    void excludeTimePeriod(const ZuTimePeriod& period);

    bool empty() const { return m_periods.empty(); }
    std::size_t size() const { return m_periods.size(); }
    const ZuTimePeriod& front() const { return m_periods.front(); }
    const ZuTimePeriod& back() const { return m_periods.back(); }
    const ZuTimePeriod& operator[](std::size_t i) const { return m_periods[i]; }
    const_iterator begin() const { return m_periods.begin(); }
    const_iterator end() const { return m_periods.end(); }
    iterator begin() { return m_periods.begin(); }
    iterator end() { return m_periods.end(); }
    void push_back(const ZuTimePeriod& period) { m_periods.push_back(period); }
    void clear() { m_periods.clear(); }
    const std::vector<ZuTimePeriod>& periods() const { return m_periods; }

    friend bool operator==(const ZuTimePeriodList&, const ZuTimePeriodList&) = default;

private:
    std::vector<ZuTimePeriod> m_periods;
};

std::string toString(const ZuTimePeriodList& list);
