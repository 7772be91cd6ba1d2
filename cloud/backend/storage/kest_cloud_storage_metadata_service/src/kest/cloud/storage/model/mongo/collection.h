#pragma once

#include <cstdint>
#include <optional>

#include <mongoc/mongoc.h>

#include "bulk_write.h"
#include "cursor.h"
#include "document.h"
#include "write_result.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** A collection handle of a leased client. Operations throw mongo::Error on failure. */
class Collection
{
public:
    explicit Collection(mongoc_collection_t* collection);
    ~Collection();
    Collection(Collection&& other) noexcept;
    Collection& operator=(Collection&& other) noexcept;
    Collection(const Collection&) = delete;
    Collection& operator=(const Collection&) = delete;

    mongoc_collection_t* get() const { return m_collection; }

    /** Ordered, with the collection's write concern. */
    BulkWrite createBulkWrite() const;

    /** No result for an unacknowledged write. */
    std::optional<WriteResult> updateOne(const Document& filter, const Document& update,
                                         bool upsert) const;

    /** The number of documents removed. */
    std::int64_t deleteMany(const Document& filter) const;

    /** Default options: no projection, sort or limit. */
    Cursor find(const Document& filter) const;

    /** An ascending index on `field`, named after it; nothing happens if it exists. */
    void createIndex(const std::string& field) const;

private:
    mongoc_collection_t* m_collection = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
