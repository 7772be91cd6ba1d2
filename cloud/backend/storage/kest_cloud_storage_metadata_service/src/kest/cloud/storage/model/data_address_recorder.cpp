#include "data_address_recorder.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <vector>

#include <kest/utils/log/log.h>
#include <kest/utils/mutex.h>

#include "abstract_data_distribution_storage.h"
#include "data_address_compaction.h"
#include "data_info.h"

namespace kest::cloud::storage::metadatadb {

using namespace std::chrono;

namespace {

constexpr std::int64_t kNoTime = std::numeric_limits<std::int64_t>::min();
constexpr milliseconds kStopWait{30'000};

std::int64_t plus(std::int64_t timeMs, std::int64_t durationMs)
{
    return timeMs > ZuTimePeriod::kMaxTimeMs - durationMs ? ZuTimePeriod::kMaxTimeMs
                                                          : timeMs + durationMs;
}

std::int64_t msSinceEpoch(system_clock::time_point time)
{
    return duration_cast<milliseconds>(time.time_since_epoch()).count();
}

}  // namespace

struct DataAddressRecorder::State
{
    struct Item
    {
        DataInfo span;
        int failures = 0;
        /** The server refused it for its document: sent after everything else. */
        bool refused = false;
        system_clock::time_point retryAt = {};
    };

    struct Step
    {
        std::string deviceId;
        DataAddressCompaction::Plan plan;
    };

    enum class Phase
    {
        created,
        loading,
        running,
        /** No new writes; the one in flight finishes. */
        stopping,
        stopped,
    };

    AbstractDataDistributionStorage* storage = nullptr;
    std::string host;
    std::string tag;
    Options options;

    mutable Mutex mutex;
    std::condition_variable idle;
    Phase phase = Phase::created;
    /** Committed before this instance's spans were read. */
    std::unordered_map<ZuUuid, ZuTimePeriodList> held;
    /** Per device (as stored: braced), what is recorded or about to be, coalesced. */
    std::map<std::string, ZuTimePeriodList> recorded;
    std::vector<DataInfo> fresh;
    std::deque<Item> retries;  //< Oldest first.
    std::deque<Step> steps;
    bool writing = false;
    bool compacting = false;
    system_clock::time_point nextCompaction;
    std::int64_t oldestKeptMs = kNoTime;

    system_clock::time_point now() const { return options.clock(); }
    std::int64_t leaseMs() const { return options.leaseLength.count(); }

    /** Spans for the committed periods of one device that no recorded span covers yet. */
    void cover(const std::string& deviceId, const ZuTimePeriodList& periods);
    /** `span` recorded for the device, and queued for saving. */
    void add(const std::string& deviceId, ZuTimePeriodList& known, const ZuTimePeriod& span);
    void forgetBefore(std::int64_t timeMs);
    /** Starts the next write if none is in flight; call without the lock. */
    static void pump(const std::shared_ptr<State>& state);
    void onSaved(const std::vector<Item>& batch,
                 AbstractDataDistributionStorage::AppendResult result);
    void onRead(bool initial, bool ok, const std::vector<DataInfo>& spans);
};

void DataAddressRecorder::State::add(const std::string& deviceId, ZuTimePeriodList& known,
                                     const ZuTimePeriod& span)
{
    if (span.endTimeMs() <= span.startTimeMs)
        return;
    known.add(span);
    fresh.push_back({deviceId, span});
}

void DataAddressRecorder::State::cover(const std::string& deviceId, const ZuTimePeriodList& periods)
{
    ZuTimePeriodList& known = recorded[deviceId];
    const std::int64_t lease = leaseMs();
    // The recorded period around or after `timeMs`, and the one before it.
    const auto neighbours = [&known](std::int64_t timeMs) {
        const auto next = std::ranges::find_if(
            known, [timeMs](const ZuTimePeriod& p) { return p.endTimeMs() > timeMs; });
        const ZuTimePeriod* previous = next == known.begin() ? nullptr : &*std::prev(next);
        return std::make_pair(previous, next == known.end() ? nullptr : &*next);
    };
    const auto missing = [&known](const ZuTimePeriod& period) {
        ZuTimePeriodList left{period};
        for (const ZuTimePeriod& span : known)
            left.excludeTimePeriod(span);
        return left;
    };
    for (const ZuTimePeriod& period : periods) {
        // One gap at a time: the span of one may cover the next.
        for (ZuTimePeriodList gaps = missing(period); !gaps.empty(); gaps = missing(period)) {
            // From the end of a span less than F before, to F past the data or the next span.
            const ZuTimePeriod gap = gaps.front();
            const auto [previous, next] = neighbours(gap.startTimeMs);
            std::int64_t fromMs = gap.startTimeMs;
            if (previous && gap.startTimeMs - previous->endTimeMs() <= lease)
                fromMs = previous->endTimeMs();
            std::int64_t tillMs = plus(gap.endTimeMs(), lease);
            if (next)
                tillMs = std::min(tillMs, next->startTimeMs);
            add(deviceId, known, ZuTimePeriod::fromInterval(fromMs, tillMs));
        }
        // The next lease, before this one runs out.
        const ZuTimePeriod* around = neighbours(period.endTimeMs() - 1).second;
        if (around && around->endTimeMs() - period.endTimeMs() <= lease / 2) {
            const std::int64_t fromMs = around->endTimeMs();
            std::int64_t tillMs = plus(fromMs, lease);
            if (const ZuTimePeriod* next = neighbours(fromMs).second)
                tillMs = std::min(tillMs, next->startTimeMs);
            add(deviceId, known, ZuTimePeriod::fromInterval(fromMs, tillMs));
        }
    }
    // What is older is known to the shared database; recording it again costs a span at worst.
    while (known.size() > kMaxPeriodsPerDevice)
        known = ZuTimePeriodList(std::vector<ZuTimePeriod>(known.begin() + 1, known.end()));
}

void DataAddressRecorder::State::forgetBefore(std::int64_t timeMs)
{
    for (auto it = recorded.begin(); it != recorded.end();) {
        std::vector<ZuTimePeriod> kept;
        for (const ZuTimePeriod& period : it->second) {
            if (period.endTimeMs() > timeMs)
                kept.push_back(period);
        }
        if (kept.empty()) {
            it = recorded.erase(it);
        } else {
            it->second = ZuTimePeriodList(std::move(kept));
            ++it;
        }
    }
}

void DataAddressRecorder::State::pump(const std::shared_ptr<State>& state)
{
    std::unique_lock lock(state->mutex);
    if (state->writing || state->phase != Phase::running)
        return;
    const auto now = state->now();
    const bool retryDue = std::ranges::any_of(
        state->retries, [&now](const Item& item) { return item.retryAt <= now; });
    if (!state->fresh.empty() || retryDue) {
        // New spans first, so that old failures never hold back new data; refused ones last.
        std::vector<Item> batch;
        for (auto& span : state->fresh)
            batch.push_back({std::move(span)});
        state->fresh.clear();
        std::vector<Item> refused;
        std::deque<Item> waiting;
        for (Item& item : state->retries) {
            if (item.retryAt > now)
                waiting.push_back(std::move(item));
            else
                (item.refused ? refused : batch).push_back(std::move(item));
        }
        batch.insert(batch.end(), std::make_move_iterator(refused.begin()),
                     std::make_move_iterator(refused.end()));
        state->retries = std::move(waiting);
        std::vector<DataInfo> spans;
        for (const Item& item : batch)
            spans.push_back(item.span);
        state->writing = true;
        lock.unlock();
        KEST_DEBUG(state->tag, "Saving %1 data addresses", spans.size());
        state->storage->appendDataAddresses(
            spans, state->host,
            [state, batch = std::move(batch)](
                AbstractDataDistributionStorage::AppendResult result) mutable {
                state->onSaved(batch, std::move(result));
                pump(state);
            });
        return;
    }
    if (!state->steps.empty()) {
        Step step = std::move(state->steps.front());
        state->steps.pop_front();
        state->writing = true;
        lock.unlock();
        state->storage->replaceDataAddresses(step.deviceId, state->host, step.plan.add,
                                             step.plan.remove, [state](bool) {
                                                 {
                                                     std::lock_guard lock(state->mutex);
                                                     state->writing = false;
                                                     if (state->steps.empty())
                                                         state->compacting = false;
                                                 }
                                                 state->idle.notify_all();
                                                 pump(state);
                                             });
    }
}

void DataAddressRecorder::State::onSaved(const std::vector<Item>& batch,
                                         AbstractDataDistributionStorage::AppendResult result)
{
    std::vector<DataInfo> first;
    std::vector<DataInfo> again;
    std::size_t stillFailing = 0;
    std::vector<DataInfo> lost;
    std::vector<DataInfo> dropped;
    milliseconds firstDelay{0};
    {
        std::lock_guard lock(mutex);
        writing = false;
        // What failed is the end of the batch: an ordered write applied what came before.
        const std::size_t failed = std::min(result.failed.size(), batch.size());
        const auto now = this->now();
        for (std::size_t i = batch.size() - failed; i < batch.size(); ++i) {
            Item item = batch[i];
            ++item.failures;
            if (i == batch.size() - failed && result.firstRefused)
                item.refused = true;
            if (phase == Phase::stopped) {
                lost.push_back(item.span);
                continue;
            }
            const milliseconds delay = std::min<milliseconds>(
                kMaxRetryDelay, kFirstRetryDelay * (1LL << std::min(item.failures - 1, 16)));
            item.retryAt = now + delay;
            if (item.failures == 1) {
                first.push_back(item.span);
                firstDelay = delay;
            } else if (item.failures == 2) {
                again.push_back(item.span);
            } else {
                ++stillFailing;
            }
            retries.push_back(std::move(item));
        }
        while (retries.size() > options.maxPendingSpans) {
            dropped.push_back(std::move(retries.front().span));
            retries.pop_front();
        }
    }
    idle.notify_all();
    if (!first.empty()) {
        KEST_WARNING(tag, "Saving %1 data addresses failed; retrying in %2 ms", first.size(),
                     firstDelay.count());
    }
    if (!again.empty())
        KEST_ERROR(tag, "Saving data addresses failed again, retrying: %1", again);
    // Their spans were logged when they first failed again; an outage must not log them all at
    // every retry.
    if (stillFailing > 0)
        KEST_ERROR(tag, "Saving %1 data addresses is still failing, retrying", stillFailing);
    if (!lost.empty())
        KEST_ERROR(tag, "Saving data addresses failed while stopping, lost: %1", lost);
    if (!dropped.empty()) {
        KEST_ERROR(tag,
                   "Dropping %1 data addresses that could not be saved, more than %2 waited: %3",
                   dropped.size(), options.maxPendingSpans, dropped);
    }
}

void DataAddressRecorder::State::onRead(bool initial, bool ok, const std::vector<DataInfo>& spans)
{
    std::lock_guard lock(mutex);
    if (phase == Phase::stopping || phase == Phase::stopped)
        return;
    const auto now = this->now();
    if (!ok) {
        if (initial) {
            KEST_WARNING(tag,
                         "Could not read the recorded data addresses; data committed before the "
                         "start may get a span again");
        } else {
            KEST_WARNING(tag, "Could not read the recorded data addresses to compact them");
        }
        compacting = false;
        nextCompaction = now + std::min(options.compactionInterval, kMaxRetryDelay);
    } else {
        std::map<std::string, std::vector<ZuTimePeriod>> byDevice;
        for (const DataInfo& span : spans)
            byDevice[span.deviceId].push_back(span.timePeriod);
        for (auto& [deviceId, periods] : byDevice) {
            if (initial) {
                ZuTimePeriodList& known = recorded[deviceId];
                ZuTimePeriodList::unionTimePeriods(known, ZuTimePeriodList(periods));
            }
            auto plan = DataAddressCompaction::plan(periods, msSinceEpoch(now), oldestKeptMs);
            if (!plan.empty())
                steps.push_back({deviceId, std::move(plan)});
        }
        if (oldestKeptMs != kNoTime)
            forgetBefore(oldestKeptMs);
        compacting = !steps.empty();
        nextCompaction = now + options.compactionInterval;
        KEST_DEBUG(tag, "Compacting the data addresses of %1 devices, %2 spans read", steps.size(),
                   spans.size());
    }
    if (initial) {
        phase = Phase::running;
        for (const auto& [device, periods] : held)
            cover(device.toStdString(), periods);
        held.clear();
    }
}

DataAddressRecorder::DataAddressRecorder(AbstractDataDistributionStorage* storage, std::string host,
                                         Options options)
    : m_state(std::make_shared<State>()), m_withTimer(options.timer)
{
    m_state->storage = storage;
    m_state->host = std::move(host);
    m_state->tag = kest::utils::log::Tag(this).text();
    if (!options.clock)
        options.clock = [] { return system_clock::now(); };
    options.leaseLength = std::max(options.leaseLength, milliseconds(1));
    m_state->options = std::move(options);
}

DataAddressRecorder::~DataAddressRecorder()
{
    stop();
}

void DataAddressRecorder::start()
{
    {
        std::lock_guard lock(m_state->mutex);
        if (m_state->phase != State::Phase::created)
            return;
        m_state->phase = State::Phase::loading;
        m_state->compacting = true;
    }
    // Every device's document that names this instance: the devices are not known yet.
    m_state->storage->getDataAddresses(m_state->host, {},
                                       [state = m_state](bool ok, std::vector<DataInfo> spans) {
                                           state->onRead(/*initial*/ true, ok, spans);
                                           State::pump(state);
                                       });
    if (m_withTimer)
        scheduleTick();
}

void DataAddressRecorder::scheduleTick()
{
    m_timer.start(kTickInterval, [this] {
        tick();
        scheduleTick();
    });
}

void DataAddressRecorder::recordCommitted(
    const std::unordered_map<ZuUuid, ZuTimePeriodList>& periods)
{
    {
        std::lock_guard lock(m_state->mutex);
        for (const auto& [device, list] : periods) {
            if (list.empty())
                continue;
            if (m_state->phase == State::Phase::running)
                m_state->cover(device.toStdString(), list);  //< Braced, as lookups query it.
            else
                ZuTimePeriodList::unionTimePeriods(m_state->held[device], list);
        }
    }
    State::pump(m_state);
}

void DataAddressRecorder::setOldestKept(system_clock::time_point time)
{
    std::lock_guard lock(m_state->mutex);
    m_state->oldestKeptMs = std::max(m_state->oldestKeptMs, msSinceEpoch(time));
}

void DataAddressRecorder::tick()
{
    // The devices whose spans this instance knows of: those it read at start and those it
    // recorded since. Others' documents are not read again.
    std::vector<std::string> devices;
    {
        std::lock_guard lock(m_state->mutex);
        const auto now = m_state->now();
        if (m_state->phase == State::Phase::running && !m_state->compacting &&
            now >= m_state->nextCompaction) {
            for (const auto& [deviceId, periods] : m_state->recorded)
                devices.push_back(deviceId);
            m_state->compacting = !devices.empty();
            m_state->nextCompaction = now + m_state->options.compactionInterval;
        }
    }
    if (!devices.empty()) {
        m_state->storage->getDataAddresses(m_state->host, devices,
                                           [state = m_state](bool ok, std::vector<DataInfo> spans) {
                                               state->onRead(/*initial*/ false, ok, spans);
                                               State::pump(state);
                                           });
    }
    State::pump(m_state);
}

void DataAddressRecorder::stop()
{
    if (m_withTimer)
        m_timer.pleaseStopSync();
    std::vector<DataInfo> spans;
    std::vector<State::Item> batch;
    {
        std::unique_lock lock(m_state->mutex);
        if (m_state->phase == State::Phase::stopped || m_state->phase == State::Phase::stopping)
            return;
        m_state->phase = State::Phase::stopping;
        m_state->steps.clear();
        // A storage that never answers must not hold the service's stop for good.
        if (!m_state->idle.wait_for(lock, kStopWait, [this] { return !m_state->writing; }))
            KEST_WARNING(m_state->tag, "A save of data addresses is still in flight at stop");
        for (const auto& [device, periods] : m_state->held)
            m_state->cover(device.toStdString(), periods);
        m_state->held.clear();
        m_state->phase = State::Phase::stopped;
        for (auto& span : m_state->fresh)
            batch.push_back({std::move(span)});
        m_state->fresh.clear();
        batch.insert(batch.end(), m_state->retries.begin(), m_state->retries.end());
        m_state->retries.clear();
        for (const auto& item : batch)
            spans.push_back(item.span);
    }
    if (spans.empty())
        return;
    KEST_DEBUG(m_state->tag, "Saving the last %1 data addresses", spans.size());
    m_state->storage->appendDataAddresses(
        spans, m_state->host,
        [state = m_state,
         batch = std::move(batch)](AbstractDataDistributionStorage::AppendResult result) {
            state->onSaved(batch, std::move(result));
        });
}

std::size_t DataAddressRecorder::pendingSpans() const
{
    std::lock_guard lock(m_state->mutex);
    std::size_t count = m_state->fresh.size() + m_state->retries.size();
    for (const auto& [device, periods] : m_state->held)
        count += periods.size();
    return count;
}

}  // namespace kest::cloud::storage::metadatadb
