#include "zu_time_period_list.h"

#include <algorithm>

void ZuTimePeriodList::unionTimePeriods(ZuTimePeriodList& base, const ZuTimePeriodList& appending)
{
    std::vector<ZuTimePeriod> all;
    all.reserve(base.size() + appending.size());
    all.insert(all.end(), base.m_periods.begin(), base.m_periods.end());
    all.insert(all.end(), appending.m_periods.begin(), appending.m_periods.end());
    std::ranges::sort(all,
                      [](const auto& a, const auto& b) { return a.startTimeMs < b.startTimeMs; });

    std::vector<ZuTimePeriod> merged;
    merged.reserve(all.size());
    for (const auto& period : all) {
        if (!merged.empty() && period.startTimeMs <= merged.back().endTimeMs()) {
            auto& last = merged.back();
            const auto end = std::max(last.endTimeMs(), period.endTimeMs());
            last = ZuTimePeriod::fromInterval(last.startTimeMs, end);
        } else {
            merged.push_back(period);
        }
    }
    base.m_periods = std::move(merged);
}

void ZuTimePeriodList::add(const ZuTimePeriod& period)
{
    unionTimePeriods(*this, ZuTimePeriodList{period});
}

void ZuTimePeriodList::excludeTimePeriod(const ZuTimePeriod& cut)
{
    const auto cutStart = cut.startTimeMs;
    const auto cutEnd = cut.endTimeMs();
    // An empty cut removes nothing; splitting at it would only break periods in two.
    if (cutEnd <= cutStart)
        return;
    std::vector<ZuTimePeriod> result;
    result.reserve(m_periods.size() + 1);
    for (const auto& period : m_periods) {
        const auto start = period.startTimeMs;
        const auto end = period.endTimeMs();
        if (end <= cutStart || start >= cutEnd) {
            // Untouched, though a zero-length period inside the cut still goes.
            if (!(period.durationMs == 0 && start >= cutStart && start < cutEnd))
                result.push_back(period);
            continue;
        }
        if (start < cutStart)
            result.push_back(ZuTimePeriod::fromInterval(start, cutStart));
        if (end > cutEnd)
            result.push_back(ZuTimePeriod::fromInterval(cutEnd, end));
    }
    m_periods = std::move(result);
}

std::string toString(const ZuTimePeriodList& list)
{
    std::string out;
    for (const auto& period : list) {
        out += out.empty() ? "{ " : ", ";
        out += toString(period);
    }
    return out.empty() ? "none" : out + " }";
}
