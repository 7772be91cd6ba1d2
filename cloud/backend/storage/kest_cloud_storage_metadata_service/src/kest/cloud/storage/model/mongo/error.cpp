#include "error.h"

#include <array>

namespace kest::cloud::storage::metadatadb::mongo {

Error::Error(const bson_error_t& error)
    : std::runtime_error(error.message), m_code(static_cast<int>(error.code))
{}

Error::Error(const std::string& message, int code, std::size_t writeErrorIndex)
    : std::runtime_error(message), m_code(code), m_writeErrorIndex(writeErrorIndex)
{}

bool Error::isDocumentTooLarge() const
{
    // BSONObjectTooLarge, and the updates' own "Resulting document after update is larger
    // than ..." and "replacement document is too large".
    static constexpr std::array kCodes = {10334, 17419, 17420};
    for (const int code : kCodes) {
        if (m_code == code)
            return true;
    }
    return false;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
