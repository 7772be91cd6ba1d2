#pragma once

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
};

}  // namespace kest::cloud::storage::metadatadb::mongo
