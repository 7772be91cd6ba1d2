#include "data_address_recorder.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <vector>

#include <kest/utils/log/log.h>
#include <kest/utils/mutex.h>

#include "abstract_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb {

struct DataAddressRecorder::State
{
    struct Retry
    {
        DataInfo item;
        int failures = 0;
    };

    std::string tag;
    std::int64_t gapMs = 0;
    std::size_t maxPendingSpans = 0;

    mutable Mutex mutex;
    std::unordered_map<ZuUuid, ZuTimePeriodList> open;
    std::deque<Retry> retries;  //< Oldest first.
    bool stopped = false;
};

namespace {

/** `base` united with `more`, periods less than `gapMs` apart joined into one. */
void coalesce(ZuTimePeriodList& base, const ZuTimePeriodList& more, std::int64_t gapMs)
{
    std::vector<ZuTimePeriod> all(base.begin(), base.end());
    all.insert(all.end(), more.begin(), more.end());
    std::ranges::sort(all, {}, &ZuTimePeriod::startTimeMs);
    std::vector<ZuTimePeriod> merged;
    for (const auto& period : all) {
        if (!merged.empty()) {
            const std::int64_t end = merged.back().endTimeMs();
            const std::int64_t reach =
                end > ZuTimePeriod::kMaxTimeMs - gapMs ? ZuTimePeriod::kMaxTimeMs : end + gapMs;
            if (period.startTimeMs <= reach) {
                merged.back() = ZuTimePeriod::fromInterval(merged.back().startTimeMs,
                                                           std::max(end, period.endTimeMs()));
                continue;
            }
        }
        merged.push_back(period);
    }
    base = ZuTimePeriodList(std::move(merged));
}

}  // namespace

void DataAddressRecorder::onSaveFailed(State& state, const std::vector<DataInfo>& failed,
                                       const std::vector<int>& previousFailures)
{
    std::vector<DataInfo> first;
    std::vector<DataInfo> again;
    std::size_t stillFailing = 0;
    std::vector<DataInfo> lost;
    std::vector<DataInfo> dropped;
    {
        std::lock_guard lock(state.mutex);
        // The storage hands back the whole batch, in order; anything else counts as new.
        const bool wholeBatch = failed.size() == previousFailures.size();
        for (std::size_t i = 0; i < failed.size(); ++i) {
            const int failures = (wholeBatch ? previousFailures[i] : 0) + 1;
            if (state.stopped) {
                lost.push_back(failed[i]);
                continue;
            }
            state.retries.push_back({failed[i], failures});
            if (failures == 1)
                first.push_back(failed[i]);
            else if (failures == 2)
                again.push_back(failed[i]);
            else
                ++stillFailing;
        }
        while (state.retries.size() > state.maxPendingSpans) {
            dropped.push_back(std::move(state.retries.front().item));
            state.retries.pop_front();
        }
    }
    if (!first.empty()) {
        KEST_WARNING(state.tag,
                     "Saving %1 data addresses failed; they are retried with the next "
                     "flush",
                     first.size());
    }
    if (!again.empty())
        KEST_ERROR(state.tag, "Saving data addresses failed again, retrying: %1", again);
    // Their spans were logged when they first failed again; an outage must not log them all at
    // every flush.
    if (stillFailing > 0) {
        KEST_ERROR(state.tag, "Saving %1 data addresses is still failing, retrying", stillFailing);
    }
    if (!lost.empty())
        KEST_ERROR(state.tag, "Saving data addresses failed while stopping, lost: %1", lost);
    if (!dropped.empty()) {
        KEST_ERROR(state.tag,
                   "Dropping %1 data addresses that could not be saved, more than %2 waited: %3",
                   dropped.size(), state.maxPendingSpans, dropped);
    }
}

DataAddressRecorder::DataAddressRecorder(AbstractDataDistributionStorage* storage, std::string host,
                                         std::chrono::milliseconds flushInterval,
                                         std::size_t maxPendingSpans)
    : m_storage(storage),
      m_host(std::move(host)),
      m_flushInterval(flushInterval),
      m_state(std::make_shared<State>())
{
    m_state->tag = kest::utils::log::Tag(this).text();
    m_state->gapMs = flushInterval.count();
    m_state->maxPendingSpans = maxPendingSpans;
}

DataAddressRecorder::~DataAddressRecorder()
{
    stop();
}

void DataAddressRecorder::start()
{
    scheduleFlush();
}

void DataAddressRecorder::scheduleFlush()
{
    m_timer.start(m_flushInterval, [this] {
        flush();
        scheduleFlush();
    });
}

void DataAddressRecorder::recordCommitted(
    const std::unordered_map<ZuUuid, ZuTimePeriodList>& periods)
{
    std::lock_guard lock(m_state->mutex);
    for (const auto& [device, list] : periods) {
        if (!list.empty())
            coalesce(m_state->open[device], list, m_state->gapMs);
    }
}

void DataAddressRecorder::flush()
{
    std::vector<DataInfo> items;
    std::vector<int> failures;
    {
        std::lock_guard lock(m_state->mutex);
        // Retries first, so that the oldest stay at the front if they fail again.
        for (auto& retry : m_state->retries) {
            items.push_back(std::move(retry.item));
            failures.push_back(retry.failures);
        }
        m_state->retries.clear();
        for (const auto& [device, list] : m_state->open) {
            const std::string id = device.toStdString();  //< Braced, as lookups query it.
            for (const auto& period : list) {
                items.push_back({id, period});
                failures.push_back(0);
            }
        }
        m_state->open.clear();
    }
    // The storage refuses an empty batch.
    if (items.empty())
        return;
    KEST_DEBUG(this, "Saving %1 data addresses", items.size());
    m_storage->saveDataAddress(
        items, m_host,
        [state = m_state, failures = std::move(failures)](std::vector<DataInfo> failed) {
            onSaveFailed(*state, failed, failures);
        });
}

void DataAddressRecorder::stop()
{
    m_timer.pleaseStopSync();
    {
        std::lock_guard lock(m_state->mutex);
        m_state->stopped = true;
    }
    flush();
}

std::size_t DataAddressRecorder::pendingSpans() const
{
    std::lock_guard lock(m_state->mutex);
    std::size_t count = m_state->retries.size();
    for (const auto& [device, list] : m_state->open)
        count += list.size();
    return count;
}

}  // namespace kest::cloud::storage::metadatadb
