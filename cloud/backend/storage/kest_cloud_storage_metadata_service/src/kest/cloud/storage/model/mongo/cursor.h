#pragma once

#include <optional>

#include <mongoc/mongoc.h>

#include "document_view.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** The results of a find, one document at a time. */
class Cursor
{
public:
    explicit Cursor(mongoc_cursor_t* cursor);
    ~Cursor();
    Cursor(Cursor&& other) noexcept;
    Cursor& operator=(Cursor&& other) noexcept;
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    /**
     * The next document, valid until the following call; none at the end. Throws mongo::Error
     * when the query or a fetch fails.
     */
    std::optional<DocumentView> next();

private:
    mongoc_cursor_t* m_cursor = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
