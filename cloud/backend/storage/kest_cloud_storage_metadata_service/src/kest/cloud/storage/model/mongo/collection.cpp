#include "collection.h"

#include <utility>

#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

Collection::Collection(mongoc_collection_t* collection) : m_collection(collection) {}

Collection::~Collection()
{
    if (m_collection)
        mongoc_collection_destroy(m_collection);
}

Collection::Collection(Collection&& other) noexcept
    : m_collection(std::exchange(other.m_collection, nullptr))
{}

Collection& Collection::operator=(Collection&& other) noexcept
{
    std::swap(m_collection, other.m_collection);
    return *this;
}

BulkWrite Collection::createBulkWrite() const
{
    return BulkWrite(mongoc_collection_create_bulk_operation_with_opts(m_collection, nullptr));
}

std::optional<WriteResult> Collection::updateOne(const Document& filter, const Document& update,
                                                 bool upsert) const
{
    Document options;
    options.appendBool("upsert", upsert);
    bson_t reply;
    bson_error_t error{};
    const bool ok = mongoc_collection_update_one(m_collection, filter.get(), update.get(),
                                                 options.get(), &reply, &error);
    const DocumentView view(bson_get_data(&reply), reply.len);
    std::optional<WriteResult> result;
    if (ok &&
        mongoc_write_concern_is_acknowledged(mongoc_collection_get_write_concern(m_collection))) {
        result = WriteResult{
            .matched = view.has("matchedCount") ? view.getNumber("matchedCount") : 0,
            .modified = view.has("modifiedCount") ? view.getNumber("modifiedCount") : 0,
            .upserted = view.has("upsertedCount") ? view.getNumber("upsertedCount") : 0};
    }
    bson_destroy(&reply);
    if (!ok)
        throw Error(error);
    return result;
}

std::int64_t Collection::deleteMany(const Document& filter) const
{
    bson_t reply;
    bson_error_t error{};
    const bool ok =
        mongoc_collection_delete_many(m_collection, filter.get(), nullptr, &reply, &error);
    const DocumentView view(bson_get_data(&reply), reply.len);
    const std::int64_t deleted =
        ok && view.has("deletedCount") ? view.getNumber("deletedCount") : 0;
    bson_destroy(&reply);
    if (!ok)
        throw Error(error);
    return deleted;
}

Cursor Collection::find(const Document& filter) const
{
    return Cursor(mongoc_collection_find_with_opts(m_collection, filter.get(), nullptr, nullptr));
}

void Collection::createIndex(const std::string& field) const
{
    Document key;
    key.appendInt64(field, 1);
    Document index;
    index.appendDocument("key", key).appendString("name", field);
    Document command;
    command.appendString("createIndexes", mongoc_collection_get_name(m_collection))
        .appendDocumentArray("indexes", {std::move(index)});
    bson_t reply;
    bson_error_t error{};
    const bool ok = mongoc_collection_write_command_with_opts(m_collection, command.get(), nullptr,
                                                              &reply, &error);
    bson_destroy(&reply);
    if (!ok)
        throw Error(error);
}

}  // namespace kest::cloud::storage::metadatadb::mongo
