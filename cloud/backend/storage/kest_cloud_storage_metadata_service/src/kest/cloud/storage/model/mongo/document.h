#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <bson/bson.h>

#include "document_view.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** An owned BSON document, built field by field in order. */
class Document
{
public:
    Document();
    ~Document();
    Document(Document&& other) noexcept;
    Document& operator=(Document&& other) noexcept;
    Document(const Document& other);
    Document& operator=(const Document& other);

    Document& appendString(std::string_view key, std::string_view value);
    Document& appendDouble(std::string_view key, double value);
    Document& appendBool(std::string_view key, bool value);
    Document& appendInt64(std::string_view key, std::int64_t value);
    /** A BSON UTC datetime: milliseconds since the Unix epoch. */
    Document& appendDateTime(std::string_view key, std::int64_t msSinceEpoch);
    Document& appendDateTime(std::string_view key, std::chrono::system_clock::time_point time);
    Document& appendDocument(std::string_view key, const Document& value);
    Document& appendStringArray(std::string_view key, const std::vector<std::string>& values);
    Document& appendDocumentArray(std::string_view key, const std::vector<Document>& values);

    const bson_t* get() const { return m_bson; }
    DocumentView view() const;
    /** Relaxed extended JSON, for logs and tests. */
    std::string toJson() const;

private:
    bson_t* m_bson = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
