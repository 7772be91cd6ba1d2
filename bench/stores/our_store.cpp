#include "our_store.h"

#include <future>

#include "../analytics_db/searched_store.h"
#include "../analytics_db/store_files.h"

namespace kest::bench {

namespace fs = std::filesystem;
using analytics::db::Filter;
using analytics::db::ObjectTrackEx;
using analytics::db::ResultCode;

OurStore::OurStore(fs::path dir) : m_dir(std::move(dir))
{
    fs::remove_all(m_dir);
    m_storage = openStorage(m_dir);
}

OurStore::~OurStore()
{
    close();
}

std::string OurStore::description() const
{
    return "SQLite WAL, synchronous=NORMAL: a row per track written once when it ends (id, "
           "device, type and time indexes, 16x16 grid), contentless FTS5 over attributes, one "
           "chunk of delta-coded positions per track";
}

void OurStore::close()
{
    m_storage.reset();
}

bool OurStore::reopen()
{
    m_storage = openStorage(m_dir);
    return m_storage != nullptr;
}

bool OurStore::load(const std::vector<PacketPtr>& packets)
{
    for (const auto& packet : packets)
        saveWhenReady(*m_storage, packet);
    if (!packets.empty())
        m_lastLoaded = packets.back();
    m_storage->flush();
    const auto statistics = m_storage->statistics();
    return statistics.packetsFailed == 0;
}

bool OurStore::finishWriting()
{
    m_storage->closeOpenTracks();
    return m_storage->statistics().packetsFailed == 0;
}

void OurStore::commitBeforeEachSearch()
{
    if (!m_lastLoaded)
        return;
    m_written = std::make_shared<common::metadata::ObjectMetadataPacket>(*m_lastLoaded);
    m_written->deviceId = ZuUuid::createUuid();
    for (auto& object : m_written->objectMetadataList)
        object.attributes.clear();
}

void OurStore::beforeSearch()
{
    if (!m_written)
        return;
    m_written->timestampUs += 1000;
    std::promise<bool> committed;
    m_storage->saveCommitted({std::make_shared<common::metadata::ObjectMetadataPacket>(*m_written)},
                             [&committed](bool ok) { committed.set_value(ok); });
    committed.get_future().get();
}

bool OurStore::search(const Filter& filter, std::size_t* tracks)
{
    std::promise<std::pair<ResultCode, std::size_t>> done;
    auto future = done.get_future();
    m_storage->lookup(filter, [&done](ResultCode code, std::vector<ObjectTrackEx> found) {
        done.set_value({code, found.size()});
    });
    const auto [code, count] = future.get();
    *tracks = count;
    return code == ResultCode::ok;
}

std::uint64_t OurStore::bytesOnDisk()
{
    // Measured closed, as the short tracks are: a checkpoint that meets the storage's own
    // connections may leave the write-ahead log behind, and right after a short run of searches
    // (--quick) the size counted it.
    close();
    checkpointSqliteFiles(m_dir);
    return directoryBytes(m_dir);
}

}  // namespace kest::bench
