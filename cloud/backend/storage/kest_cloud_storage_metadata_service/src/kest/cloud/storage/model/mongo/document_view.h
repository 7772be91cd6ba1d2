#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kest::cloud::storage::metadatadb::mongo {

/**
 * A read-only view of BSON bytes owned elsewhere (a Document, a cursor's current result). The
 * typed readers throw mongo::Error when the field is missing or holds another BSON type, so a
 * malformed stored document fails the whole operation instead of yielding defaults.
 */
class DocumentView
{
public:
    DocumentView(const std::uint8_t* data, std::size_t length) : m_data(data), m_length(length) {}

    bool has(std::string_view key) const;
    std::string getString(std::string_view key) const;
    double getDouble(std::string_view key) const;
    bool getBool(std::string_view key) const;
    /** Milliseconds since the Unix epoch. */
    std::int64_t getDateTimeMs(std::string_view key) const;
    std::chrono::system_clock::time_point getTimePoint(std::string_view key) const;
    DocumentView getDocument(std::string_view key) const;
    /** Every element must be a document. */
    std::vector<DocumentView> getDocumentArray(std::string_view key) const;
    /** Any numeric type, as servers differ in how they send counts. */
    std::int64_t getNumber(std::string_view key) const;

    std::string toJson() const;
    /** The document's length in bytes. */
    std::size_t size() const { return m_length; }

private:
    const std::uint8_t* m_data;
    std::size_t m_length;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
