#pragma once

#include <filesystem>
#include <memory>

#include <kest/analytics_db/events_storage.h>

#include "compared_store.h"

namespace kest::bench {

/** This project's events storage, written and searched through its own interface. */
class OurStore : public ComparedStore
{
public:
    /** Null storage when it cannot be opened in `dir`. */
    explicit OurStore(std::filesystem::path dir);
    ~OurStore() override;

    bool isOpen() const { return m_storage != nullptr; }
    std::string name() const override { return "ours"; }
    std::string description() const override;
    bool load(const std::vector<PacketPtr>& packets) override;
    bool finishWriting() override;
    bool search(const analytics::db::Filter& filter, std::size_t* tracks) override;
    void beforeSearch() override;
    std::uint64_t bytesOnDisk() override;

    const std::filesystem::path& dir() const { return m_dir; }
    /** Stops the storage, so that its files can be read by another connection. */
    void close();
    /** Opens the storage again on the files it left. */
    bool reopen();
    /**
     * From now on each search is preceded by the commit of one packet of a camera of its own,
     * with no words, as searches during ingest find the store just changed.
     */
    void commitBeforeEachSearch();

private:
    std::filesystem::path m_dir;
    std::unique_ptr<analytics::db::EventsStorage> m_storage;
    PacketPtr m_lastLoaded;
    std::shared_ptr<common::metadata::ObjectMetadataPacket> m_written;
};

}  // namespace kest::bench
