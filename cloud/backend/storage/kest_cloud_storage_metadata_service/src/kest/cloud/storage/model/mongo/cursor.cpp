#include "cursor.h"

#include <utility>

#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

Cursor::Cursor(mongoc_cursor_t* cursor) : m_cursor(cursor) {}

Cursor::~Cursor()
{
    if (m_cursor)
        mongoc_cursor_destroy(m_cursor);
}

Cursor::Cursor(Cursor&& other) noexcept : m_cursor(std::exchange(other.m_cursor, nullptr)) {}

Cursor& Cursor::operator=(Cursor&& other) noexcept
{
    std::swap(m_cursor, other.m_cursor);
    return *this;
}

std::optional<DocumentView> Cursor::next()
{
    const bson_t* document = nullptr;
    if (mongoc_cursor_next(m_cursor, &document))
        return DocumentView(bson_get_data(document), document->len);
    bson_error_t error{};
    if (mongoc_cursor_error(m_cursor, &error))
        throw Error(error);
    return std::nullopt;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
