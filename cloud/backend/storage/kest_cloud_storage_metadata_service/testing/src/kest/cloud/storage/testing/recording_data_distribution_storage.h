#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

/**
 * Keeps what the cluster components hand it: loads, and data addresses in documents per device
 * that it changes as MongoDB would. Writes and reads of data addresses complete at once, or, once
 * held, when the test completes them.
 */
class RecordingDataDistributionStorage : public NullDataDistributionStorage
{
public:
    struct Span
    {
        ZuTimePeriod period;
        std::string node;

        friend bool operator==(const Span&, const Span&) = default;
    };

    void saveInstanceLoad(const InstanseLoad& load) override;
    void saveInstanceLoadSync(const InstanseLoad& load) override { saveInstanceLoad(load); }
    void appendDataAddresses(const std::vector<DataInfo>& data, const std::string& host,
                             MoveOnlyFunc<void(AppendResult)> handler) override;
    void getDataAddresses(const std::string& host, const std::vector<std::string>& deviceIds,
                          MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler) override;
    void replaceDataAddresses(const std::string& deviceId, const std::string& host,
                              const std::vector<ZuTimePeriod>& add,
                              const std::vector<ZuTimePeriod>& remove,
                              MoveOnlyFunc<void(bool)> handler) override;

    /** From now on appends and reads wait for completeAppend() and completeRead(). */
    void holdWrites(bool hold = true);
    void holdReads(bool hold = true);
    std::size_t heldAppends() const;
    /** The items of the oldest held append. */
    std::vector<DataInfo> heldItems() const;
    /**
     * Completes the oldest held append: its last `failed` items fail, the first of them refused
     * by the server when `refused`; the others are stored.
     */
    void completeAppend(std::size_t failed = 0, bool refused = false);
    void completeRead(bool ok = true);

    /** Every append handed over so far, held or not. */
    std::vector<std::vector<DataInfo>> appends() const;
    std::size_t appendedSpans() const;
    std::vector<Span> document(const std::string& deviceId) const;
    void setDocument(const std::string& deviceId, std::vector<Span> spans);
    /** Whether a search for `period` names `node` for the device. */
    bool finds(const std::string& deviceId, const ZuTimePeriod& period,
               const std::string& node) const;
    int reads() const;
    /** The devices that each read named; empty: every device. */
    std::vector<std::vector<std::string>> readDevices() const;
    int replaces() const;
    std::vector<InstanseLoad> loads() const;

private:
    struct HeldAppend
    {
        std::vector<DataInfo> items;
        std::string host;
        MoveOnlyFunc<void(AppendResult)> handler;
    };
    struct HeldRead
    {
        std::string host;
        std::vector<std::string> deviceIds;
        MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler;
    };

    void append(const std::vector<DataInfo>& items, const std::string& host);
    std::vector<DataInfo> spansOf(const std::string& host,
                                  const std::vector<std::string>& deviceIds) const;

    mutable std::mutex m_mutex;
    std::vector<InstanseLoad> m_loads;
    std::map<std::string, std::vector<Span>> m_documents;
    std::vector<std::vector<DataInfo>> m_appends;
    bool m_holdWrites = false;
    bool m_holdReads = false;
    std::deque<HeldAppend> m_heldAppends;
    std::deque<HeldRead> m_heldReads;
    int m_reads = 0;
    std::vector<std::vector<std::string>> m_readDevices;
    int m_replaces = 0;
};

}  // namespace kest::cloud::storage::metadatadb::test
