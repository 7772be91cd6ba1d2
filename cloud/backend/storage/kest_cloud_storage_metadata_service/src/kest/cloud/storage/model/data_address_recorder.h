#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <kest/network/aio/timer.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

#include "data_info.h"

namespace kest::cloud::storage::metadatadb {

class AbstractDataDistributionStorage;

/**
 * Records in the shared database which device data this instance has committed, as spans with
 * this instance as their node, so that other instances can find it.
 *
 * Committed periods are coalesced per device: a period within the flush interval F of a span
 * still open extends it, a longer silence opens another. Every F the open spans are saved and
 * closed, so a steady stream of one device gives one span per F. A save that fails is retried
 * with the next flush, and logged as an error with its spans when the retry fails too (later
 * failures only by their count); retries go on while at most maxPendingSpans wait, the oldest
 * being dropped, and logged, past that.
 */
class DataAddressRecorder
{
public:
    static constexpr std::size_t kMaxPendingSpans = 100'000;

    /** `host` becomes the node of every span. `storage` must outlive the saves handed to it. */
    DataAddressRecorder(AbstractDataDistributionStorage* storage, std::string host,
                        std::chrono::milliseconds flushInterval,
                        std::size_t maxPendingSpans = kMaxPendingSpans);
    /** Stops, as stop() does. */
    ~DataAddressRecorder();

    DataAddressRecorder(const DataAddressRecorder&) = delete;
    DataAddressRecorder& operator=(const DataAddressRecorder&) = delete;

    /** Flushes every flush interval, on an I/O thread. */
    void start();

    /** Takes the periods of a committed batch per device. Any thread; never blocks for long. */
    void recordCommitted(const std::unordered_map<ZuUuid, ZuTimePeriodList>& periods);

    /** Hands the retries and every open span to the storage now, in one save. */
    void flush();

    /**
     * Stops the timer and flushes. A save still in flight that fails later is logged as lost,
     * not retried.
     */
    void stop();

    /** Spans open or waiting for a retry. */
    std::size_t pendingSpans() const;

private:
    struct State;

    void scheduleFlush();
    static void onSaveFailed(State& state, const std::vector<DataInfo>& failed,
                             const std::vector<int>& previousFailures);

    AbstractDataDistributionStorage* const m_storage;
    const std::string m_host;
    const std::chrono::milliseconds m_flushInterval;
    // Shared with the save handlers, which may run after the recorder is gone.
    std::shared_ptr<State> m_state;
    kest::network::aio::Timer m_timer;
};

}  // namespace kest::cloud::storage::metadatadb
