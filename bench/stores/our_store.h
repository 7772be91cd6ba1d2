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
    std::uint64_t bytesOnDisk() override;

    const std::filesystem::path& dir() const { return m_dir; }
    /** Stops the storage, so that its files can be read by another connection. */
    void close();

private:
    std::filesystem::path m_dir;
    std::unique_ptr<analytics::db::EventsStorage> m_storage;
};

}  // namespace kest::bench
