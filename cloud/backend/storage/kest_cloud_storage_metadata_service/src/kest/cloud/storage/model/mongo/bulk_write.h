#pragma once

#include <optional>

#include <mongoc/mongoc.h>

#include "document.h"
#include "update_one.h"
#include "write_result.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** An ordered bulk write: operations are queued, then sent together by execute(). */
class BulkWrite
{
public:
    explicit BulkWrite(mongoc_bulk_operation_t* bulk);
    ~BulkWrite();
    BulkWrite(BulkWrite&& other) noexcept;
    BulkWrite& operator=(BulkWrite&& other) noexcept;
    BulkWrite(const BulkWrite&) = delete;
    BulkWrite& operator=(const BulkWrite&) = delete;

    /** Throws mongo::Error when the driver refuses the operation (an update without "$"). */
    void updateOne(const Document& filter, const Document& update, bool upsert);
    void append(const UpdateOne& operation)
    {
        updateOne(operation.filter, operation.update, operation.upsert);
    }

    /**
     * Sends the queued operations; can be called once. No result for an unacknowledged write.
     * Throws mongo::Error on a client or server failure, including an empty bulk write; when
     * the server refused an operation, the error has its index and code.
     */
    std::optional<WriteResult> execute();

private:
    mongoc_bulk_operation_t* m_bulk = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
