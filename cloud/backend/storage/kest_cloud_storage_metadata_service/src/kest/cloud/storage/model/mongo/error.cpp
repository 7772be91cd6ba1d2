#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

Error::Error(const bson_error_t& error) : std::runtime_error(error.message) {}

}  // namespace kest::cloud::storage::metadatadb::mongo
