#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include <bson/bson.h>

namespace kest::cloud::storage::metadatadb::mongo {

/** A failure reported by the MongoDB driver or a document of an unexpected shape. */
class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
    explicit Error(const bson_error_t& error);
    /** A write that the server refused: its code, and the operation's index in a bulk write. */
    Error(const std::string& message, int code, std::size_t writeErrorIndex);

    /** The driver's or the server's code; 0 when there is none. */
    int code() const { return m_code; }
    /** Set when the server refused one operation of a write, rather than the whole command. */
    std::optional<std::size_t> writeErrorIndex() const { return m_writeErrorIndex; }
    /** The server refused the write because a document would exceed its size limit. */
    bool isDocumentTooLarge() const;

private:
    int m_code = 0;
    std::optional<std::size_t> m_writeErrorIndex;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
