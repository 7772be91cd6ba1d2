#include "bulk_write.h"

#include <utility>

#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

BulkWrite::BulkWrite(mongoc_bulk_operation_t* bulk) : m_bulk(bulk) {}

BulkWrite::~BulkWrite()
{
    if (m_bulk)
        mongoc_bulk_operation_destroy(m_bulk);
}

BulkWrite::BulkWrite(BulkWrite&& other) noexcept : m_bulk(std::exchange(other.m_bulk, nullptr)) {}

BulkWrite& BulkWrite::operator=(BulkWrite&& other) noexcept
{
    std::swap(m_bulk, other.m_bulk);
    return *this;
}

void BulkWrite::updateOne(const Document& filter, const Document& update, bool upsert)
{
    Document options;
    options.appendBool("upsert", upsert);
    bson_error_t error{};
    if (!mongoc_bulk_operation_update_one_with_opts(m_bulk, filter.get(), update.get(),
                                                    options.get(), &error)) {
        throw Error(error);
    }
}

std::optional<WriteResult> BulkWrite::execute()
{
    bson_t reply;
    bson_error_t error{};
    const std::uint32_t serverId = mongoc_bulk_operation_execute(m_bulk, &reply, &error);
    const DocumentView view(bson_get_data(&reply), reply.len);
    std::optional<WriteResult> result;
    const auto count = [&view](const char* key) { return view.has(key) ? view.getNumber(key) : 0; };
    if (serverId != 0 &&
        mongoc_write_concern_is_acknowledged(mongoc_bulk_operation_get_write_concern(m_bulk))) {
        result = WriteResult{.matched = count("nMatched"),
                             .modified = count("nModified"),
                             .upserted = count("nUpserted"),
                             .inserted = count("nInserted")};
    }
    // The first operation that the server refused, if that is what failed: an ordered write
    // applied the ones before it.
    std::optional<Error> refused;
    if (serverId == 0 && view.has("writeErrors")) {
        try {
            const auto writeErrors = view.getDocumentArray("writeErrors");
            if (!writeErrors.empty()) {
                const DocumentView& first = writeErrors.front();
                refused.emplace(error.message, static_cast<int>(first.getNumber("code")),
                                static_cast<std::size_t>(first.getNumber("index")));
            }
        } catch (const Error&) {
            // A reply of another shape: the driver's error stands for the whole write.
        }
    }
    bson_destroy(&reply);
    if (refused)
        throw *refused;
    if (serverId == 0)
        throw Error(error);
    return result;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
